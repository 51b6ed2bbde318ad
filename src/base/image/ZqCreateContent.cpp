#include "ZqCreateContent.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqBlockWriter.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageParams.h"
#include "ZqImageStaging.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqCreateContent";
constexpr int64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 ROOM_FOR_RECORDS = 1 << 20;

int64 wholeBlocks(int64 bytes) {
    return (bytes + BLOCK - 1) / BLOCK;
}

} // namespace

ZqCreateContent::ZqCreateContent(const SxString& target_, const SxString& source_, bool mayDiscard_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      target(ZqSysEnv::unifySlashes(target_ + "/")),
      source(ZqSysEnv::unifySlashes(source_ + "/")),
      mayDiscard(mayDiscard_) {
    setThreadName("create content");
}

void ZqCreateContent::main() {
    const int64 t0 = ZqSysEnv::getSysTime();
    runtimeInfo->createStats.begin(t0);
    if (!SxFSAction::test_d(source)) {
        log(source + " is not a directory.");
        return;
    }
    ZqImageStaging::refuseOverlap(source, target);
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
    ZqImageStaging staging(target, "content create", mayDiscard);
    const SxString folder = staging.begin(nBlocks * (BLOCK + sizeof(uint64)) + ROOM_FOR_RECORDS);
    const SxString digest = pack(folder, files, runtimeInfo->createStats.timeSec);
    setNCurrent(getNTotal());
    runtimeInfo->createStats.end(ZqSysEnv::getSysTime(), static_cast<int64>(getNTotal()));
    if (stopRequested()) return;
    writeRecords(folder, nBlocks, digest);
    staging.commit(digest);
    complete = true;
}

SxString ZqCreateContent::pack(const SxString& folder, const SxList<Entry>& files, int64 t0) {
    ZqBlockWriter writer(folder);
    ZqMapWriter map(folder);
    uint64 nextIdx = 0;
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
            for (int64 left = padded; left > 0; left -= BLOCK)
                map.append(nextIdx++);
            addNCurrent(static_cast<uint64>(padded));
            updateSpeed(t0);
        }
        if (stopRequested()) break;
    }
    map.finish();
    return writer.finish();
}

void ZqCreateContent::writeRecords(const SxString& folder, uint64 nBlocks, const SxString& digest) const {
    log("Writing image params");
    ZqImageParams image;
    image.guid = digest;
    image.sizeRaw = static_cast<int64>(nBlocks * BLOCK);
    image.deviceMode = ZqDriveKinds::Removable;
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

void ZqCreateContent::log(const SxString& text) const {
    zqLogMsg("base", "ZqCreateContent::main : " + text);
}
