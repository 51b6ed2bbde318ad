#include "ZqPatchCheck.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxIndexSet.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqArchiveFile.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqPatchFiles.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchCheck";
constexpr int64 PIECE = 1 << 20;

} // namespace

ZqPatchCheck::ZqPatchCheck(const SxString& patch_, const SxString& scratch_)
    : patch(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(patch_))),
      scratch(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(scratch_))) {
    setThreadName("patch check");
}

void ZqPatchCheck::main() {
    check();
    if (nMore > 0) faults << "There are " + SxString(nMore) + " faults more";
}

void ZqPatchCheck::check() {
    if (!readRecords()) return;
    const SxString mapFile =
        takeArchive(ZqPatchFiles::MAP_7Z, ZqPatchFiles::MAP, params.sizeMap, params.hashMap);
    const SxString infoFile =
        takeArchive(ZqPatchFiles::INFO_7Z, ZqPatchFiles::INFO, params.sizeInfo, params.hashInfo);
    const bool hasMap = !mapFile.isEmpty() && readMap(mapFile),
               hasParts = !infoFile.isEmpty() && readParts(infoFile);
    SxIndexSet isMade(static_cast<int64>(nOld + nChanged));
    if (hasMap) checkMap(&isMade);
    if (!hasParts) return;
    checkParts(&isMade);
    checkData();
}

void ZqPatchCheck::refuseStop() const {
    if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

void ZqPatchCheck::addFault(const SxString& text) {
    if (faults.getSize() < MAX_LISTED) {
        faults << text;
    } else {
        ++nMore;
    }
}

/// What can't be read is a fault, not a failure of the check.
bool ZqPatchCheck::attempt(const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const SxException& e) {
        addFault(e.toString(SxException::ShowMessage, ": "));
        return false;
    }
}

bool ZqPatchCheck::readRecords() {
    if (!attempt([&] { params.read(patch); })) params.fromGUID = params.toGUID = SxString();
    attempt([&] { ZqImageParams record(patch); });
    attempt([&] { nNew = params.readNew(patch).sizeIdx / sizeof(uint64); });
    return faults.isEmpty();
}

/// Gives the path of what an archive holds; empty where it can't be had.
SxString ZqPatchCheck::takeArchive(const char* archive, const char* file, uint64 size, const SxString& md5) {
    const SxString path = patch + archive;
    const int64 there = SxFSAction::sizeOf(path);
    const bool isTaken = attempt([&] {
        if (there < 0) throw SxException("'" + path + "' is missing", UNIT, __LINE__);
        if (static_cast<uint64>(there) != size) {
            throw SxException("'" + path + "' has " + SxString(there) + " bytes, and not the " +
                                  SxString(size) + " that its patch.json says",
                              UNIT, __LINE__);
        }
        if (!(SxMd5::file(path) == md5)) {
            throw SxException("'" + path + "' hasn't the digest that its patch.json says", UNIT, __LINE__);
        }
        if (!ZqArchiveFile::take(path, scratch, file))
            throw SxException("'" + path + "' doesn't hold " + file, UNIT, __LINE__);
    });
    return isTaken ? scratch + file : SxString();
}

bool ZqPatchCheck::readMap(const SxString& file) {
    return attempt([&] {
        map = ZqImage::readEntries(file);
        nOld = static_cast<uint64>(map.getSize());
        if (SxFSAction::sizeOf(file) % static_cast<int64>(sizeof(uint64)) != 0)
            throw SxException("'" + file + "' isn't a list of items", UNIT, __LINE__);
    });
}

bool ZqPatchCheck::readParts(const SxString& file) {
    return attempt([&] {
        parts = ZqPatchInfo::read(file);
        for (const ZqPatchInfo& part : parts)
            nChanged += static_cast<uint64>(part.newMap.getSize());
    });
}

void ZqPatchCheck::checkMap(SxIndexSet* isMade) {
    for (const uint64 item : map) {
        if (item == ZqImage::NO_ENTRY) continue;
        ++nKept;
        if (item >= nNew) {
            addFault(SxString(ZqPatchFiles::MAP) + " names new item " + SxString(item) + " of " +
                     SxString(nNew));
        } else if (!isMade->insert(item)) {
            addFault(SxString(ZqPatchFiles::MAP) + " names new item " + SxString(item) + " twice");
        }
    }
}

void ZqPatchCheck::checkParts(SxIndexSet* isMade) {
    uint64 nPart = 0, bytes = 0;
    for (const ZqPatchInfo& part : parts) {
        const SxString where = "part " + SxString(nPart++) + " of patch.info";
        for (const uint64 item : part.newMap) {
            if (item >= nNew) {
                addFault(where + " names new item " + SxString(item) + " of " + SxString(nNew));
            } else if (!isMade->insert(item)) {
                addFault(where + " names new item " + SxString(item) +
                         ", which the map or a part has already");
            }
        }
        for (const uint64 item : part.oldMap)
            if (nOld > 0 && item >= nOld)
                addFault(where + " names old item " + SxString(item) + " of " + SxString(nOld));
        bytes += part.patchSize;
    }
    if (bytes != params.sizeData) {
        addFault("The streams in patch.info have " + SxString(bytes) + " bytes, and patch.data " +
                 SxString(params.sizeData) + " by patch.json");
    }
}

void ZqPatchCheck::checkData() {
    const SxString path = patch + ZqPatchFiles::DATA;
    const int64 size = SxFSAction::sizeOf(path);
    if (size < 0) return addFault("'" + path + "' is missing");
    if (static_cast<uint64>(size) != params.sizeData) {
        return addFault("'" + path + "' has " + SxString(size) + " bytes, and not the " +
                        SxString(params.sizeData) + " that its patch.json says");
    }
    setNTotal(params.sizeData);
    SxFileIO data(path, "rb");
    data.adviseSequential();
    std::vector<char> bytes(PIECE);
    SxMd5 whole;
    uint64 nPart = 0;
    for (const ZqPatchInfo& part : parts) {
        SxMd5 stream;
        for (uint64 left = part.patchSize; left > 0;) {
            refuseStop();
            const int64 n = data.readBuffer(bytes.data(), static_cast<int64>(std::min<uint64>(left, PIECE)));
            if (n == 0) break;
            stream.update(bytes.data(), n);
            whole.update(bytes.data(), n);
            addNCurrent(static_cast<uint64>(n));
            left -= static_cast<uint64>(n);
        }
        stream.finish();
        if (!(stream == part.patchMd5)) {
            addFault("The stream of part " + SxString(nPart) + " in '" + path +
                     "' hasn't the digest that patch.info says");
        }
        ++nPart;
    }
    whole.finish();
    if (!(whole.toString() == params.hashData))
        addFault("'" + path + "' hasn't the digest that its patch.json says");
}
