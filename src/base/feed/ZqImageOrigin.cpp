#include "ZqImageOrigin.h"

#include "SxException.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageRecords.h"

namespace {
constexpr const char* UNIT = "src/base/ZqImageOrigin";
} // namespace

ZqImageOrigin::ZqImageOrigin(const ZqFeedSettings& settings, const ZqNetAccess& access_,
                             const ZqAppParams& app_)
    : image(settings.image),
      url(settings.url),
      headers(settings.headers),
      access(access_),
      rateLimit(settings.rateLimit),
      app(app_) {
}

SxString ZqImageOrigin::getZqf() const {
    return ZqImageFolder::prefix(image) + ZqImageFiles::ZQF;
}

SxPtr<ZqNetLink> ZqImageOrigin::makeLink() const {
    return SxPtr<ZqNetLink>::create(access);
}

SxPtr<ZqRemoteImage> ZqImageOrigin::makeImage(const SxPtr<ZqNetLink>& link) const {
    link->setRateLimit(static_cast<double>(rateLimit));
    auto made = SxPtr<ZqRemoteImage>::create(link, url, app.sizeZqf, headers, ZqRemoteImage::MAX_KEPT,
                                             app.checksumZqf);
    // The test may be called after this object's end.
    made->setSameTest([weak = std::weak_ptr<ZqNetLink>(link.shared()), folder = image, address = url,
                       lines = headers, own = app](const ZqStopTest& stop) {
        const SxPtr<ZqNetLink> still(weak.lock());
        if (!still) throw SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
        return ZqImageRecords(still, folder, address, lines).isSameOnServer(own, stop);
    });
    return made;
}

void ZqImageOrigin::requireSame(const SxPtr<ZqNetLink>& link, const ZqStopTest& stop) const {
    ZqImageRecords(link, image, url, headers).requireSameOnServer(app, stop);
}
