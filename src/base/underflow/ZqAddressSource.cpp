#include "ZqAddressSource.h"

#include "SxException.h"

namespace {
constexpr const char* UNIT = "src/base/ZqAddressSource";
}

void ZqAddressSource::setAddress(const SxString& url, const SxList<SxString>& headers) {
    downloader.setURL(url);
    downloader.setHeaders(headers);
}

SxArray<uint64> ZqAddressSource::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                          const SxArray<uint64>&) {
    downloader.announce(offsets, sizes);
    return {};
}

void ZqAddressSource::read(uint64 offset, uint64 size, char* buffer, bool isApart) {
    const int status =
        isApart ? downloader.onDemandAnew(offset, size, buffer) : downloader.onDemand(offset, size, buffer);
    if (status == 0) return;
    if (status == 1) throw SxException(downloader.getLastErrMsg(), UNIT, __LINE__);
    throw SxException(INVALID, "Status " + SxString(status) + " of a download", UNIT, __LINE__);
}

void ZqAddressSource::forget(uint64 offset, uint64 size) {
    downloader.forget(offset, size);
}

void ZqAddressSource::cancel(bool on) {
    downloader.cancel(on);
}
