#include "ZqCreateContent.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "SxQueue.h"
#include "ZqAppParams.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqCreateContent";
constexpr int64 BLOCK = ZqImage::BLOCK_SIZE;
constexpr int64 CHUNK = 2500 * BLOCK;
constexpr int64 PIECE = 64 * BLOCK;
/// Buffers on their way from the reader to the digest and back.
constexpr int N_BUFFERS = 4;
constexpr uint64 ROOM_FOR_RECORDS = 1 << 20;

int64 wholeBlocks(int64 bytes) {
    return (bytes + BLOCK - 1) / BLOCK;
}

struct Chunk {
    SxArray<char> bytes = SxArray<char>(CHUNK);
    int64 used = 0, written = 0;
};

/// Computes the digest on a thread of its own, while the job reads and writes.
class Hasher : public SxSystemThread {
public:
    Hasher() { setThreadName("content md5"); }

    SxQueue<Chunk*> todo, done;
    SxMd5 md5;

protected:
    void main() override {
        try {
            md5.initialize();
            while (const auto chunk = todo.pop()) {
                md5.update((*chunk)->bytes.data(), (*chunk)->used, -1);
                done.push(*chunk);
            }
            md5.finish();
        } catch (const SxException&) {
            done.close();
            throw;
        }
    }
};

/// Writes blocks and their map, and takes the digest on the way.
class ContentWriter {
public:
    explicit ContentWriter(const SxString& folder)
        : chunks(N_BUFFERS),
          zqf(folder + ZqImageFiles::ZQF, "wb", 0600),
          idx(folder + ZqImageFiles::IDX, "wb", 0600) {
        for (Chunk& chunk : chunks)
            hasher.done.push(&chunk);
        hasher.start();
        nextChunk();
    }
    ~ContentWriter() {
        hasher.todo.close();
        hasher.wait();
    }
    ContentWriter(const ContentWriter&) = delete;
    ContentWriter& operator=(const ContentWriter&) = delete;

    /// Room for the next bytes, which are still in the processor's cache when they are written; at least one
    /// block.
    char* space() { return current->bytes.data() + current->used; }
    int64 spaceSize() const {
        return std::min(CHUNK - current->used, PIECE - (current->used - current->written));
    }
    /// Takes `n` bytes of the room, which are whole blocks.
    void take(int64 n) {
        current->used += n;
        if (current->used - current->written == PIECE) writePiece();
        if (current->used == CHUNK) flush();
    }

    /// Writes what is left; the digest of all blocks.
    SxString finish() {
        flush();
        hasher.todo.close();
        hasher.wait();
        if (hasher.hasException()) throw hasher.getException();
        zqf.sync();
        idx.sync();
        zqf.close();
        idx.close();
        return hasher.md5.toString();
    }

private:
    void flush() {
        if (current->used == 0) return;
        writePiece();
        hasher.todo.push(current);
        zqf.startWriteback(zqf.getOffset() - current->used, current->used);
        writeIndices(current->used / BLOCK);
        nextChunk();
    }

    void writePiece() {
        zqf.writeBuffer(current->bytes.data() + current->written, current->used - current->written);
        current->written = current->used;
    }

    /// The buffers come back in their order, so this one is neither being written nor in the digest.
    void nextChunk() {
        const auto free = hasher.done.pop();
        if (!free) {
            hasher.wait();
            throw hasher.getException();
        }
        current = *free;
        current->used = current->written = 0;
    }

    void writeIndices(int64 n) {
        SxArray<unsigned char> entries(n * 8);
        for (int64 i = 0; i < n; ++i, ++nextBlock) {
            for (int byte = 0; byte < 8; ++byte) {
                entries(i * 8 + byte) = static_cast<unsigned char>(nextBlock >> (8 * byte));
            }
        }
        idx.write(entries);
    }

    std::vector<Chunk> chunks;
    Hasher hasher;
    SxFileIO zqf, idx;
    Chunk* current = nullptr;
    uint64 nextBlock = 0;
};

/// Folders that `path` lies in, itself included, with all links resolved.
std::vector<std::string> physicalParents(const SxString& path) {
    // What doesn't exist yet has no links.
    SxString existing = SxOs::hostPath(SxFileInfo(path).getAbsPath());
    std::string rest, resolved;
    while (SxOs::get().canonical(existing.str(), &resolved) < 0 && !(existing == "/")) {
        rest = "/" + SxFileInfo(existing).getName().str() + rest;
        existing = SxFileInfo(existing).getPath();
    }
    resolved = resolved == "/" ? rest : resolved + rest;
    std::vector<std::string> parents;
    for (size_t end = resolved.size(); end != std::string::npos && end > 0;
         end = resolved.rfind('/', end - 1)) {
        parents.push_back(resolved.substr(0, end));
    }
    return parents;
}

/// Makes a folder, and removes what it made unless it is kept.
class NewFolder {
public:
    explicit NewFolder(const SxString& path) {
        SxString missing = SxFileInfo(path).getAbsPath();
        while (!SxFSAction::exists(missing) && !(missing == SxFileInfo(missing).getPath())) {
            made.push_back(missing);
            missing = SxFileInfo(missing).getPath();
        }
        try {
            SxFSAction::mkdir_p(path, 0777);
        } catch (const SxException&) {
            remove();
            throw;
        }
    }
    ~NewFolder() { remove(); }
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    bool isNew() const { return !made.empty(); }
    /// Returns when the names of the new folders are on the device.
    void sync() const {
        for (const SxString& path : made)
            SxFSAction::syncDir(SxFileInfo(path).getPath());
    }
    void keep() { made.clear(); }

private:
    void remove() {
        for (const SxString& path : made)
            SxOs::get().removeDir(SxOs::hostPath(path));
    }

    std::vector<SxString> made;
};

} // namespace

ZqCreateContent::ZqCreateContent(const SxString& target_, const SxString& source_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      target(ZqSysEnv::unifySlashes(target_ + "/")),
      source(ZqSysEnv::unifySlashes(source_ + "/")) {
    setThreadName("create content");
}

void ZqCreateContent::main() {
    const int64 t0 = ZqSysEnv::getSysTime();
    runtimeInfo->createStats.begin(t0);
    if (!SxFSAction::test_d(source)) {
        log(source + " is not a directory.");
        return;
    }
    refuseOverlap();
    uint64 nBlocks = 0;
    SxList<Entry> files;
    try {
        files = scan(&nBlocks);
    } catch (const SxException& e) {
        log(e.toString(3, "\n"));
        throw SxException(e, "Cannot scan directory", UNIT, __LINE__);
    }
    requireReadable(files);
    nFiles = files.getSize();
    setNTotal(nBlocks * BLOCK);
    setNCurrent(0);
    build(files, nBlocks);
}

void ZqCreateContent::refuseOverlap() const {
    const std::vector<std::string> ofSource = physicalParents(source), ofTarget = physicalParents(target);
    const auto contains = [](const std::vector<std::string>& parents, const std::string& folder) {
        return std::find(parents.begin(), parents.end(), folder) != parents.end();
    };
    if (ofSource.empty() || ofTarget.empty() || contains(ofSource, ofTarget.front()) ||
        contains(ofTarget, ofSource.front())) {
        throw SxException("The folders '" + source + "' and '" + target + "' lie in each other", UNIT,
                          __LINE__);
    }
}

SxList<ZqCreateContent::Entry> ZqCreateContent::scan(uint64* nBlocks) {
    SxList<Entry> files;
    for (const SxFileInfo& info : SxFSAction::find(source + "*", false)) {
        if (stopRequested()) break;
        const SxString relPath = info.getRelPath(source);
        if (relPath.startsWith("System Volume Information")) continue;
        if (!info.isLink() && !info.exists()) {
            throw SxException("Cannot look at '" + info.getOrig() + "'", UNIT, __LINE__);
        }
        if (info.isLink() || !info.isFile()) {
            if (!info.isLink() && info.isDir()) continue;
            log("'" + relPath + "' is passed over: it is no plain file");
            ++nSkipped;
            continue;
        }
        *nBlocks += static_cast<uint64>(wholeBlocks(info.getSize()));
        files.append({relPath, info.getSize()});
    }
    return files;
}

void ZqCreateContent::requireReadable(const SxList<Entry>& files) const {
    for (const Entry& entry : files) {
        if (stopRequested()) return;
        try {
            SxFileIO(source + entry.relPath, "rb").close();
        } catch (const SxException& e) {
            throw SxException(e, "Cannot archive file " + source + entry.relPath, UNIT, __LINE__);
        }
    }
}

void ZqCreateContent::build(const SxList<Entry>& files, uint64 nBlocks) {
    NewFolder folder(target);
    const auto lock = ZqImageLock::take(target, ZqImageLock::Shape, ZqImageLock::Exclusive, "content create");
    bool replacing = false;
    try {
        if (stage(files, nBlocks)) {
            folder.sync();
            commit(&replacing);
            folder.keep();
            complete = true;
        } else {
            discard(folder.isNew());
        }
    } catch (const SxException&) {
        // Where the old image is gone, the new one is all there is.
        if (folder.isNew() || !replacing) discard(folder.isNew());
        throw;
    }
}

bool ZqCreateContent::stage(const SxList<Entry>& files, uint64 nBlocks) {
    const SxString staging = target + ZqImageFiles::STAGING;
    if (SxFSAction::exists(staging)) SxFSAction::rm_r(staging);
    const uint64 need = nBlocks * (BLOCK + sizeof(uint64)) + ROOM_FOR_RECORDS;
    const uint64 free = ZqSysEnv::getFreeDiskSpace(target);
    if (free < need) {
        throw SxException("Folder '" + target + "' lies on a disk with " + free + " bytes free, " + need +
                              " are needed",
                          UNIT, __LINE__);
    }
    SxFSAction::mkdir_p(staging, 0777);
    const SxString digest = pack(staging, files, runtimeInfo->createStats.timeSec);
    setNCurrent(getNTotal());
    runtimeInfo->createStats.end(ZqSysEnv::getSysTime(), static_cast<int64>(getNTotal()));
    if (stopRequested()) return false;
    writeRecords(staging, nBlocks, digest);
    return true;
}

SxString ZqCreateContent::pack(const SxString& folder, const SxList<Entry>& files, int64 t0) {
    ContentWriter writer(folder);
    for (const Entry& entry : files) {
        SxFileIO file;
        int64 done = 0;
        while (done < entry.size && !stopRequested()) {
            int64 n = 0;
            try {
                if (!file.isOpen()) file.open(source + entry.relPath, "rb", 0600);
                n = std::min(entry.size - done, writer.spaceSize());
                if (file.readBuffer(writer.space(), n) != n) {
                    throw SxException(SxString("The file became shorter than its ") + entry.size + " bytes",
                                      UNIT, __LINE__);
                }
            } catch (const SxException& e) {
                throw SxException(e, "Cannot archive file " + source + entry.relPath, UNIT, __LINE__);
            }
            done += n;
            const int64 padded = wholeBlocks(n) * BLOCK;
            std::fill(writer.space() + n, writer.space() + padded, '\0');
            writer.take(padded);
            addNCurrent(static_cast<uint64>(padded));
            updateSpeed(t0);
        }
        if (stopRequested()) break;
    }
    return writer.finish();
}

void ZqCreateContent::writeRecords(const SxString& folder, uint64 nBlocks, const SxString& digest) const {
    log("Writing image params");
    ZqImageParams image;
    image.guid = digest;
    image.sizeRaw = static_cast<int64>(nBlocks * BLOCK);
    image.deviceMode = ZqMountMgr::Removable;
    image.filesystem = "none";
    image.driverVersion = "0.0.0";
    image.write(folder);

    log("Writing app params");
    ZqAppParams app;
    app.guid = digest;
    app.sizeZqf = nBlocks * BLOCK;
    app.sizeIdx = nBlocks * sizeof(uint64);
    app.sizeMnt = 0;
    app.checksumZqf = digest;
    app.checksumMnt = digest;
    app.checksumIdx = SxMd5::file(folder + ZqImageFiles::IDX, nullptr);
    app.write(folder);
}

void ZqCreateContent::commit(bool* begun) const {
    // app.json goes first and comes last: without it, a folder that was cut off half way isn't taken for an
    // image.
    const SxString staging = target + ZqImageFiles::STAGING, app = ZqImageFiles::APP_JSON;
    if (SxFSAction::exists(target + app)) SxFSAction::rm(target + app);
    *begun = true;
    SxFSAction::syncDir(target);
    for (const SxFileInfo& old : SxFSAction::ls(target)) {
        const SxString name = old.getName();
        if (name == ZqImageFiles::LOCK || name + "/" == ZqImageFiles::STAGING) continue;
        SxFSAction::rm_r(old);
    }
    for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::IMAGE_JSON}) {
        SxFSAction::mv(staging + name, target + name);
    }
    SxFSAction::syncDir(target);
    SxFSAction::mv(staging + app, target + app);
    SxFSAction::rm_r(staging);
    SxFSAction::syncDir(target);
}

void ZqCreateContent::discard(bool isNew) const {
    try {
        const SxString staging = target + ZqImageFiles::STAGING;
        if (SxFSAction::exists(staging)) SxFSAction::rm_r(staging);
        if (!isNew) return;
        for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::IMAGE_JSON,
                                 ZqImageFiles::APP_JSON, ZqImageFiles::LOCK}) {
            if (SxFSAction::exists(target + name)) SxFSAction::rm(target + name);
        }
    } catch (const SxException& e) {
        log("cannot remove what was written so far: " + e.toString(3, "\n"));
    }
}

void ZqCreateContent::log(const SxString& text) const {
    zqLogMsg("base", "ZqCreateContent::main : " + text);
}
