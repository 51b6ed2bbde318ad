#include "ZqServerMeans.h"

#include "ZqImageAddress.h"
#include "ZqImageFiles.h"
#include "ZqImageRecords.h"
#include "ZqReadable.h"
#include "ZqRemoteFile.h"
#include "ZqUrlText.h"

#include <optional>
#include <utility>

namespace {

constexpr const char* ASK = "tell whoever runs the server";
/// A record is smaller.
constexpr int64 MAX_RECORD = 1 << 20;

/// The proxy on the way to the server, or what names it; empty without one.
SxString proxyTo(const SxString& url, const ZqNetAccess& access) {
    const SxString proxy = access.proxyFor(url);
    if (!proxy.isEmpty()) return proxy == ZqNetAccess::DIRECT ? "" : ZqNetAccess::withoutPassword(proxy);
    const char* variable =
        ZqNetAccess::proxyVariable(url.changeCase(false).startsWith("https:") ? "https" : "http");
    return variable ? variable : "";
}

/// Whether the server itself has answered, as far as a failure tells.
bool hasAnswered(const SxException& why, bool isDirect) {
    for (const char* tag : {ZqNetLink::NOT_FOUND, ZqNetLink::WRONG, ZqNetLink::CHANGED}) {
        if (why.hasTag(tag)) return true;
    }
    return isDirect && why.hasTag(ZqNetLink::REFUSED);
}

/// `why`: why the server gives no image; none where it does.
ZqMeans getCertificate(const SxString& url, const std::optional<SxException>& why, bool isDirect) {
    if (!url.changeCase(false).startsWith("https://")) {
        return {"certificate", false, false,
                "The address isn't one of https, so nobody vouches for the server",
                "use an address that begins with https:// where the server has one"};
    }
    const auto fault = [](const char* text, const SxString& remedy) {
        return ZqMeans{"certificate", false, true, text, remedy};
    };
    if (why && why->hasTag(ZqNetLink::UNTRUSTED))
        return fault("The server's certificate is of no authority that this machine trusts",
                     SxString("name a file with the authority by --cacert, or ") + ASK);
    if (why && why->hasTag(ZqNetLink::MISNAMED))
        return fault("The server's certificate is for another host than the address names",
                     SxString("look at the address for a mistake, or ") + ASK);
    if (why && why->hasTag(ZqNetLink::MISDATED))
        return fault("The server's certificate has expired, or isn't valid yet by the clock of this machine",
                     SxString("set the clock of this machine right, or ") + ASK);
    if (!why || hasAnswered(*why, isDirect)) {
        return {"certificate",
                true,
                true,
                "The server's certificate is of an authority that this machine trusts",
                {}};
    }
    return {"certificate", false, false, "The server's certificate wasn't seen",
            "see the line on the server"};
}

/// The files of an image on a server.
class Files {
public:
    Files(const SxPtr<ZqNetLink>& link_, const SxString& url_, const SxArray<SxString>& headers_,
          ZqStopTest stop_)
        : link(link_),
          url(url_),
          headers(headers_),
          stop(std::move(stop_)) {}

    ZqMeans getRecords(uint64 sizeIdx) const {
        return ZqMeans::tried({"records", true, true, "img.json and img.idx are there", {}},
                              {"records", false, true, "A record of the image is missing", ASK}, [&] {
                                  open(ZqImageFiles::IMAGE_JSON)->get(MAX_RECORD, stop);
                                  char first = 0;
                                  open(ZqImageFiles::IDX, sizeIdx)->read(0, 1, &first, stop);
                              });
    }

    void addRanges(uint64 sizeZqf, SxList<ZqMeans>* all) const {
        const auto zqf = open(ZqImageFiles::ZQF, sizeZqf);
        const ZqMeans none{"ranges", false, true, "The server gives no parts of img.zqf",
                           SxString("let the server answer range requests; ") + ASK};
        const ZqMeans ranges =
            ZqMeans::tried({"ranges", true, true, "The server gives parts of img.zqf", {}}, none, [&] {
                char middle = 0;
                zqf->read(sizeZqf / 2, 1, &middle, stop);
            });
        const bool isLacking = !ranges.isThere || zqf->getFacts()->mayLackRanges();
        *all << (ranges.isThere && isLacking ? none : ranges);
        if (isLacking) return;
        if (zqf->getFacts()->hasValidator()) {
            *all << ZqMeans{"validators", true, false, "The server tells versions of its files apart", {}};
        } else {
            *all << ZqMeans{"validators", false, false,
                            "The server sends neither ETag nor Last-Modified, so a change is seen late",
                            SxString("let the server send them; ") + ASK};
        }
    }

    ZqMeans getPacked() const {
        const SxString remedy = "let the publisher pack the image (tavrin image pack)";
        try {
            const auto packed = open(ZqImageFiles::PACKED);
            packed->getFacts()->allowAbsence();
            char first = 0;
            packed->read(0, 1, &first, stop);
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) throw;
            // What else is wrong with the server the lines before tell.
            return {
                "packed", false, false,
                "The server gives no packed form (img.zqf.zst), so more is downloaded, and checked only at "
                "its end",
                remedy};
        }
        return {"packed", true, false, "The packed form img.zqf.zst is there", {}};
    }

private:
    SxPtr<ZqRemoteFile> open(const char* name, uint64 size = ZqRemoteFile::UNKNOWN) const {
        return SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(url, name), headers, size);
    }

    const SxPtr<ZqNetLink> link;
    const SxString url;
    const SxArray<SxString> headers;
    const ZqStopTest stop;
};

} // namespace

SxList<ZqMeans> ZqServerMeans::look(const std::function<bool()>& stop) {
    const auto link = SxPtr<ZqNetLink>::create(access);
    const SxString proxy = proxyTo(url, access);
    const SxString wrong = proxy.isEmpty() ? "the address" : "the address or the proxy (" + proxy + ")";
    const ZqMeans none{"server", false, true, "The server gives no image",
                       "put " + wrong + " right, or tell whoever gave it to you"};
    ZqAppParams app;
    std::optional<SxException> why;
    ZqMeans server = ZqMeans::tried({"server", true, true, {}, {}}, none, [&] {
        try {
            ZqImageAddress::require(url);
            app = ZqImageRecords(link, "", url, headers).getApp(stop);
        } catch (const SxException& e) {
            why = e;
            throw;
        }
    });
    sizeZqf = app.sizeZqf;
    if (server.isThere)
        server.text =
            ZqUrlText::of(url) + " has an image of " + ZqReadable::bytes(static_cast<double>(sizeZqf));
    SxList<ZqMeans> all = {server, getCertificate(url, why, proxy.isEmpty())};
    if (!server.isThere) return all;
    const Files files(link, url, headers, stop);
    all << files.getRecords(app.sizeIdx);
    files.addRanges(sizeZqf, &all);
    all << files.getPacked();
    return all;
}
