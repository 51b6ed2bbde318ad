#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "ZqMeans.h"
#include "ZqNetAccess.h"

#include <functional>

/// What a download needs of the server of an image, each with what to do where it is missing. Asks for the
/// records and for a few bytes of the image. One thread.
class ZqServerMeans {
public:
    /// `url`: the address of the image folder; `headers`: lines for each request; `access`: the way there.
    ZqServerMeans(const SxString& url_, const SxArray<SxString>& headers_, const ZqNetAccess& access_)
        : url(url_),
          headers(headers_),
          access(access_) {}

    /// Raises with the tag SxException::STOPPED where `stop` says so, and nothing else.
    SxList<ZqMeans> look(const std::function<bool()>& stop);
    /// Bytes of the complete image; 0 where the server hasn't told.
    uint64 getSizeZqf() const noexcept { return sizeZqf; }

private:
    const SxString url;
    const SxArray<SxString> headers;
    const ZqNetAccess access;
    uint64 sizeZqf = 0;
};
