#include "ZqStretchStore.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "SxXxh64.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqStretchStore";
constexpr std::string_view MAGIC = "ZAHEAD01";
/// Magic number, size of the image, size of a stretch, MD5 text of the key, zeros.
constexpr size_t HEADER = 64;
constexpr uint64 ENTRY = 8;
/// Stretches of the largest image; the index then takes 128 MiB.
constexpr uint64 MAX_STRETCHES = uint64{1} << 24;
/// Room that is left to `img.zqf`, which needs it before the store gives any back. What a download holds in
/// memory for the disk, 32 MiB, fits in twice.
constexpr uint64 MARGIN = 64 << 20;
constexpr const char* FILES[] = {ZqImageFiles::AHEAD_IDX, ZqImageFiles::AHEAD};

SxString pathOf(const SxString& folder, const char* name) {
    return ZqImageFolder::prefix(folder) + name;
}

void append(std::string* bytes, uint64 value) {
    for (int shift = 0; shift < 64; shift += 8)
        bytes->push_back(static_cast<char>(value >> shift));
}

/// Bound to its place, so that a stretch that stands in another's counts as damaged. Never 0.
uint64 checksumOf(uint64 stretchIdx, const SxArray<char>& bytes) {
    const uint64 checksum = SxXxh64::of(bytes.data(), bytes.getSize(), stretchIdx);
    return checksum == 0 ? 1 : checksum;
}

/// A plain file that isn't reached by a link.
bool isOwnFile(const SxString& path) {
    SxStat info;
    return SxOs::get().lstat(SxOs::hostPath(path), &info) == 0 && info.kind == SxStat::File;
}

} // namespace

ZqStretchStore::ZqStretchStore(uint64 sizeZqf_, uint64 sizeStretch_, const ZqDiskReserve& reserve_)
    : sizeZqf(sizeZqf_),
      sizeStretch(sizeStretch_),
      nStretches(sizeZqf / sizeStretch + (sizeZqf % sizeStretch != 0)),
      reserve(reserve_) {
    if (nStretches == 0 || nStretches > MAX_STRETCHES) {
        throw SxException("Nothing is kept of an image of " + SxString(sizeZqf) + " bytes", UNIT, __LINE__);
    }
}

ZqStretchStore::ZqStretchStore(const SxString& folder, const SxString& key, uint64 sizeZqf_,
                               uint64 sizeStretch_, uint64 nPassed, const ZqDiskReserve& reserve_)
    : ZqStretchStore(sizeZqf_, sizeStretch_, reserve_) {
    if (!openOld(folder, key, "r+b")) {
        makeNew(folder, key);
        if (!openOld(folder, key, "r+b")) {
            throw SxException("Cannot keep what comes early in folder '" + folder + "'", UNIT, __LINE__);
        }
    }
    pass(nPassed);
}

std::unique_ptr<ZqStretchStore> ZqStretchStore::openToRead(const SxString& folder, const SxString& key,
                                                           uint64 sizeZqf_, uint64 sizeStretch_) {
    std::unique_ptr<ZqStretchStore> store(new ZqStretchStore(sizeZqf_, sizeStretch_, ZqDiskReserve()));
    store->isReadOnly = true;
    if (!store->openOld(folder, key, "rb")) return nullptr;
    return store;
}

SxString ZqStretchStore::keyOf(const SxString& checksumZqf, const SxString& checksumIdx,
                               const SxString& checksumMnt) {
    if (checksumZqf.isEmpty() && checksumIdx.isEmpty()) return {};
    return checksumZqf + "\n" + checksumIdx + "\n" + checksumMnt;
}

uint64 ZqStretchStore::sizeIn(const SxString& folder) {
    SxStat info;
    const SxString path = pathOf(folder, ZqImageFiles::AHEAD);
    const bool isThere = SxOs::get().lstat(SxOs::hostPath(path), &info) == 0 && info.kind == SxStat::File;
    return isThere ? static_cast<uint64>(info.allocated) : 0;
}

void ZqStretchStore::remove(const SxString& folder) {
    for (const char* name : FILES) {
        SxStat info;
        const SxString path = pathOf(folder, name);
        if (SxOs::get().lstat(SxOs::hostPath(path), &info) == 0) SxFSAction::rm(path);
    }
}

uint64 ZqStretchStore::sizeOf(uint64 stretchIdx) const {
    return std::min(sizeStretch, sizeZqf - stretchIdx * sizeStretch);
}

/// Stretches that an `img.zqf` of that size holds as wholes.
uint64 ZqStretchStore::countPassed(uint64 size) const {
    return size >= sizeZqf ? nStretches : size / sizeStretch;
}

std::string ZqStretchStore::header(const SxString& key) const {
    std::string bytes(MAGIC);
    append(&bytes, sizeZqf);
    append(&bytes, sizeStretch);
    bytes += SxMd5::get(key.str()).str();
    bytes.resize(HEADER, '\0');
    return bytes;
}

bool ZqStretchStore::openOld(const SxString& folder, const SxString& key, const char* mode) {
    const SxString dataPath = pathOf(folder, ZqImageFiles::AHEAD),
                   indexPath = pathOf(folder, ZqImageFiles::AHEAD_IDX);
    if (!isOwnFile(dataPath) || !isOwnFile(indexPath)) return false;
    try {
        SxFileIO oldData(dataPath, mode), oldIndex(indexPath, mode);
        const auto nEntries = static_cast<int64>(nStretches * ENTRY);
        if (oldData.getSize() != static_cast<int64>(sizeZqf) ||
            oldIndex.getSize() != static_cast<int64>(HEADER) + nEntries) {
            return false;
        }
        std::string start(HEADER, '\0');
        if (oldIndex.readBuffer(start.data(), HEADER) != HEADER || start != header(key)) return false;
        std::vector<uint64> entries(nStretches);
        if (oldIndex.readBuffer(entries.data(), nEntries) != nEntries) return false;
        data = std::move(oldData);
        index = std::move(oldIndex);
        const SxMutexBlock lock(&mutex);
        checksums = std::move(entries);
        return true;
    } catch (const SxException& e) {
        zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        return false;
    }
}

void ZqStretchStore::makeNew(const SxString& folder, const SxString& key) const {
    remove(folder);
    try {
        SxFileIO newData, newIndex;
        newData.create(pathOf(folder, ZqImageFiles::AHEAD));
        // Where holes can't be made, the file would at once take the room of the whole image.
        const int result = SxOs::get().punchHole(newData.getFd(), 0, static_cast<int64>(sizeStretch));
        if (result < 0) {
            throw SxException("Cannot keep what comes early in '" + newData.getFilePath() +
                                  "': " + SxOs::errorText(result),
                              UNIT, __LINE__);
        }
        newData.truncate(static_cast<int64>(sizeZqf));
        newIndex.create(pathOf(folder, ZqImageFiles::AHEAD_IDX));
        const std::string start = header(key);
        newIndex.writeBuffer(start.data(), static_cast<int64>(start.size()));
        newIndex.truncate(static_cast<int64>(HEADER + nStretches * ENTRY));
    } catch (const SxException&) {
        remove(folder);
        throw;
    }
}

std::vector<uint64> ZqStretchStore::list() const {
    const SxMutexBlock lock(&mutex);
    std::vector<uint64> all;
    for (uint64 idx = 0; idx < checksums.size(); ++idx) {
        if (checksums[idx] != 0) all.push_back(idx);
    }
    return all;
}

SxPtr<SxArray<char>> ZqStretchStore::read(uint64 stretchIdx) {
    uint64 checksum = 0;
    {
        const SxMutexBlock lock(&mutex);
        checksum = checksums[stretchIdx];
    }
    if (checksum == 0) return nullptr;
    const auto n = static_cast<int64>(sizeOf(stretchIdx));
    auto bytes = SxPtr<SxArray<char>>::create(n);
    const int64 nRead =
        SxOs::get().readAt(data.getFd(), bytes->data(), n, static_cast<int64>(stretchIdx * sizeStretch));
    if (nRead == n && checksumOf(stretchIdx, *bytes) == checksum) return bytes;
    zqLogMsg("NET", "Stretch " + SxString(stretchIdx) + " in '" + data.getFilePath() +
                        "' isn't what was written; it counts as absent");
    if (!isReadOnly) drop(stretchIdx);
    return nullptr;
}

bool ZqStretchStore::write(uint64 stretchIdx, const SxArray<char>& bytes) {
    const int64 n = bytes.getSize();
    if (reserve.getRoom() < MARGIN + static_cast<uint64>(n)) return false;
    const auto offset = static_cast<int64>(stretchIdx * sizeStretch);
    const int64 nWritten = SxOs::get().writeAt(data.getFd(), bytes.data(), n, offset);
    if (nWritten == n) {
        mark(stretchIdx, checksumOf(stretchIdx, bytes));
        return true;
    }
    // What of it was written takes room that others need now.
    SxOs::get().punchHole(data.getFd(), offset, n);
    if (nWritten >= 0 || nWritten == -ENOSPC || nWritten == -EDQUOT) return false;
    throw SxException(SxException(SxOs::errorText(nWritten), UNIT, __LINE__),
                      SxFileIO::fileWriteErr(data.getFilePath()), UNIT, __LINE__);
}

void ZqStretchStore::drop(uint64 stretchIdx) {
    mark(stretchIdx, 0);
    SxOs::get().punchHole(data.getFd(), static_cast<int64>(stretchIdx * sizeStretch),
                          static_cast<int64>(sizeOf(stretchIdx)));
}

/// An entry that can't be written costs a fetch in the next run, and nothing else: a stretch without its
/// checksum counts as absent.
void ZqStretchStore::mark(uint64 stretchIdx, uint64 checksum) {
    {
        const SxMutexBlock lock(&mutex);
        checksums[stretchIdx] = checksum;
    }
    SxOs::get().writeAt(index.getFd(), &checksum, ENTRY, static_cast<int64>(HEADER + stretchIdx * ENTRY));
}

void ZqStretchStore::pass(uint64 size) {
    const uint64 end = countPassed(size);
    uint64 first = 0;
    bool hasAny = false;
    {
        const SxMutexBlock lock(&mutex);
        first = nDropped;
        if (end <= first) return;
        nDropped = end;
        for (uint64 idx = first; idx < end; ++idx) {
            hasAny = hasAny || checksums[idx] != 0;
            checksums[idx] = 0;
        }
    }
    if (hasAny) clear(first, end);
}

void ZqStretchStore::clear(uint64 first, uint64 end) {
    const std::vector<uint64> none(end - first, 0);
    SxOs::get().writeAt(index.getFd(), none.data(), static_cast<int64>(none.size() * ENTRY),
                        static_cast<int64>(HEADER + first * ENTRY));
    SxOs::get().punchHole(data.getFd(), static_cast<int64>(first * sizeStretch),
                          static_cast<int64>((end - first) * sizeStretch));
}
