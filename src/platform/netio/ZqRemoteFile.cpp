#include "ZqRemoteFile.h"

#include "SxFileIO.h"
#include "ZqRangeReader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqRemoteFile";

} // namespace

ZqRemoteFile::ZqRemoteFile(const SxPtr<ZqNetLink>& link_, const SxString& url,
                           const SxArray<SxString>& headers, uint64 expectedSize)
    : link(link_),
      facts(SxPtr<ZqFileFacts>::create(url, headers, expectedSize)) {
}

SxString ZqRemoteFile::urlIn(const SxString& folderUrl, const SxString& name) {
    const std::string& all = folderUrl.str();
    // A fragment isn't sent to a server.
    const size_t end = std::min(all.find('#'), all.size()), query = std::min(all.find('?'), end);
    const std::string folder = all.substr(0, query);
    const std::string path = folder.ends_with('/') ? folder : folder + "/";
    return SxString(path + name.str() + all.substr(query, end - query));
}

SxException ZqRemoteFile::failure(const SxException& e, const SxString& what) const {
    return SxException(e, "Cannot fetch " + what + "'" + getUrl().makeVisible() + "'", UNIT, __LINE__);
}

void ZqRemoteFile::read(uint64 offset, uint64 n, char* buffer, const ZqStopTest& stop) {
    if (n == 0) return;
    ZqRangeReader reader(*this, offset, offset + n, ZqTransfer::Kind::OnDemand);
    finish(&reader, n, buffer, stop);
}

void ZqRemoteFile::finish(ZqRangeReader* reader, uint64 n, char* buffer, const ZqStopTest& stop) {
    const uint64 offset = reader->getPos();
    try {
        if (reader->readAll(buffer, n, stop) != n)
            throw SxException(ZqNetLink::WRONG, "The file ends before", UNIT, __LINE__);
    } catch (const SxException& e) {
        throw failure(e, "bytes " + SxString(offset) + "-" + SxString(offset + n - 1) + " of ");
    }
}

SxArray<char> ZqRemoteFile::getOnce(int64 maxSize, const ZqStopTest& stop) {
    const ZqFileFacts::Address address = facts->getAddress();
    ZqTransfer::Request request;
    request.url = address.url;
    request.headers = address.headers;
    request.maxBuffered = std::numeric_limits<int64>::max();
    request.check = [file = facts, maxSize](const ZqTransfer::Response& response) {
        file->checkStatus(response, 200);
        ZqTransfer::Response whole = response;
        whole.total = response.length;
        if (response.length > maxSize) {
            throw SxException(ZqNetLink::WRONG,
                              "The file has " + SxString(response.length) + " bytes, and no more than " +
                                  SxString(maxSize) + " were expected",
                              UNIT, __LINE__);
        }
        file->learn(whole);
    };
    const auto transfer = SxPtr<ZqTransfer>::create(std::move(request));
    link->add(transfer);
    SxArray<char> bytes, piece;
    try {
        for (;;) {
            link->checkStop(stop);
            const ZqTransfer::Next got = transfer->next(&piece);
            if (got == ZqTransfer::Next::Ended) return bytes;
            if (got == ZqTransfer::Next::Waiting) continue;
            const int64 old = bytes.getSize();
            if (piece.getSize() > maxSize - old) {
                throw SxException(ZqNetLink::WRONG, "The file has more than " + SxString(maxSize) + " bytes",
                                  UNIT, __LINE__);
            }
            bytes.resize(old + piece.getSize(), true);
            std::memcpy(bytes.data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
        }
    } catch (const SxException&) {
        link->drop(transfer);
        throw;
    }
}

SxArray<char> ZqRemoteFile::get(int64 maxSize, const ZqStopTest& stop) {
    try {
        ZqNetRetry retry(link, link->getSettings().nRangeTries);
        for (;;) {
            try {
                return getOnce(maxSize, stop);
            } catch (const SxException& e) {
                retry.failed(e, stop);
            }
        }
    } catch (const SxException& e) {
        throw failure(e, "");
    }
}

bool ZqRemoteFile::stream(uint64 offset, const Sink& sink, const ZqStopTest& stop) {
    ZqRangeReader reader(*this, offset, UNKNOWN, ZqTransfer::Kind::Ordered);
    for (;;) {
        SxArray<char> piece;
        try {
            if (!reader.next(&piece, stop)) return true;
        } catch (const SxException& e) {
            throw failure(e, "");
        }
        if (!sink(piece.data(), piece.getSize())) return false;
    }
}

void ZqRemoteFile::fetchTo(const SxString& path, const ZqStopTest& stop, uint64 maxSize) {
    SxFileIO::writeAtomic(path, [&](SxFileIO* target) {
        stream(
            0,
            [&](const char* bytes, int64 n) {
                // A server need not say ahead how much there is.
                if (static_cast<uint64>(target->getOffset() + n) > maxSize) {
                    const SxException e(ZqNetLink::WRONG,
                                        "The file has more than " + SxString(maxSize) + " bytes", UNIT,
                                        __LINE__);
                    throw failure(e, "");
                }
                target->writeBuffer(bytes, n);
                return true;
            },
            stop);
    });
}
