#include "ZqFileCopyTask.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxIndexSet.h"
#include "SxOs.h"
#include "SxQueue.h"
#include "ZqBlocks.h"

#include <array>
#include <deque>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqFileCopyTask";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr int64 BATCH = 1 << 20; ///< bytes: all buffers stay in the processor's caches
/// Enough to keep the digest at work while a slow read or write is waited for.
constexpr size_t N_BUFFERS = 6;
/// Batches that the disk is asked for in advance, so that it has many requests at once to choose from.
constexpr size_t N_AHEAD = 16;
/// Most pieces of a batch, however few bytes they have: bounds the memory of lists of tiny ranges.
constexpr size_t MAX_PIECES = 1024;
/// After so many bytes the device is put to work, so that the sync at the end is short.
constexpr int64 WRITEBACK_STEP = 32 << 20;
/// Ranges between two looks at the stop flag while nothing is copied yet.
constexpr int64 STOP_STEP = 4096;

/// Neighbouring bytes of a file, and their place in a batch's buffer.
struct Piece {
    int64 offset, length, at;
};

/// Ranges that are read together and then written together.
struct Batch {
    int64 n = 0; ///< bytes
    std::vector<Piece> reads, writes;

    bool isFull() const { return n == BATCH || reads.size() == MAX_PIECES || writes.size() == MAX_PIECES; }
    void add(int64 from, int64 to, int64 length) {
        append(reads, {from, length, n});
        append(writes, {to, length, n});
        n += length;
    }

private:
    static void append(std::vector<Piece>& pieces, const Piece& piece) {
        if (!pieces.empty() && pieces.back().offset + pieces.back().length == piece.offset) {
            pieces.back().length += piece.length;
        } else {
            pieces.push_back(piece);
        }
    }
};

struct Buffer {
    SxArray<char> bytes = SxArray<char>(BATCH);
    int64 n = 0;
};

struct Extent {
    uint64 begin = ~uint64{0}, end = 0;

    void add(uint64 offset, uint64 length) {
        begin = std::min(begin, offset);
        end = std::max(end, offset + length);
    }
    bool overlaps(const Extent& other) const { return begin < other.end && other.begin < end; }
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

void readExactly(SxFileIO* file, char* bytes, const Piece& piece) {
    file->seek(piece.offset);
    const int64 got = file->readBuffer(bytes + piece.at, piece.length);
    if (got == piece.length) return;
    throw SxException("File '" + file->getFilePath() + "' ends at byte " + (piece.offset + got) + ", and " +
                          piece.length + " bytes at offset " + piece.offset + " are to be copied",
                      UNIT, __LINE__);
}

} // namespace

/// Looks at all ranges before a byte is written, since they come from files that others have made. A stop
/// ends each look early.
class ZqFileCopyTask::Check {
public:
    Check(const ZqFileCopyTask& task_, const SxFileIO& source)
        : task(task_),
          sourceSize(static_cast<uint64>(source.getSize())) {}

    /// Gives the bytes of all ranges.
    uint64 bounds() {
        uint64 total = 0;
        forRanges([&](int64 i, const Range& range) {
            if (range.length > sourceSize || range.sourceOffset > sourceSize - range.length) {
                throw SxException("File '" + task.source + "' ends at byte " + sourceSize + ", and range " +
                                      i + " wants " + range.length + " bytes at offset " + range.sourceOffset,
                                  UNIT, __LINE__);
            }
            if (range.targetOffset > MAX - range.length || total > MAX - range.length) {
                throw SxException(SxString("Range ") + i + " is out of bounds: " + range.length +
                                      " bytes to offset " + range.targetOffset + " of '" + task.target + "'",
                                  UNIT, __LINE__);
            }
            total += range.length;
            if (range.length == 0) return;
            sources.add(range.sourceOffset, range.length);
            targets.add(range.targetOffset, range.length);
        });
        return total;
    }

    /// For one file, after bounds().
    void order() {
        // Mostly blocks move to one side only, and then there is nothing to be noted.
        if (!sources.overlaps(targets)) return;
        SxIndexSet written(static_cast<int64>(sourceSize / BLOCK + 1));
        forRanges([&](int64 i, const Range& range) {
            if (range.length == 0) return;
            const uint64 from = range.sourceOffset, to = range.targetOffset;
            refuse(from < to && to < from + range.length, i, to);
            for (uint64 block = from / BLOCK; block <= (from + range.length - 1) / BLOCK; ++block)
                refuse(written.contains(block), i, std::max(block * BLOCK, from));
            // What lies beyond the file is read by nobody.
            const uint64 end = std::min(to + range.length, sources.end);
            for (uint64 block = to / BLOCK; block * BLOCK < end; ++block)
                written.insert(block);
        });
    }

private:
    static constexpr auto MAX = static_cast<uint64>(INT64_MAX);

    template<class Look>
    void forRanges(const Look& look) const {
        for (int64 i = 0; i < task.nRanges; ++i) {
            if (i % STOP_STEP == 0 && task.stopRequested()) return;
            look(i, task.rangeAt(i));
        }
    }
    void refuse(bool isWrong, int64 i, uint64 offset) const {
        if (!isWrong) return;
        throw SxException(SxString("Range ") + i + " would read at byte " + offset + " of '" + task.source +
                              "' what was written there before",
                          UNIT, __LINE__);
    }

    const ZqFileCopyTask& task;
    const uint64 sourceSize;
    Extent sources, targets;
};

/// Makes batches of the ranges, and has the disk asked for some of them in advance.
class ZqFileCopyTask::Batches {
public:
    Batches(const ZqFileCopyTask& task_, const SxFileIO& source_) : task(task_), source(source_) {}

    /// Gives false after the last one.
    bool next(Batch* batch) {
        // By two at a time, so that the first one isn't held up by all the others.
        for (int n = 0; n < 2 && ahead.size() < N_AHEAD; ++n) {
            Batch later = make();
            if (later.n == 0) break;
            for (const Piece& piece : later.reads)
                SxOs::get().adviseSoon(source.getFd(), piece.offset, piece.length);
            ahead.push_back(std::move(later));
        }
        if (ahead.empty()) return false;
        *batch = std::move(ahead.front());
        ahead.pop_front();
        return true;
    }

private:
    Batch make() {
        Batch batch;
        while (!batch.isFull()) {
            if (range.length == 0) {
                if (nTaken == task.nRanges) break;
                range = task.rangeAt(nTaken++);
                continue;
            }
            const uint64 n = std::min(range.length, static_cast<uint64>(BATCH - batch.n));
            batch.add(static_cast<int64>(range.sourceOffset), static_cast<int64>(range.targetOffset),
                      static_cast<int64>(n));
            range = {range.sourceOffset + n, range.targetOffset + n, range.length - n};
        }
        // Each piece knows its place in the buffer, and so they can be read as they lie on the disk.
        std::sort(batch.reads.begin(), batch.reads.end(),
                  [](const Piece& a, const Piece& b) { return a.offset < b.offset; });
        return batch;
    }

    const ZqFileCopyTask& task;
    const SxFileIO& source;
    int64 nTaken = 0;
    Range range; ///< what is left of the one that was taken last
    std::deque<Batch> ahead;
};

/// Digests buffers in the order in which they come. Each one is free again after that.
class ZqFileCopyTask::Hasher : public SxSystemThread {
public:
    explicit Hasher(SxMd5* md5_) : md5(md5_) {
        setThreadName("zq-copy-md5");
        for (Buffer& buffer : buffers)
            unused.push(&buffer);
        start();
    }
    ~Hasher() override {
        todo.close();
        wait();
    }
    /// Waits for a free buffer.
    Buffer* take() {
        const std::optional<Buffer*> buffer = unused.pop();
        if (buffer) return *buffer;
        wait();
        throw getException();
    }
    void give(Buffer* buffer) { todo.push(buffer); }
    /// Returns when all is digested. Raises what main() has raised.
    void finish() {
        todo.close();
        wait();
        if (hasException()) throw getException();
    }

protected:
    void main() override {
        try {
            while (const std::optional<Buffer*> buffer = todo.pop()) {
                md5->update((*buffer)->bytes.data(), (*buffer)->n);
                unused.push(*buffer);
            }
        } catch (...) {
            // Else the owner would wait for a buffer for ever.
            unused.close();
            throw;
        }
    }

private:
    SxMd5* const md5;
    std::array<Buffer, N_BUFFERS> buffers;
    SxQueue<Buffer*> unused, todo;
};

class ZqFileCopyTask::Copy {
public:
    explicit Copy(ZqFileCopyTask& task_) : task(task_), source(task.source, "rb") {}

    void run() {
        Check check(task, source);
        task.setNTotal(check.bounds());
        target.openOrCreate(task.target);
        if (isOneFile(source, target)) check.order();
        if (!copyAll()) return;
        target.sync();
        target.close();
        // Also where the file was there: whoever made it may have been cut off before this.
        SxFSAction::syncDir(SxFileInfo(task.target).getPath());
        task.md5.finish();
    }

private:
    /// Gives false where it was stopped.
    bool copyAll() {
        Hasher hasher(&task.md5);
        Batches batches(task, source);
        Batch batch;
        while (!task.stopRequested() && batches.next(&batch)) {
            Buffer* const buffer = hasher.take();
            buffer->n = batch.n;
            if (!read(batch, buffer->bytes.data())) return false;
            hasher.give(buffer);
            // The digest only looks at the buffer, and nobody else fills it meanwhile.
            if (!write(batch, buffer->bytes.data())) return false;
        }
        hasher.finish();
        return !task.stopRequested();
    }

    bool read(const Batch& batch, char* bytes) {
        for (const Piece& piece : batch.reads) {
            if (task.stopRequested()) return false;
            readExactly(&source, bytes, piece);
        }
        return true;
    }

    bool write(const Batch& batch, const char* bytes) {
        for (const Piece& piece : batch.writes) {
            if (task.stopRequested()) return false;
            target.seek(piece.offset);
            target.writeBuffer(bytes + piece.at, piece.length);
            task.addNCurrent(static_cast<uint64>(piece.length));
        }
        unsentBytes += batch.n;
        if (unsentBytes >= WRITEBACK_STEP) {
            target.startWriteback(0, 0);
            unsentBytes = 0;
        }
        return true;
    }

    ZqFileCopyTask& task;
    SxFileIO source, target;
    int64 unsentBytes = 0;
};

ZqFileCopyTask::ZqFileCopyTask(const SxString& source_, const SxString& target_, const SxArray<Range>& ranges)
    : ZqFileCopyTask(source_, target_, ranges.getSize(), [ranges](int64 i) { return ranges(i); }) {
}

ZqFileCopyTask::ZqFileCopyTask(const SxString& source_, const SxString& target_, int64 nRanges_,
                               RangeAt rangeAt_)
    : source(source_),
      target(target_),
      nRanges(nRanges_),
      rangeAt(std::move(rangeAt_)) {
    setThreadName("zq-copy");
}

SxMd5 ZqFileCopyTask::getMD5() const {
    return md5;
}

void ZqFileCopyTask::main() {
    setNCurrent(0);
    md5.initialize();
    try {
        Copy(*this).run();
    } catch (const SxException& e) {
        throw SxException(e, "Cannot copy ranges of '" + source + "' to '" + target + "'", UNIT, __LINE__);
    }
}
