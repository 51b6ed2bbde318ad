#pragma once

#include "ZqAppParams.h"
#include "ZqFeedStatus.h"
#include "ZqRemoteImage.h"

/// The server that an image folder is completed from: its address and headers, and the version of the image
/// that is wanted. Asks nothing by itself but makes what asks, over a link of the caller's. Doesn't change,
/// so it is safe from any thread.
class ZqImageOrigin {
public:
    ZqImageOrigin() = default;
    /// `settings`: with the address; `access_`: the way there; `app_`: the image's, as its folder has it.
    ZqImageOrigin(const ZqFeedSettings& settings, const ZqNetAccess& access_, const ZqAppParams& app_);

    /// The image folder, and the path of its `img.zqf`.
    const SxString& getImage() const noexcept { return image; }
    SxString getZqf() const;
    /// Whether a server is known.
    bool hasAddress() const { return !url.isEmpty(); }
    const ZqAppParams& getApp() const noexcept { return app; }
    /// Of the ordered download, in bytes a second; 0 for none.
    uint64 getRateLimit() const noexcept { return rateLimit; }

    /// A link of the caller's own to the server.
    SxPtr<ZqNetLink> makeLink() const;
    /// What the server has of the image, by requests over `link`.
    SxPtr<ZqRemoteImage> makeImage(const SxPtr<ZqNetLink>& link) const;
    /// Raises where the server has another version, or doesn't tell; see ZqImageRecords.
    void requireSame(const SxPtr<ZqNetLink>& link, const ZqStopTest& stop) const;

private:
    SxString image, url;
    SxArray<SxString> headers;
    ZqNetAccess access;
    uint64 rateLimit = 0;
    ZqAppParams app;
};
