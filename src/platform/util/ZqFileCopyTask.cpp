#include "ZqFileCopyTask.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"

#include <array>
#include <functional>
#include <span>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqFileCopyTask";
constexpr int64 BATCH = 4 << 20; ///< bytes
/// Most segments of one batch, however few bytes they have: bounds the memory of lists of tiny ranges.
constexpr size_t MAX_SEGMENTS = 4096;
/// After so many bytes the device is put to work, so that the sync at the end is short.
constexpr int64 WRITEBACK_STEP = 32 << 20;

/// From so many segments on a batch is read by several threads.
constexpr size_t SCATTERED = 32;

/// Neighbouring bytes of a file; those of a batch's segments follow each other in its buffer.
struct Segment {
    int64 offset, length;
};

void appendTo(std::vector<Segment>& segments, int64 offset, int64 length) {
    if (!segments.empty() && segments.back().offset + segments.back().length == offset) {
        segments.back().length += length;
    } else {
        segments.push_back({offset, length});
    }
}

/// Ranges that are read together and then written together.
struct Batch {
    SxArray<char> bytes = SxArray<char>(BATCH);
    int64 n = 0;
    std::vector<Segment> reads, writes;
    int64 targetBegin = INT64_MAX, targetEnd = 0;

    bool isFull() const {
        return n == BATCH || reads.size() == MAX_SEGMENTS || writes.size() == MAX_SEGMENTS;
    }
    /// Whether bytes of the target file may be overwritten by this batch.
    bool touches(int64 offset, int64 length) const {
        return offset < targetEnd && offset + length > targetBegin;
    }
    void add(int64 from, int64 to, int64 length) {
        appendTo(reads, from, length);
        appendTo(writes, to, length);
        targetBegin = std::min(targetBegin, to);
        targetEnd = std::max(targetEnd, to + length);
        n += length;
    }
    void clear() {
        reads.clear();
        writes.clear();
        n = targetEnd = 0;
        targetBegin = INT64_MAX;
    }
};

bool isOneFile(const SxFileIO& a, const SxFileIO& b) {
    SxStat infoA, infoB;
    const int result = SxOs::get().statFd(a.getFd(), &infoA);
    const int resultB = result < 0 ? result : SxOs::get().statFd(b.getFd(), &infoB);
    if (resultB < 0) {
        throw SxException("Cannot look at '" + a.getFilePath() + "' and '" + b.getFilePath() +
                              "': " + SxOs::errorText(resultB),
                          UNIT, __LINE__);
    }
    return infoA.device == infoB.device && infoA.inode == infoB.inode;
}

/// Safe from several threads at once.
void readExactly(const SxFileIO& file, char* bytes, int64 offset, int64 length) {
    const int64 got = SxOs::get().readAt(file.getFd(), bytes, length, offset);
    if (got == length) return;
    if (got < 0) {
        throw SxException(SxFileIO::fileReadErr(file.getFilePath()) + " at byte " + offset + ": " +
                              SxOs::errorText(got),
                          UNIT, __LINE__);
    }
    throw SxException("File '" + file.getFilePath() + "' ends at byte " + (offset + got) + ", and " + length +
                          " bytes at offset " + offset + " are to be copied",
                      UNIT, __LINE__);
}

void readSegments(const SxFileIO& file, std::span<const Segment> segments, char* bytes) {
    for (const Segment& segment : segments) {
        readExactly(file, bytes, segment.offset, segment.length);
        bytes += segment.length;
    }
}

void checkRanges(const SxArray<ZqFileCopyTask::Range>& ranges) {
    constexpr auto MAX = static_cast<uint64>(INT64_MAX);
    uint64 left = MAX;
    for (int64 i = 0; i < ranges.getSize(); ++i) {
        const ZqFileCopyTask::Range& range = ranges(i);
        if (range.length > left || range.sourceOffset > MAX - range.length ||
            range.targetOffset > MAX - range.length) {
            throw SxException(SxString("Range ") + i + " is out of bounds: " + range.length +
                                  " bytes from offset " + range.sourceOffset + " to offset " +
                                  range.targetOffset,
                              UNIT, __LINE__);
        }
        left -= range.length;
    }
}

} // namespace

/// A part of the work beside the job's own thread.
class ZqFileCopyTask::Helper : public SxSystemThread {
public:
    explicit Helper(const char* name) { setThreadName(name); }
    ~Helper() override { SxSystemThread::wait(); }

    void begin(std::function<void()> work_) {
        work = std::move(work_);
        start();
    }
    /// Raises what the work has raised.
    void wait() override {
        SxSystemThread::wait();
        if (hasException()) throw getException();
    }

protected:
    void main() override { work(); }

private:
    std::function<void()> work;
};

class ZqFileCopyTask::Copy {
public:
    explicit Copy(ZqFileCopyTask& task_) : task(task_), source(task.source, "rb") {
        isNew = !SxFSAction::exists(task.target);
        target.open(task.target, isNew ? "wb" : "r+b");
        isInPlace = !isNew && isOneFile(source, target);
        stopped = task.stopRequested();
    }

    void run() {
        for (const Range& range : task.ranges) {
            if (stopped) break;
            const auto from = static_cast<int64>(range.sourceOffset);
            const auto to = static_cast<int64>(range.targetOffset);
            const auto length = static_cast<int64>(range.length);
            if (isInPlace && from < to && to < from + length) {
                shiftUp(from, to, length);
            } else {
                addRange(from, to, length);
            }
        }
        if (!stopped) flush();
        digestJob.wait();
        target.sync();
        target.close();
        if (isNew) SxFSAction::syncDir(SxFileInfo(task.target).getPath());
    }

private:
    void addRange(int64 from, int64 to, int64 length) {
        while (length > 0 && !stopped) {
            const int64 n = std::min(length, BATCH - batch.n);
            // What this range reads may be what an earlier one of the batch still has to write.
            if (batch.isFull() || (isInPlace && batch.touches(from, n))) {
                flush();
                continue;
            }
            batch.add(from, to, n);
            from += n;
            to += n;
            length -= n;
        }
    }

    void flush() {
        if (batch.n == 0) return;
        readBatch();
        digestJob.wait();
        digestJob.begin([this, bytes = batch.bytes.data(), n = batch.n] { task.md5.update(bytes, n); });
        int64 at = 0;
        for (const Segment& segment : batch.writes) {
            write(batch.bytes.data() + at, segment.offset, segment.length);
            at += segment.length;
        }
        std::swap(batch, digested);
        batch.clear();
    }

    /// Scattered segments are read by several threads, so that a device gets more than one request at a time.
    void readBatch() {
        const std::span<const Segment> segments(batch.reads);
        char* bytes = batch.bytes.data();
        if (segments.size() < SCATTERED) return readSegments(source, segments, bytes);
        const size_t share = (segments.size() + readers.size() - 1) / readers.size();
        size_t first = 0;
        for (Helper& reader : readers) {
            const auto part = segments.subspan(first, std::min(share, segments.size() - first));
            reader.begin([this, part, bytes] { readSegments(source, part, bytes); });
            for (const Segment& segment : part)
                bytes += segment.length;
            first += part.size();
        }
        for (Helper& reader : readers)
            reader.wait();
    }

    void write(const char* bytes, int64 offset, int64 length) {
        target.seek(offset);
        target.writeBuffer(bytes, length);
        unsentBytes += length;
        if (unsentBytes >= WRITEBACK_STEP) {
            target.startWriteback(0, 0);
            unsentBytes = 0;
        }
        task.addNCurrent(static_cast<uint64>(length));
        stopped = task.stopRequested();
    }

    /// A range that overlaps its own target from below: written from its end, so that no piece is overwritten
    /// before it was read. The digest wants the bytes from the front, and so they are read twice.
    void shiftUp(int64 from, int64 to, int64 length) {
        flush();
        digestJob.wait();
        char* bytes = batch.bytes.data();
        for (int64 done = 0; done < length && !stopped; done += BATCH) {
            const int64 n = std::min(BATCH, length - done);
            readExactly(source, bytes, from + done, n);
            task.md5.update(bytes, n);
            stopped = task.stopRequested();
        }
        for (int64 left = length; left > 0 && !stopped;) {
            const int64 n = std::min(BATCH, left);
            left -= n;
            readExactly(source, bytes, from + left, n);
            write(bytes, to + left, n);
        }
    }

    ZqFileCopyTask& task;
    SxFileIO source, target;
    bool isNew = false, isInPlace = false, stopped = false;
    int64 unsentBytes = 0;
    Batch batch, digested;
    // Declared last, so that they end before what they work on.
    std::array<Helper, 4> readers{Helper("zq-copy-read"), Helper("zq-copy-read"), Helper("zq-copy-read"),
                                  Helper("zq-copy-read")};
    Helper digestJob{"zq-copy-md5"};
};

ZqFileCopyTask::ZqFileCopyTask(const SxString& source_, const SxString& target_,
                               const SxArray<Range>& ranges_)
    : source(source_),
      target(target_),
      ranges(ranges_) {
    setThreadName("zq-copy");
    uint64 total = 0;
    for (const Range& range : ranges)
        total += range.length;
    setNTotal(total);
}

SxMd5 ZqFileCopyTask::getMD5() const {
    return md5;
}

void ZqFileCopyTask::main() {
    setNCurrent(0);
    md5.initialize();
    try {
        checkRanges(ranges);
        Copy(*this).run();
        md5.finish();
    } catch (const SxException& e) {
        throw SxException(e, "Cannot copy ranges of '" + source + "' to '" + target + "'", UNIT, __LINE__);
    }
}
