#include "UnderflowStore.h"

#include "DriverLog.h"
#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr const char* UNIT = "src/driver/UnderflowStore";
constexpr uint64 MAX_STALE = 1024; ///< entries of blocks that have gone, beside as many as there are others

} // namespace

UnderflowStore::UnderflowStore(const std::string& folder_, uint64 nIncluded, uint64 cacheSize_,
                               const std::atomic<uint64>& cursor_)
    : folder(folder_),
      cursor(cursor_),
      nBlocks(nIncluded),
      bits((nIncluded + 63) / 64),
      cacheSize(cacheSize_) {
}

void UnderflowStore::mark(ZqfIdx zqfIdx, bool present) {
    const uint64 bit = uint64{1} << zqfIdx.value % 64;
    std::atomic<uint64>& word = bits[zqfIdx.value / 64];
    if (present) {
        word.fetch_or(bit, std::memory_order_release);
    } else {
        word.fetch_and(~bit, std::memory_order_release);
    }
}

/// The first marked block from `from` on, or `end`.
ZqfIdx UnderflowStore::findMarked(ZqfIdx from, ZqfIdx end) const {
    for (uint64 zqfIdx = from.value; zqfIdx < end.value; zqfIdx = (zqfIdx / 64 + 1) * 64) {
        const uint64 word = bits[zqfIdx / 64].load(std::memory_order_acquire) >> zqfIdx % 64;
        if (word != 0) return std::min(end, ZqfIdx{zqfIdx + static_cast<uint64>(std::countr_zero(word))});
    }
    return end;
}

void UnderflowStore::makeFile() {
    // The name is removed at once, so that no file stays when the service is killed.
    const std::string path = folder + "img.delivered." + std::to_string(SxOs::processId());
    const int removed = SxOs::get().unlink(path);
    if (removed < 0 && removed != -ENOENT) {
        throw SxException(SxException(SxOs::errorText(removed), UNIT, __LINE__),
                          "Cannot replace '" + SxString(path) + "'", UNIT, __LINE__);
    }
    file.open(path, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Exclusive | SxOs::NoFollow);
    const int status = SxOs::get().unlink(path);
    if (status < 0) {
        DriveFile unusable;
        unusable.adopt(&file);
        unusable.raise("Cannot remove the name of", status, UNIT, __LINE__);
    }
    publishedFd = file.getFd();
}

void UnderflowStore::add(ZqfIdx first, const char* data, uint64 length) {
    const uint64 nWhole = length / ZqBlocks::SIZE;
    const SxMutexBlock turn(&changing);
    put(first, nWhole, data);
    if (length % ZqBlocks::SIZE == 0) return;
    char last[ZqBlocks::SIZE] = {};
    std::memcpy(last, data + nWhole * ZqBlocks::SIZE, length % ZqBlocks::SIZE);
    put(first + nWhole, 1, last);
}

/// Takes each stretch of blocks that aren't there yet.
void UnderflowStore::put(ZqfIdx first, uint64 n, const char* data) {
    const uint64 passed = cursor.load();
    const auto isNew = [&](uint64 i) { return first.value + i >= passed && !has(first + i); };
    for (uint64 i = 0; i < n;) {
        uint64 end = i;
        while (end < n && isNew(end))
            ++end;
        if (end == i) {
            ++i;
            continue;
        }
        const char* from = data + i * ZqBlocks::SIZE;
        const uint64 nKept = keepInMemory(first + i, end - i, from, cacheSize.load());
        lowest = std::min(lowest, first + i);
        // Marked at once: if the file fails next, what lies in memory without a mark would never be found
        // again.
        for (uint64 k = i; k < i + nKept; ++k)
            mark(first + k, true);
        const ZqfIdx next = first + i + nKept;
        const uint64 nLeft = end - i - nKept;
        const char* rest = from + nKept * ZqBlocks::SIZE;
        if (nLeft > 0 && !putInFile(next, nLeft, rest)) {
            const uint64 size = std::max(MAX_WITHOUT_FILE, cacheSize.load());
            shrinkMemory(size - nLeft * ZqBlocks::SIZE);
            keepInMemory(next, nLeft, rest, size);
        }
        for (uint64 k = i + nKept; k < end; ++k)
            mark(first + k, true);
        i = end;
    }
}

uint64 UnderflowStore::keepInMemory(ZqfIdx first, uint64 n, const char* data, uint64 size) {
    const uint64 used = nInMemory.load() * ZqBlocks::SIZE;
    n = std::min(n, size > used ? (size - used) / ZqBlocks::SIZE : 0);
    for (uint64 i = 0; i < n; ++i) {
        Block block = std::make_unique_for_overwrite<char[]>(ZqBlocks::SIZE);
        std::memcpy(block.get(), data + i * ZqBlocks::SIZE, ZqBlocks::SIZE);
        order.push_back(first.value + i);
        const SxMutexBlock lock(&memoryMutex);
        if (memory.insert_or_assign(first.value + i, std::move(block)).second) ++nInMemory;
    }
    return n;
}

void UnderflowStore::eraseFromMemory(ZqfIdx zqfIdx) {
    const SxMutexBlock lock(&memoryMutex);
    nInMemory -= memory.erase(zqfIdx.value);
}

bool UnderflowStore::findOldest(ZqfIdx* zqfIdx, char* copy) {
    const SxMutexBlock lock(&memoryMutex);
    for (; !order.empty(); order.pop_front()) {
        const auto block = memory.find(order.front());
        if (block == memory.end()) continue;
        *zqfIdx = {order.front()};
        if (copy) std::memcpy(copy, block->second.get(), ZqBlocks::SIZE);
        return true;
    }
    return false;
}

void UnderflowStore::shrinkMemory(uint64 bytes) {
    ZqfIdx oldest;
    while (nInMemory.load() * ZqBlocks::SIZE > bytes && findOldest(&oldest, nullptr)) {
        mark(oldest, false);
        // As where the cursor passes: the bytes may go only after this.
        ++drops;
        eraseFromMemory(oldest);
        order.pop_front();
    }
}

bool UnderflowStore::hasRoom(uint64 n) {
    if (!file.isOpen()) {
        SxStat info;
        const bool isThere = SxOs::get().stat(folder + ZqImageFiles::ZQF, &info) == 0;
        reserve = ZqDiskReserve(SxString(folder), isThere ? static_cast<uint64>(info.size) : 0);
    }
    return reserve.getMissing(n * ZqBlocks::SIZE) == 0;
}

bool UnderflowStore::putInFile(ZqfIdx first, uint64 n, const char* data) {
    int error = hasRoom(n) ? 0 : ENOSPC;
    if (error == 0) {
        if (!file.isOpen()) makeFile();
        error = file.writeAt(data, n * ZqBlocks::SIZE, static_cast<uint64>(first.byte()));
        // What was written of them takes room that others need.
        if (error) SxOs::get().punchHole(file.getFd(), first.byte(), static_cast<int64>(n * ZqBlocks::SIZE));
    }
    const bool wasFull = std::exchange(isFull, error == ENOSPC || error == EDQUOT);
    if (error && !isFull) file.raise("Cannot keep delivered blocks in", error, UNIT, __LINE__);
    if (isFull && !wasFull) {
        driverLog("The disk of '" + SxString(folder) +
                  "' has no room for blocks that came on demand: memory takes them, at most " +
                  (MAX_WITHOUT_FILE >> 20) + " MiB");
    }
    return !isFull;
}

void UnderflowStore::dropPassed() {
    const SxMutexBlock turn(&changing);
    const ZqfIdx end{std::min(cursor.load(), nBlocks)};
    if (lowest >= end) return;
    for (ZqfIdx first = findMarked(lowest, end); first < end; first = findMarked(first, end)) {
        ZqfIdx behind = first;
        for (; behind < end && has(behind); behind = behind + 1)
            mark(behind, false);
        // Readers that have seen the marks read again. The bytes may go only after this.
        ++drops;
        {
            const SxMutexBlock lock(&memoryMutex);
            for (ZqfIdx zqfIdx = first; zqfIdx < behind && !memory.empty(); zqfIdx = zqfIdx + 1)
                nInMemory -= memory.erase(zqfIdx.value);
        }
        // Where holes can't be made the room comes back with the end of the drive.
        if (file.isOpen()) SxOs::get().punchHole(file.getFd(), first.byte(), behind.byte() - first.byte());
        first = behind;
    }
    if (order.size() > 2 * nInMemory.load() + MAX_STALE) {
        std::deque<uint64> left;
        const SxMutexBlock lock(&memoryMutex);
        for (const uint64 zqfIdx : order) {
            if (memory.contains(zqfIdx)) left.push_back(zqfIdx);
        }
        order.swap(left);
    }
    lowest = findMarked(end, {nBlocks});
    if (lowest.value == nBlocks) lowest = {~uint64{0}};
}

/// Copies what lies in memory and gives the stretches of bytes that don't.
uint64 UnderflowStore::copyFromMemory(uint64 offset, uint64 n, char* to, Stretch* rest) {
    uint64 nRest = 0;
    const SxMutexBlock lock(&memoryMutex);
    for (uint64 at = offset; at < offset + n;) {
        const uint64 end = std::min(offset + n, (at / ZqBlocks::SIZE + 1) * ZqBlocks::SIZE);
        const auto block = memory.find(at / ZqBlocks::SIZE);
        if (block != memory.end()) {
            std::memcpy(to + (at - offset), block->second.get() + at % ZqBlocks::SIZE, end - at);
        } else if (nRest > 0 && rest[nRest - 1].end == at) {
            rest[nRest - 1].end = end;
        } else {
            rest[nRest++] = {at, end};
        }
        at = end;
    }
    return nRest;
}

int UnderflowStore::read(uint64 offset, uint64 n, char* to) {
    Stretch rest[MAX_REQUEST_BLOCKS];
    uint64 nRest = 1;
    rest[0] = {offset, offset + n};
    if (nInMemory.load() != 0) nRest = copyFromMemory(offset, n, to, rest);
    for (uint64 i = 0; i < nRest; ++i) {
        const auto size = static_cast<int64>(rest[i].end - rest[i].begin);
        const int64 got = SxOs::get().readAt(getFd(), to + (rest[i].begin - offset), size,
                                             static_cast<int64>(rest[i].begin));
        if (got < 0) return static_cast<int>(-got);
        if (got < size) return EIO;
    }
    return 0;
}

void UnderflowStore::setCacheSize(uint64 bytes) {
    const SxMutexBlock turn(&changing);
    cacheSize = bytes;
    char copy[ZqBlocks::SIZE];
    ZqfIdx oldest;
    while (nInMemory.load() * ZqBlocks::SIZE > bytes && findOldest(&oldest, copy)) {
        if (!putInFile(oldest, 1, copy)) {
            shrinkMemory(std::max(MAX_WITHOUT_FILE, bytes));
            return;
        }
        eraseFromMemory(oldest);
        order.pop_front();
    }
}
