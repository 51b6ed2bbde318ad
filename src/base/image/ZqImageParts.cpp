#include "ZqImageParts.h"

#include "SxFSAction.h"
#include "SxOs.h"

#include <cerrno>

namespace ZqImageParts {

namespace {

/// The buffer is used in pieces that stay in the processor's cache between reading and writing.
constexpr int64 PIECE = BUFFER / 16;

/// Copies `n` bytes from the position of `from` to that of `to`, piece by piece through the buffer.
void copyPieces(SxFileIO* from, SxFileIO* to, int64 n, SxArray<char>* buffer) {
    for (int64 done = 0; done < n;) {
        const int64 want = std::min(PIECE, n - done);
        char* const piece = buffer->data() + done;
        if (from->readBuffer(piece, want) != want) {
            throw SxException("File '" + from->getFilePath() + "' became shorter while it was read", UNIT,
                              __LINE__);
        }
        to->writeBuffer(piece, want);
        done += want;
    }
}

} // namespace

void copyBytes(SxFileIO* from, SxFileIO* to, uint64 n, SxArray<char>* buffer, Progress* progress) {
    while (n > 0) {
        progress->refuseStop();
        const auto want = static_cast<int64>(std::min<uint64>(n, BUFFER));
        const int64 source = from->getOffset(), target = to->getOffset();
        copyPieces(from, to, want, buffer);
        to->startWriteback(target, want);
        from->adviseDone(source, want);
        n -= static_cast<uint64>(want);
        progress->add(static_cast<uint64>(want));
    }
}

std::optional<Parts> parseRecord(const SxString& pathPrefix, const SxList<SxString>& lines) {
    if (lines.getSize() < 2) return std::nullopt;
    bool badSize = false, badPart = false;
    const int64 size = lines(0).toInt64(&badSize), partSize = lines(1).toInt64(&badPart);
    if (badSize || badPart || size < 0 || partSize <= 0) return std::nullopt;
    return Parts(pathPrefix, static_cast<uint64>(size), static_cast<uint64>(partSize));
}

Parts readRecord(const SxString& pathPrefix, const SxString& file) {
    SxList<SxString> lines;
    try {
        lines = SxFileIO::readLines(file, 0);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read '" + file + "' file.", UNIT, __LINE__);
    }
    const std::optional<Parts> parts = parseRecord(pathPrefix, lines);
    if (!parts) throw SxException("Invalid content in '" + file + "' file.", UNIT, __LINE__);
    return *parts;
}

bool isJoining(const SxString& pathPrefix) {
    return !SxFSAction::exists(pathPrefix + ZqImageFiles::SPLIT_INFO) &&
           SxFSAction::test_f(pathPrefix + ZqImageFiles::JOIN_INFO);
}

int permissionsOf(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(path), &info);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot look at '" + path + "'", UNIT, __LINE__);
    }
    return static_cast<int>(info.permissions & 0666);
}

} // namespace ZqImageParts
