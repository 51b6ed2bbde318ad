#include "ZqTraceRecords.h"

#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
/// Bytes after which the system is asked to begin writing, so that the disk works while we go on.
constexpr int64 WRITEBACK = 8 << 20;

} // namespace

namespace ZqTraceRecords {

void Writer::flush() {
    file->writeBuffer(buffer.data(), used);
    if (digest) digest->update(buffer.data(), used);
    used = 0;
    const int64 done = file->getOffset();
    if (done > 0 && done % WRITEBACK == 0) file->startWriteback(done - WRITEBACK, WRITEBACK);
}

Summary replace(const SxString& path, const std::function<void(Writer* out)>& fill) {
    refuseRecording(path);
    Summary summary;
    SxFileIO::writeAtomic(path + ZqTraceFiles::ITEMS, [&](SxFileIO* file) {
        SxMd5 digest;
        Writer out(file, &digest);
        fill(&out);
        out.flush();
        digest.finish();
        summary = {out.getN() * ZqTraceFormat::SIZE, out.getDuration(), digest.toString()};
    });
    return summary;
}

namespace {

bool hasHoles(const SxString& path) {
    Reader reader(path);
    ZqTraceItem item;
    while (reader.next(&item)) {
        if (ZqTraceFormat::isHole(item)) return true;
    }
    return false;
}

} // namespace

SxString findMismatch(const SxString& path, const ZqTraceParams& record) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    Found found{SxFileInfo(file).getSize(), {}, false};
    const bool hasSize = record.size == 0 || record.size == found.size;
    // Only one that is still written, or whose writer was killed, has no size and no digest in its record.
    if (record.checksumTrc.isEmpty()) {
        found.hasHoles = hasSize && hasHoles(path);
    } else if (hasSize) {
        found.digest = SxMd5::file(file, nullptr);
    }
    return findMismatch(path, record, found);
}

SxString findMismatch(const SxString& path, const ZqTraceParams& record, const Found& found) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    const bool fits = (record.size == 0 || record.size == found.size) &&
                      (record.checksumTrc.isEmpty() || record.checksumTrc == found.digest);
    if (fits && record.checksumTrc.isEmpty() && found.hasHoles) {
        return "'" + file +
               "' has records of zeros, as a power cut leaves them; to leave them out: tavrin trace mend "
               "TRACE";
    }
    if (fits) return {};
    return "'" + file + "' isn't the one that '" + path + ZqTraceFiles::RECORD +
           "' tells of: a command was cut off between the two; give that command again, or take the items as "
           "they are: tavrin trace mend TRACE";
}

void requireMatch(const SxString& path) {
    const SxString mismatch = findMismatch(path, ZqTraceParams(path));
    if (!mismatch.isEmpty()) throw SxException(mismatch, UNIT, __LINE__);
}

bool isRecording(const SxString& path) {
    return ZqFileLock::isLocked(path + ZqTraceFiles::ITEMS);
}

void refuseRecording(const SxString& path) {
    if (!isRecording(path)) return;
    throw SxException("A mounted drive records into the trace '" + path + "'; unmount it first", UNIT,
                      __LINE__);
}

namespace {

/// A file that can't be looked at must not pass for one that is empty, or for one that stayed as it was.
FileState makeState(const SxString& file, int result, const SxStat& info) {
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot look at '" + file + "'", UNIT, __LINE__);
    }
    return {info.device, info.inode, info.size, info.modifiedMs};
}

void requireSame(const SxString& file, const FileState& was, const FileState& is) {
    if (was == is) return;
    const bool hasGrown = was.device == is.device && was.inode == is.inode && was.size <= is.size;
    if (hasGrown && ZqFileLock::isLocked(file)) return;
    throw SxException("'" + file +
                          "' was changed or replaced while it was read, by another command or as a recording "
                          "ended; give the command again",
                      UNIT, __LINE__);
}

} // namespace

FileState FileState::of(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(path), &info);
    if (result == -ENOENT || result == -ENOTDIR) return {};
    return makeState(path, result, info);
}

FileState FileState::of(const SxFileIO& file) {
    SxStat info;
    const int result = SxOs::get().statFd(file.getFd(), &info);
    return makeState(file.getFilePath(), result, info);
}

Unchanged::Unchanged(const SxString& path)
    : items(path + ZqTraceFiles::ITEMS),
      record(path + ZqTraceFiles::RECORD),
      itemsState(FileState::of(items)),
      recordState(FileState::of(record)) {
}

void Unchanged::require() const {
    requireSame(items, itemsState, FileState::of(items));
    requireSame(record, recordState, FileState::of(record));
}

Reader::Reader(const SxString& path, int64 chunk, SxMd5* digest_)
    : file(path + ZqTraceFiles::ITEMS),
      chunkSize(chunk * ZqTraceFormat::SIZE),
      digest(digest_) {
    state = FileState::of(file);
    if (state.size < 0 || !SxFSAction::test_f(file)) {
        throw SxException("Cannot trace data. File '" + file + "' not found!", UNIT, __LINE__);
    }
    n = state.size / ZqTraceFormat::SIZE;
    buffer.resize(std::min(chunkSize, n * ZqTraceFormat::SIZE));
}

bool Reader::fill() {
    const int64 size = std::min(buffer.getSize(), (n - nRead) * ZqTraceFormat::SIZE);
    if (size == 0) return false;
    try {
        SxFileIO trc(file, "rb", 0600);
        requireSame(file, state, FileState::of(trc));
        trc.seek(nRead * ZqTraceFormat::SIZE);
        if (trc.readBuffer(buffer.data(), size) < size) {
            throw SxException("Invalid number of items read", UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read trace items from " + file, UNIT, __LINE__);
    }
    if (digest) digest->update(buffer.data(), size);
    nRead += size / ZqTraceFormat::SIZE;
    at = buffer.data();
    end = at + size;
    return true;
}

} // namespace ZqTraceRecords
