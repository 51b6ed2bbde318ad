#include "ZqImage.h"

#include "SxFSAction.h"
#include "SxMutex.h"
#include "SxOs.h"
#include "SxQueue.h"
#include "ZqArchive.h"
#include "ZqImageFiles.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"
#include "ZqTaskMon.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// A ZqF file in parts, and back. The states of the folder, so that a cut at any point loses nothing:
//
//   img.zqf  record         parts     state
//   whole    -              -         not split
//   whole    img.zqf.split  some      split cut off: split again
//   whole    img.zqf.info   all       split cut off at its end: join, or split again
//   -        img.zqf.info   all       split
//   prefix   img.zqf.join   the rest  join cut off: join again; the prefix has the missing parts
//
// The record is img.zqf.info only while all parts are on the device, or a join could take bytes that never
// got there. A part goes only when its bytes are on the device as part of img.zqf, and img.zqf only when all
// parts are.

namespace {

constexpr const char* UNIT = "src/base/ZqImage";
constexpr int64 BUFFER = 4'096'000;
/// The buffer is used in pieces that stay in the processor's cache between reading and writing.
constexpr int64 PIECE = BUFFER / 16;
constexpr int ZSTD_LEVEL = 17;
/// So many bytes of parts may wait for one sync of the joined file.
constexpr uint64 SYNC_BATCH = 64 << 20;
/// So many batches of parts may be there twice where the disk has room: one being copied, one on its way to
/// the device, one being removed.
constexpr uint64 MAX_AHEAD = 3;

constexpr const char* PACKED = ".zstd";

/// The sizes and names of the parts of a ZqF file.
struct Parts {
    SxString prefix; ///< path of a part without its number
    uint64 size, partSize, count;
    int nDigits = 1;

    Parts(const SxString& pathPrefix, uint64 size_, uint64 partSize_)
        : prefix(pathPrefix + ZqImageFiles::SPLIT_PART),
          size(size_),
          partSize(partSize_),
          count(size / partSize + (size % partSize != 0 ? 1 : 0)) {
        for (uint64 rest = count; rest >= 10; rest /= 10)
            ++nDigits;
    }

    /// `part` counts from 1.
    SxString path(uint64 part) const { return prefix + SxString::sprintf("%0*ju", nDigits, uintmax_t{part}); }
    uint64 offset(uint64 part) const { return (part - 1) * partSize; }
    uint64 bytes(uint64 part) const { return std::min(partSize, size - offset(part)); }
    /// Whether a part, plain or compressed, has that path.
    bool hasPath(const SxString& file) const {
        if (!file.startsWith(prefix)) return false;
        bool bad = false;
        const int64 part = file.right(prefix).left(PACKED).toInt64(&bad);
        if (bad || part < 1 || static_cast<uint64>(part) > count) return false;
        const SxString plain = path(static_cast<uint64>(part));
        return file == plain || file == plain + PACKED;
    }
};

uint64 nCompressors() {
    return static_cast<uint64>(SxSystemThread::getNCores());
}

class Progress {
public:
    Progress(ZqTaskMon* monitor_, uint64 total) : monitor(monitor_), t0(ZqSysEnv::getSysTime()) {
        if (!monitor) return;
        monitor->setNTotal(total);
        monitor->setNCurrent(0);
    }
    void add(uint64 n) {
        if (!monitor) return;
        monitor->addNCurrent(n);
        monitor->updateSpeed(t0);
    }
    bool stopped() const { return monitor && monitor->stopRequested(); }
    void refuseStop() const {
        if (stopped()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    }

private:
    ZqTaskMon* monitor;
    int64 t0;
};

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

/// Copies `n` bytes from the position of `from` to that of `to`. The system is asked to write them at once,
/// so that the disk works while we copy on, and to forget the source, so that its removal has less left to
/// do.
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

void requireSpace(const SxString& folder, uint64 need) {
    const uint64 free = ZqSysEnv::getFreeDiskSpace(folder);
    if (free < need) {
        throw SxException(SxString("The disk has ") + free + " bytes free, " + need + " are needed", UNIT,
                          __LINE__);
    }
}

/// What compressing surely needs: each worker has one plain part at a time. How small the parts become shows
/// only then; where the disk fills up, all is taken back.
uint64 roomToCompress(const Parts& parts) {
    return std::min(parts.size, parts.partSize * std::min(parts.count, nCompressors()));
}

/// Holds a folder open, to sync all that was written on its file system with one call.
class FolderSync {
public:
    explicit FolderSync(const SxString& folder_) : folder(folder_) {
        fd = SxOs::get().open(SxOs::hostPath(folder), SxOs::Read | SxOs::Directory, 0);
        if (fd < 0) fail(fd);
    }
    ~FolderSync() {
        if (fd >= 0) SxOs::get().close(fd);
    }
    FolderSync(const FolderSync&) = delete;
    FolderSync& operator=(const FolderSync&) = delete;

    void run() const {
        const int result = SxOs::get().syncFs(fd);
        if (result < 0) fail(result);
    }

private:
    void fail(int error) const {
        throw SxException(SxException(SxOs::errorText(error), UNIT, __LINE__),
                          "Cannot bring folder '" + folder + "' to the disk", UNIT, __LINE__);
    }

    SxString folder;
    int fd;
};

/// Writes compressed parts, one after the other; several work side by side, each taking the next part.
class PartCompressor : public SxSystemThread {
public:
    PartCompressor(const SxString& zqf_, const Parts& parts_, std::atomic<uint64>* next_, Progress* progress_)
        : zqf(zqf_),
          parts(parts_),
          next(next_),
          progress(progress_) {
        setThreadName("split");
    }

protected:
    void main() override {
        try {
            for (uint64 part = (*next)++; part <= parts.count; part = (*next)++)
                compress(part);
        } catch (const SxException&) {
            // The others must not go on with parts that nobody will need.
            *next = parts.count + 1;
            throw;
        }
    }

private:
    void compress(uint64 part) {
        const SxString plain = parts.path(part);
        {
            SxFileIO source(zqf, "rb", 0600), target;
            target.create(plain, 0600);
            SxArray<char> buffer(BUFFER);
            Progress none(nullptr, 0);
            source.seek(static_cast<int64>(parts.offset(part)));
            copyBytes(&source, &target, parts.bytes(part), &buffer, &none);
            target.close();
        }
        uint64 reported = 0;
        ZqArchive::compressZSTD(plain, plain + PACKED, ZSTD_LEVEL, [&](uint64 done) {
            progress->add(done - reported);
            reported = done;
            return !progress->stopped();
        });
        progress->refuseStop();
        SxFSAction::rm(plain);
    }

    const SxString zqf;
    const Parts parts;
    std::atomic<uint64>* next;
    Progress* progress;
};

void writePlainParts(const SxString& zqf, const Parts& parts, Progress* progress) {
    SxFileIO source(zqf, "rb", 0600);
    source.adviseSequential();
    SxArray<char> buffer(BUFFER);
    for (uint64 part = 1; part <= parts.count; ++part) {
        SxFileIO target;
        target.create(parts.path(part), 0600);
        copyBytes(&source, &target, parts.bytes(part), &buffer, progress);
        target.close();
    }
}

void writeCompressedParts(const SxString& zqf, const Parts& parts, Progress* progress) {
    std::atomic<uint64> next{1};
    std::vector<std::unique_ptr<PartCompressor>> workers;
    const uint64 nWorkers = std::min(parts.count, nCompressors());
    for (uint64 i = 0; i < nWorkers; ++i) {
        workers.push_back(std::make_unique<PartCompressor>(zqf, parts, &next, progress));
        workers.back()->start();
    }
    const PartCompressor* failed = nullptr;
    for (const auto& worker : workers) {
        worker->wait();
        if (worker->hasException() && !failed) failed = worker.get();
    }
    if (failed) throw failed->getException();
}

/// Makes all parts and brings them to the device.
void writeParts(const SxString& pathPrefix, const SxString& zqf, const Parts& parts, bool compress,
                ZqTaskMon* monitor) {
    const FolderSync folder(pathPrefix);
    Progress progress(monitor, parts.size);
    if (compress) {
        writeCompressedParts(zqf, parts, &progress);
    } else {
        writePlainParts(zqf, parts, &progress);
    }
    folder.run();
}

/// What a split record says; none where that is no use.
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

/// Removes the parts and the record of a split that failed or was cut off, while `img.zqf` of `size` bytes
/// stands.
void undoSplit(const SxString& pathPrefix, uint64 size) {
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO,
                   journal = pathPrefix + ZqImageFiles::SPLIT_JOURNAL;
    if (SxFSAction::test_f(info)) {
        SxFSAction::mv(info, journal);
        SxFSAction::syncDir(pathPrefix);
    }
    if (!SxFSAction::test_f(journal)) return;
    const std::optional<Parts> parts = parseRecord(pathPrefix, SxFileIO::readLines(journal, 0));
    // The record of another file doesn't say that these bytes are still to be had.
    if (parts && parts->size == size) {
        for (const SxFileInfo& file : SxFSAction::ls(pathPrefix)) {
            if (parts->hasPath(file.getOrig()) && !file.isDir()) SxFSAction::rm(file.getOrig());
        }
    }
    SxFSAction::rm(journal);
}

/// The same behind a failure, which is the one to be told of.
void takeBack(const SxString& pathPrefix, const SxString& zqf, uint64 size) {
    try {
        if (SxFSAction::test_f(zqf)) undoSplit(pathPrefix, size);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::split : cannot remove the parts made so far: " + e.toString(3, "\n"));
    }
}

/// Raises unless parts `first` to the last are there in their sizes.
void checkParts(const Parts& parts, uint64 first) {
    for (uint64 part = first; part <= parts.count; ++part) {
        const SxFileInfo info(parts.path(part));
        if (!info.isFile()) {
            const SxString packed = info.getOrig() + PACKED;
            const SxString hint =
                SxFSAction::exists(packed) ? "; '" + packed + "' must be unpacked first" : SxString();
            throw SxException("Part '" + info.getOrig() + "' is missing" + hint, UNIT, __LINE__);
        }
        if (static_cast<uint64>(info.getSize()) != parts.bytes(part)) {
            throw SxException("Part '" + info.getOrig() + "' has " + info.getSize() + " bytes, not " +
                                  parts.bytes(part),
                              UNIT, __LINE__);
        }
    }
}

/// Whether nothing has that name. Raises where that can't be told, since what is gone counts as joined.
bool isGone(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().lstat(SxOs::hostPath(path), &info);
    if (result < 0 && result != -ENOENT) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot look at '" + path + "'", UNIT, __LINE__);
    }
    return result < 0;
}

/// Raises where something stands at `path` that a join can't replace.
void requireFileOrNothing(const SxString& path) {
    if (isGone(path) || (SxFileInfo(path).isFile() && !SxFileInfo(path).isLink())) return;
    throw SxException("'" + path + "' is not a plain file", UNIT, __LINE__);
}

/// The first part that a join which was cut off has not finished with, after a look at what is there: behind
/// the last one that is gone, since the removals may have reached the device in any order.
uint64 findResumePoint(const Parts& parts, const SxString& zqf) {
    uint64 first = parts.count + 1;
    while (first > 1 && !isGone(parts.path(first - 1)))
        --first;
    const uint64 have = SxFSAction::test_f(zqf) ? static_cast<uint64>(SxFileInfo(zqf).getSize()) : 0;
    const uint64 need = first <= parts.count ? parts.offset(first) : parts.size;
    if (have < need) {
        throw SxException("Part '" + parts.path(first - 1) + "' is missing, and '" + zqf + "' has only " +
                              have + " bytes of the parts that are gone",
                          UNIT, __LINE__);
    }
    checkParts(parts, first);
    return first;
}

/// One stage of what happens to parts behind the job's back, in their order.
class PartStage : public SxSystemThread {
public:
    using Batch = std::pair<uint64, uint64>; ///< first and last part
    using Queue = SxQueue<Batch>;

    PartStage(std::function<void(const Batch&)> work_, Queue* in_, Queue* out_)
        : work(std::move(work_)),
          in(in_),
          out(out_) {
        setThreadName("join");
    }

protected:
    void main() override {
        // A stage that fails ends those behind it, too: none works on a batch that didn't get through.
        try {
            while (const auto batch = in->pop()) {
                work(*batch);
                out->push(*batch);
            }
        } catch (const SxException&) {
            out->close();
            throw;
        }
        out->close();
    }

private:
    std::function<void(const Batch&)> work;
    Queue *in, *out;
};

/// Brings the joined file to the device and removes the parts that are in it, while the job copies on.
class PartRemover {
public:
    PartRemover(SxFileIO* target, const Parts& parts)
        : syncing([target](const PartStage::Batch&) { target->sync(); }, &todo, &synced),
          removing(
              [&parts](const PartStage::Batch& batch) {
                  for (uint64 part = batch.first; part <= batch.second; ++part)
                      SxFSAction::rm(parts.path(part));
              },
              &synced, &done) {
        syncing.start();
        removing.start();
    }
    ~PartRemover() { end(); }
    PartRemover(const PartRemover&) = delete;
    PartRemover& operator=(const PartRemover&) = delete;

    /// Hands over the parts `first` to `last`.
    void take(uint64 first, uint64 last) {
        todo.push({first, last});
        ++nBusy;
    }
    /// Waits until at most `n` batches are under way.
    void settle(uint64 n) {
        for (; nBusy > n; --nBusy) {
            if (done.pop()) continue;
            end();
            throw syncing.hasException() ? syncing.getException() : removing.getException();
        }
    }

private:
    void end() {
        todo.close();
        syncing.wait();
        removing.wait();
    }

    PartStage::Queue todo, synced, done;
    PartStage syncing, removing;
    uint64 nBusy = 0; ///< batches handed over and not yet done
};

void joinParts(const Parts& parts, const SxString& zqf, uint64 first, Progress* progress) {
    // On a disk that has little more than a part of room left, parts must go early, and one by one.
    const auto free = static_cast<uint64>(ZqSysEnv::getFreeDiskSpace(parts.prefix));
    const uint64 batch = std::max<uint64>(1, std::min(SYNC_BATCH, free / 4) / parts.partSize); // parts
    const uint64 nAhead = std::min<uint64>(MAX_AHEAD, free / batch / parts.partSize);
    SxFileIO target(zqf, "r+b", 0600);
    const uint64 start = first <= parts.count ? parts.offset(first) : parts.size;
    target.truncate(static_cast<int64>(start));
    target.seek(static_cast<int64>(start));
    progress->add(start);
    for (uint64 part = 1; part < first; ++part) {
        if (!isGone(parts.path(part))) SxFSAction::rm(parts.path(part));
    }
    PartRemover remover(&target, parts);
    SxArray<char> buffer(BUFFER);
    uint64 handedOver = first - 1;
    for (uint64 part = first; part <= parts.count; ++part) {
        {
            SxFileIO source(parts.path(part), "rb", 0600);
            source.adviseSequential();
            copyBytes(&source, &target, parts.bytes(part), &buffer, progress);
        }
        if (part - handedOver < batch && part < parts.count) continue;
        remover.take(handedOver + 1, part);
        handedOver = part;
        remover.settle(std::max<uint64>(nAhead, 1) - 1);
    }
    remover.settle(0);
    target.close();
}

/// Takes a join back that has used up no part yet, so that the folder is as it was.
void undoJoin(const Parts& parts, const SxString& zqf, const SxString& info, const SxString& journal) {
    try {
        for (uint64 part = 1; part <= parts.count; ++part) {
            if (!SxFSAction::exists(parts.path(part))) return;
        }
        if (!isGone(zqf)) SxFSAction::rm(zqf);
        // With the record beside it, what is left of img.zqf would look like the whole of it.
        const SxString folder = SxFileInfo(zqf).getPath();
        SxFSAction::syncDir(folder);
        SxFSAction::mv(journal, info);
        SxFSAction::syncDir(folder);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::join : cannot take the join back: " + e.toString(3, "\n"));
    }
}

} // namespace

bool ZqImage::split(uint64 partSize, bool compress, ZqTaskMon* monitor) const {
    const SxString zqf = pathPrefix + ZqImageFiles::ZQF;
    if (!SxFSAction::test_f(zqf)) {
        throw SxException("ZqImage: ZQF file " + zqf + " not available.", UNIT, __LINE__);
    }
    const auto lock =
        ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Exclusive, "image split");
    const SxString cannotSplit = "Cannot split image " + zqf;
    if (SxFSAction::exists(pathPrefix + ZqImageFiles::JOIN_INFO)) {
        throw SxException(
            SxException("A join of this image was cut off; join it again first", UNIT, __LINE__), cannotSplit,
            UNIT, __LINE__);
    }
    const Parts parts(pathPrefix, static_cast<uint64>(SxFileInfo(zqf).getSize()), partSize);
    if (parts.count <= 1) return false;
    try {
        undoSplit(pathPrefix, parts.size);
        requireSpace(pathPrefix, compress ? roomToCompress(parts) : parts.size);
    } catch (const SxException& e) {
        throw SxException(e, cannotSplit, UNIT, __LINE__);
    }
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO,
                   journal = pathPrefix + ZqImageFiles::SPLIT_JOURNAL;
    const SxString cannotWrite = "Cannot write " + info;
    SxString failure = cannotWrite;
    try {
        SxFileIO::writeAtomic(journal, SxString(parts.size) + "\n" + parts.partSize, 0600);
        failure = cannotSplit;
        writeParts(pathPrefix, zqf, parts, compress, monitor);
        failure = cannotWrite;
        SxFSAction::mv(journal, info);
        SxFSAction::syncDir(pathPrefix);
        failure = cannotSplit;
        SxFSAction::rm(zqf);
        SxFSAction::syncDir(pathPrefix);
    } catch (const SxException& e) {
        takeBack(pathPrefix, zqf, parts.size);
        throw SxException(e, failure, UNIT, __LINE__);
    }
    return true;
}

bool ZqImage::join(ZqTaskMon* monitor) const {
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO;
    const SxString journal = pathPrefix + ZqImageFiles::JOIN_INFO;
    const SxString zqf = pathPrefix + ZqImageFiles::ZQF;
    // Without a record there is nothing to lock, and no lock file to leave behind.
    if (isGone(info) && isGone(journal) && isGone(pathPrefix + ZqImageFiles::SPLIT_JOURNAL))
        readRecord(pathPrefix, info);
    const auto lock = ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Exclusive, "image join");
    const bool resumed = isJoining(pathPrefix);
    const Parts parts = readRecord(pathPrefix, resumed ? journal : info);
    if (parts.count <= 1) return false;
    bool begun = false;
    try {
        uint64 first = 1;
        if (resumed) {
            first = findResumePoint(parts, zqf);
        } else {
            checkParts(parts, first);
        }
        requireFileOrNothing(zqf);
        if (first <= parts.count) requireSpace(pathPrefix, parts.bytes(first));
        if (!resumed) SxFSAction::mv(info, journal);
        begun = true;
        // The names must be on the device ahead of the end of the first part.
        if (!resumed || isGone(zqf)) SxFileIO().create(zqf, 0600);
        SxFSAction::syncDir(pathPrefix);
        Progress progress(monitor, parts.size);
        joinParts(parts, zqf, first, &progress);
        SxFSAction::syncDir(pathPrefix);
        SxFSAction::rm(journal);
        SxFSAction::syncDir(pathPrefix);
    } catch (const SxException& e) {
        if (begun) undoJoin(parts, zqf, info, journal);
        throw SxException(e, "Cannot join image " + zqf, UNIT, __LINE__);
    }
    return true;
}

void ZqImage::checkSplit() const {
    if (isJoining(pathPrefix)) {
        findResumePoint(readRecord(pathPrefix, pathPrefix + ZqImageFiles::JOIN_INFO),
                        pathPrefix + ZqImageFiles::ZQF);
        return;
    }
    const Parts parts = readRecord(pathPrefix, pathPrefix + ZqImageFiles::SPLIT_INFO);
    // What a compressed part holds shows only when it is unpacked.
    if (!SxFSAction::test_f(parts.path(1) + PACKED)) return checkParts(parts, 1);
    for (uint64 part = 1; part <= parts.count; ++part) {
        if (!SxFSAction::test_f(parts.path(part) + PACKED)) {
            throw SxException("Part '" + parts.path(part) + PACKED + "' is missing", UNIT, __LINE__);
        }
    }
}

ZqImage::SplitState ZqImage::getSplitState() const {
    SplitState state;
    state.joining = isJoining(pathPrefix);
    const SxString file = pathPrefix + (state.joining ? ZqImageFiles::JOIN_INFO : ZqImageFiles::SPLIT_INFO);
    if (!SxFSAction::exists(file)) return state;
    const Parts parts = readRecord(pathPrefix, file);
    state.partSize = parts.partSize;
    const SxFileInfo zqf(pathPrefix + ZqImageFiles::ZQF);
    // A record beside the whole file is what is left of a split that was cut off at its end, or of one part.
    state.split = state.joining || !zqf.isFile() || static_cast<uint64>(zqf.getSize()) < parts.size;
    return state;
}
