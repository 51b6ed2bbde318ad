#pragma once

#include "SxPtr.h"
#include "ZqODRDownloader.h"
#include "ZqRangeSource.h"

/// Ranges of an address, for clients that have nothing else of the image.
class ZqAddressSource : public ZqRangeSource {
public:
    /// Tag of a failure: the download gave a status that it has not.
    static constexpr const char* INVALID = "InvalidStatus";

    /// Address and headers ("Name: value") for later requests. Raises where they are refused.
    void setAddress(const SxString& url, const SxList<SxString>& headers);

    /// Fetches nothing of `likely`.
    SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                             const SxArray<uint64>& likely) override;
    void read(uint64 offset, uint64 size, char* buffer, bool isApart) override;
    void forget(uint64 offset, uint64 size) override;
    void cancel(bool on) override;

private:
    ZqODRDownloader downloader;
};
