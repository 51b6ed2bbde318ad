#include "ZqServerMeans.h"

#include "ZqImageAddress.h"
#include "ZqImageFiles.h"
#include "ZqImageRecords.h"
#include "ZqReadable.h"
#include "ZqRemoteFile.h"
#include "ZqUrlText.h"

#include <utility>

namespace {

constexpr const char* ASK = "tell whoever runs the server";
/// A record is smaller.
constexpr int64 MAX_RECORD = 1 << 20;

/// Gives what `ask` gives, or where it raises `missing`, and why.
ZqMeans tried(ZqMeans missing, const std::function<ZqMeans()>& ask) {
    try {
        return ask();
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        missing.text += ": " + e.toString(SxException::ShowMessage, ": ");
        return missing;
    }
}

ZqMeans getCertificate(const SxString& url, const ZqMeans& server) {
    if (!url.changeCase(false).startsWith("https://")) {
        return {"certificate", false, false,
                "The address isn't one of https, so nobody vouches for the server",
                "use an address that begins with https:// where the server has one"};
    }
    if (server.isThere) {
        return {"certificate",
                true,
                true,
                "The server's certificate is of an authority that this machine trusts",
                {}};
    }
    const SxString text = server.text.changeCase(false);
    if (text.find("certificate") < 0 && text.find("ssl") < 0) {
        return {"certificate", false, false, "The server's certificate wasn't seen",
                "see the line on the server"};
    }
    return {"certificate", false, true, "The server's certificate isn't trusted here",
            "set the clock of this machine right, name the authority with SSL_CERT_FILE, or tell whoever "
            "runs the "
            "server"};
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
        return tried({"records", false, true, "A record of the image is missing", ASK}, [&] {
            open(ZqImageFiles::IMAGE_JSON)->get(MAX_RECORD, stop);
            char first = 0;
            open(ZqImageFiles::IDX, sizeIdx)->read(0, 1, &first, stop);
            return ZqMeans{"records", true, true, "img.json and img.idx are there", {}};
        });
    }

    void addRanges(uint64 sizeZqf, SxList<ZqMeans>* all) const {
        const auto zqf = open(ZqImageFiles::ZQF, sizeZqf);
        const ZqMeans none{"ranges", false, true, "The server gives no parts of img.zqf",
                           SxString("let the server answer range requests; ") + ASK};
        const ZqMeans ranges = tried(none, [&] {
            char middle = 0;
            zqf->read(sizeZqf / 2, 1, &middle, stop);
            if (zqf->getFacts()->mayLackRanges()) return none;
            return ZqMeans{"ranges", true, true, "The server gives parts of img.zqf", {}};
        });
        *all << ranges;
        if (!ranges.isThere) return;
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
    const auto link = SxPtr<ZqNetLink>::create();
    const ZqMeans none{"server", false, true, "The server gives no image",
                       "put the address right, or tell whoever gave it to you"};
    ZqAppParams app;
    const ZqMeans server = tried(none, [&] {
        ZqImageAddress::require(url);
        app = ZqImageRecords(link, "", url, headers).getApp(stop);
        sizeZqf = app.sizeZqf;
        return ZqMeans{"server",
                       true,
                       true,
                       ZqUrlText::of(url) + " has an image of " + ZqReadable::megabytes(sizeZqf),
                       {}};
    });
    SxList<ZqMeans> all = {server, getCertificate(url, server)};
    if (!server.isThere) return all;
    const Files files(link, url, headers, stop);
    all << files.getRecords(app.sizeIdx);
    files.addRanges(sizeZqf, &all);
    all << files.getPacked();
    return all;
}
