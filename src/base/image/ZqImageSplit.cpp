#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqArchive.h"
#include "ZqImage.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageParts.h"
#include "ZqLog.h"

#include <atomic>
#include <memory>
#include <vector>

using namespace ZqImageParts;

namespace {

constexpr int ZSTD_LEVEL = 17;

uint64 nCompressors() {
    return static_cast<uint64>(SxSystemThread::getNCores());
}

/// The bytes that compressing surely needs: each worker has one plain part at a time. How small the parts
/// become shows only when they are made. Where the disk fills up, all parts are taken back.
uint64 roomToCompress(const Parts& parts) {
    return std::min(parts.size, parts.partSize * std::min(parts.count, nCompressors()));
}

/// Holds a folder open, to sync all that was written on its file system with one call. Thousands of parts
/// that are synced one by one would cost as many commits of its journal.
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
            target.create(plain, permissionsOf(zqf));
            SxArray<char> buffer(BUFFER);
            Progress none(nullptr, 0);
            source.seek(static_cast<int64>(parts.offset(part)));
            copyBytes(&source, &target, parts.bytes(part), &buffer, &none);
            target.close();
        }
        SxFileIO().create(plain + PACKED, permissionsOf(plain));
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
        target.create(parts.path(part), permissionsOf(zqf));
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
    // Where the record is that of another file, the parts may be the only place where these bytes still are.
    if (parts && parts->size == size) {
        for (const SxFileInfo& file : SxFSAction::ls(pathPrefix)) {
            if (parts->hasPath(file.getOrig()) && !file.isDir()) SxFSAction::rm(file.getOrig());
        }
    }
    SxFSAction::rm(journal);
}

/// The same after a failure. On a full disk the parts would keep it full. What fails here only goes to the
/// log, since the first failure is the one to be told of.
void takeBack(const SxString& pathPrefix, const SxString& zqf, uint64 size) {
    try {
        if (SxFSAction::test_f(zqf)) undoSplit(pathPrefix, size);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::split : cannot remove the parts made so far: " + e.toString(3, "\n"));
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
        ZqImageFolder::requireSpace(pathPrefix, compress ? roomToCompress(parts) : parts.size);
    } catch (const SxException& e) {
        throw SxException(e, cannotSplit, UNIT, __LINE__);
    }
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO,
                   journal = pathPrefix + ZqImageFiles::SPLIT_JOURNAL;
    const SxString cannotWrite = "Cannot write " + info;
    SxString failure = cannotWrite;
    try {
        SxFileIO::writeAtomic(journal, SxString(parts.size) + "\n" + parts.partSize, permissionsOf(zqf));
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
