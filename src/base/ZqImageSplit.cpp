#include "ZqImage.h"

#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqArchive.h"
#include "ZqImageFiles.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"
#include "ZqTaskMon.h"

#include <atomic>
#include <memory>
#include <vector>

// A ZqF file in parts, and back. The states of the folder, so that a cut at any point loses nothing:
//
//   img.zqf  img.zqf.info  img.zqf.join  parts     state
//   whole    -             -             -         not split
//   whole    yes           -             some      split cut off: split again
//   -        yes           -             all       split
//   prefix   -             yes           the rest  join cut off: join again; the prefix has the missing parts
//
// A part goes only when its bytes are on the device as part of img.zqf, and img.zqf only when all parts are.

namespace {

constexpr const char* UNIT = "src/base/ZqImage";
constexpr int64 BUFFER = 4'096'000;
constexpr int ZSTD_LEVEL = 17;
/// So many bytes of parts may wait for one sync of the joined file.
constexpr uint64 SYNC_BATCH = 64 << 20;

/// The sizes and names of the parts of a ZqF file.
struct Parts {
    SxString prefix; ///< path of a part without its number
    uint64 size, partSize, count;
    int nDigits = 1;

    Parts(const SxString& pathPrefix, uint64 size_, uint64 partSize_)
        : prefix(pathPrefix + ZqImageFiles::SPLIT_PART), size(size_), partSize(partSize_),
          count(size / partSize + (size % partSize != 0 ? 1 : 0)) {
        for (uint64 rest = count; rest >= 10; rest /= 10) ++nDigits;
    }

    /// `part` counts from 1.
    SxString path(uint64 part) const { return prefix + SxString::sprintf("%0*ju", nDigits, uintmax_t{part}); }
    uint64 offset(uint64 part) const { return (part - 1) * partSize; }
    uint64 bytes(uint64 part) const { return std::min(partSize, size - offset(part)); }
};

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

/// Copies `n` bytes from the position of `from` to that of `to`. The system is asked to write them at once, so
/// that the disk works while we copy on.
void copyBytes(SxFileIO* from, SxFileIO* to, uint64 n, SxArray<char>* buffer, Progress* progress) {
    while (n > 0) {
        progress->refuseStop();
        const int64 want = std::min<int64>(BUFFER, static_cast<int64>(std::min<uint64>(n, BUFFER)));
        if (from->readBuffer(buffer->data(), want) != want) {
            throw SxException("File '" + from->getFilePath() + "' became shorter while it was read", UNIT, __LINE__);
        }
        const int64 at = to->getOffset();
        to->writeBuffer(buffer->data(), want);
        to->startWriteback(at, want);
        n -= static_cast<uint64>(want);
        progress->add(static_cast<uint64>(want));
    }
}

void requireSpace(const SxString& folder, uint64 need) {
    const uint64 free = ZqSysEnv::getFreeDiskSpace(folder);
    if (free < need) {
        throw SxException(SxString("The disk has ") + free + " bytes free, " + need + " are needed", UNIT, __LINE__);
    }
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
        : zqf(zqf_), parts(parts_), next(next_), progress(progress_) {
        setThreadName("split");
    }

protected:
    void main() override {
        try {
            for (uint64 part = (*next)++; part <= parts.count; part = (*next)++) compress(part);
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
            SxFileIO source(zqf, "rb", 0600), target(plain, "wb", 0600);
            SxArray<char> buffer(BUFFER);
            Progress none(nullptr, 0);
            source.seek(static_cast<int64>(parts.offset(part)));
            copyBytes(&source, &target, parts.bytes(part), &buffer, &none);
            target.close();
        }
        uint64 reported = 0;
        ZqArchive::compressZSTD(plain, plain + ".zstd", ZSTD_LEVEL, [&](uint64 done) {
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
        SxFileIO target(parts.path(part), "wb", 0600);
        copyBytes(&source, &target, parts.bytes(part), &buffer, progress);
        target.close();
    }
}

void writeCompressedParts(const SxString& zqf, const Parts& parts, Progress* progress) {
    std::atomic<uint64> next{1};
    std::vector<std::unique_ptr<PartCompressor>> workers;
    const uint64 nWorkers = std::min<uint64>(parts.count, static_cast<uint64>(SxSystemThread::getNCores()));
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

/// Takes back what a split has made.
void removeParts(const SxString& pathPrefix, const Parts& parts) {
    try {
        int64 nMissing = 0;
        // Parts are made in their order, by a few workers at most.
        for (uint64 part = 1; part <= parts.count && nMissing <= SxSystemThread::getNCores(); ++part) {
            ++nMissing;
            for (const SxString& made : {parts.path(part), parts.path(part) + ".zstd"}) {
                if (!SxFSAction::exists(made)) continue;
                SxFSAction::rm(made);
                nMissing = 0;
            }
        }
        SxFSAction::rm(pathPrefix + ZqImageFiles::SPLIT_INFO);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::split : cannot remove the parts made so far: " + e.toString(3, "\n"));
    }
}

/// The two numbers of a split record.
Parts readRecord(const SxString& pathPrefix, const SxString& file) {
    SxList<SxString> lines;
    try {
        lines = SxString::join(SxFileIO::readLines(file, 0), "\n").tokenize('\n', true);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read '" + file + "' file.", UNIT, __LINE__);
    }
    bool badSize = true, badPart = true;
    int64 size = 0, partSize = 0;
    if (lines.getSize() >= 2) {
        size = lines(0).toInt64(&badSize);
        partSize = lines(1).toInt64(&badPart);
    }
    if (badSize || badPart || size < 0 || partSize <= 0) {
        throw SxException("Invalid content in '" + file + "' file.", UNIT, __LINE__);
    }
    return Parts(pathPrefix, static_cast<uint64>(size), static_cast<uint64>(partSize));
}

bool isJoining(const SxString& pathPrefix) {
    return !SxFSAction::exists(pathPrefix + ZqImageFiles::SPLIT_INFO) &&
           SxFSAction::test_f(pathPrefix + ZqImageFiles::JOIN_INFO);
}

/// Raises unless parts `first` to the last are there in their sizes.
void checkParts(const Parts& parts, uint64 first) {
    for (uint64 part = first; part <= parts.count; ++part) {
        const SxFileInfo info(parts.path(part));
        if (!info.isFile()) {
            const SxString packed = info.getOrig() + ".zstd";
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

/// The first part that a join which was cut off has not finished with, after a look at what is there.
uint64 findResumePoint(const Parts& parts, const SxString& zqf) {
    uint64 first = 1;
    while (first <= parts.count && !SxFSAction::exists(parts.path(first))) ++first;
    const uint64 have = SxFSAction::test_f(zqf) ? static_cast<uint64>(SxFileInfo(zqf).getSize()) : 0;
    const uint64 need = first <= parts.count ? parts.offset(first) : parts.size;
    if (have < need) {
        throw SxException("Part '" + parts.path(1) + "' is missing, and '" + zqf + "' has only " + have +
                              " bytes of the parts that are gone",
                          UNIT, __LINE__);
    }
    checkParts(parts, first);
    return first;
}

void joinParts(const Parts& parts, const SxString& zqf, uint64 first, Progress* progress) {
    // On a disk that has little more than a part of room left, parts must go early.
    const uint64 batch =
        std::min(SYNC_BATCH, static_cast<uint64>(ZqSysEnv::getFreeDiskSpace(parts.prefix)) / 2);
    if (!SxFSAction::exists(zqf)) SxFileIO(zqf, "wb", 0600).close();
    SxFileIO target(zqf, "r+b", 0600);
    const uint64 start = first <= parts.count ? parts.offset(first) : parts.size;
    target.truncate(static_cast<int64>(start));
    target.seek(static_cast<int64>(start));
    progress->add(start);
    SxArray<char> buffer(BUFFER);
    uint64 synced = first;
    for (uint64 part = first; part <= parts.count; ++part) {
        {
            SxFileIO source(parts.path(part), "rb", 0600);
            source.adviseSequential();
            copyBytes(&source, &target, parts.bytes(part), &buffer, progress);
        }
        const uint64 waiting = (part - synced + 1) * parts.partSize;
        if (waiting < batch && part < parts.count) continue;
        target.sync();
        for (; synced <= part; ++synced) SxFSAction::rm(parts.path(synced));
    }
    target.sync();
    target.close();
}

/// Takes a join back that has used up no part yet, so that the folder is as it was.
void undoJoin(const Parts& parts, const SxString& zqf, const SxString& info, const SxString& journal) {
    try {
        if (!SxFSAction::test_f(journal) || !SxFSAction::test_f(parts.path(1))) return;
        if (SxFSAction::exists(zqf)) SxFSAction::rm(zqf);
        SxFSAction::mv(journal, info);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::join : cannot take the join back: " + e.toString(3, "\n"));
    }
}

} // namespace

void ZqImage::split(uint64 partSize, bool compress, ZqTaskMon* monitor) const {
    const SxString zqf = pathPrefix + ZqImageFiles::ZQF;
    if (!SxFSAction::test_f(zqf)) {
        throw SxException("ZqImage: ZQF file " + zqf + " not available.", UNIT, __LINE__);
    }
    const auto lock = ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Exclusive, "image split");
    const Parts parts(pathPrefix, static_cast<uint64>(SxFileInfo(zqf).getSize()), partSize);
    if (parts.count <= 1) return;
    try {
        if (SxFSAction::exists(pathPrefix + ZqImageFiles::JOIN_INFO)) {
            throw SxException("A join of this image was cut off; join it again first", UNIT, __LINE__);
        }
        requireSpace(pathPrefix, parts.size);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot split image " + zqf, UNIT, __LINE__);
    }
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO;
    try {
        SxFileIO::writeAtomic(info, SxString(parts.size) + "\n" + parts.partSize, 0600);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot write " + info, UNIT, __LINE__);
    }
    try {
        const FolderSync folder(pathPrefix);
        Progress progress(monitor, parts.size);
        if (compress) {
            writeCompressedParts(zqf, parts, &progress);
        } else {
            writePlainParts(zqf, parts, &progress);
        }
        folder.run();
        SxFSAction::rm(zqf);
        SxFSAction::syncDir(pathPrefix);
    } catch (const SxException& e) {
        if (SxFSAction::test_f(zqf)) removeParts(pathPrefix, parts);
        throw SxException(e, "Cannot split image " + zqf, UNIT, __LINE__);
    }
}

void ZqImage::join(ZqTaskMon* monitor) const {
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO;
    const SxString journal = pathPrefix + ZqImageFiles::JOIN_INFO;
    const SxString zqf = pathPrefix + ZqImageFiles::ZQF;
    // Without a record there is nothing to lock, and no lock file to leave behind.
    if (!SxFSAction::exists(info) && !SxFSAction::exists(journal)) readRecord(pathPrefix, info);
    const auto lock = ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Exclusive, "image join");
    const bool resumed = isJoining(pathPrefix);
    const Parts parts = readRecord(pathPrefix, resumed ? journal : info);
    if (parts.count <= 1) return;
    try {
        uint64 first = 1;
        if (resumed) {
            first = findResumePoint(parts, zqf);
        } else {
            checkParts(parts, first);
        }
        if (first <= parts.count) requireSpace(pathPrefix, parts.bytes(first));
        if (!resumed) {
            SxFSAction::mv(info, journal);
            SxFSAction::syncDir(pathPrefix);
        }
        Progress progress(monitor, parts.size);
        joinParts(parts, zqf, first, &progress);
        SxFSAction::syncDir(pathPrefix);
        SxFSAction::rm(journal);
        SxFSAction::syncDir(pathPrefix);
    } catch (const SxException& e) {
        undoJoin(parts, zqf, info, journal);
        throw SxException(e, "Cannot join image " + zqf, UNIT, __LINE__);
    }
}

uint64 ZqImage::getPartSize() const {
    const SxString file =
        pathPrefix + (isJoining(pathPrefix) ? ZqImageFiles::JOIN_INFO : ZqImageFiles::SPLIT_INFO);
    return readRecord(pathPrefix, file).partSize;
}
