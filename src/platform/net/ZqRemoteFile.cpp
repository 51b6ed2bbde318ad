#include "ZqRemoteFile.h"

#include "SxFileIO.h"
#include "ZqRangeReader.h"
#include "ZqUrlText.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqRemoteFile";

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
    return SxException(e, "Cannot fetch " + what + "'" + ZqUrlText::of(getUrl()) + "'", UNIT, __LINE__);
}

void ZqRemoteFile::prepare(ZqRangeReader* reader) const {
    if (isFresh) reader->setFresh();
    if (retry) reader->setRetry(retry);
}

void ZqRemoteFile::read(uint64 offset, uint64 n, char* buffer, const ZqStopTest& stop) {
    if (n == 0) return;
    ZqRangeReader reader(*this, offset, offset + n, ZqTransfer::Kind::OnDemand);
    prepare(&reader);
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

SxArray<char> ZqRemoteFile::get(int64 maxSize, const ZqStopTest& stop, ZqTransfer::Kind kind) {
    ZqRangeReader reader(*this, 0, UNKNOWN, kind);
    prepare(&reader);
    SxArray<char> bytes;
    try {
        reader.takeAll(
            [&] { bytes.removeAll(); },
            [&](const SxArray<char>& piece) {
                const int64 old = bytes.getSize();
                requireNoMore(static_cast<uint64>(old + piece.getSize()), static_cast<uint64>(maxSize));
                bytes.resize(old + piece.getSize(), true);
                std::memcpy(bytes.data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
            },
            stop);
    } catch (const SxException& e) {
        throw failure(e, "");
    }
    return bytes;
}

/// Raises where the file is larger, as its server says or as `n` bytes of it tell.
void ZqRemoteFile::requireNoMore(uint64 n, uint64 maxSize) const {
    const uint64 size = getSize();
    if (size != UNKNOWN && size > maxSize) {
        throw SxException(ZqNetLink::WRONG,
                          "The file has " + SxString(size) + " bytes, and no more than " + SxString(maxSize) +
                              " were expected",
                          UNIT, __LINE__);
    }
    if (n > maxSize) {
        throw SxException(ZqNetLink::WRONG, "The file has more than " + SxString(maxSize) + " bytes", UNIT,
                          __LINE__);
    }
}

bool ZqRemoteFile::stream(uint64 offset, const Sink& sink, const ZqStopTest& stop) {
    ZqRangeReader reader(*this, offset, UNKNOWN, ZqTransfer::Kind::Ordered);
    prepare(&reader);
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
        ZqRangeReader reader(*this, 0, UNKNOWN, ZqTransfer::Kind::Ordered);
        prepare(&reader);
        try {
            reader.takeAll(
                [&] {
                    target->truncate(0);
                    target->seek(0);
                },
                [&](const SxArray<char>& piece) {
                    // A server need not say beforehand how much there is.
                    requireNoMore(static_cast<uint64>(target->getOffset() + piece.getSize()), maxSize);
                    target->writeBuffer(piece.data(), piece.getSize());
                },
                stop);
        } catch (const SxException& e) {
            throw failure(e, "");
        }
    });
}
