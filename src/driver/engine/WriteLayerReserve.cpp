#include "WriteLayer.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <cerrno>

namespace {

/// Bytes beyond the index's end that have room on the disk: more than the records of all reserved slots.
constexpr uint64 INDEX_AHEAD = 4096, INDEX_STEP = 16 << 10;
/// Slots whose room one giveBackRoom() gives back; each may take a system call of its own.
constexpr size_t SLOTS_AT_ONCE = 64;

} // namespace

/// Takes back slots that nothing was published in.
void WriteLayer::giveBack(SlotIdx first, uint64 n) {
    const SxMutexBlock lock(&mutex);
    // Some of the data may have come to them, so they may have room on the disk.
    for (uint64 i = n; i-- > 0;)
        unused.push_back(first + i);
}

/// For a disk that is full. What doesn't fit whole is refused, so that a large write leaves the reserve to
/// the small ones. Gives 0 or an errno value.
int WriteLayer::writeReserved(RawIdx first, uint64 n, const char* data) {
    std::vector<SlotIdx> slots;
    {
        const SxMutexBlock lock(&mutex);
        if (n > reserved.size()) return ENOSPC;
        slots.assign(reserved.end() - static_cast<std::ptrdiff_t>(n), reserved.end());
        reserved.resize(reserved.size() - n);
    }
    for (uint64 i = 0; i < n; ++i) {
        if (const int error = writeInSlots(slots[i], 1, data + i * ZqBlocks::SIZE)) {
            for (uint64 left = i; left < n; ++left)
                giveBack(slots[left], 1);
            return error;
        }
        publish(first + i, slots[i], 1);
    }
    return 0;
}

/// Fills the reserve where the disk has room again. Without room, or on a file system that can't allocate any
/// before it is written, the reserve stays as it is.
int WriteLayer::reserve() {
    if (tixEnd + INDEX_AHEAD > tixReserved) {
        const int error = -SxOs::get().preallocate(tix.getFd(), static_cast<int64>(tixEnd), INDEX_STEP);
        if (error) return error;
        tixReserved = tixEnd + INDEX_STEP;
    }
    for (;;) {
        uint64 n = 0;
        {
            const SxMutexBlock lock(&mutex);
            n = N_RESERVED - reserved.size();
        }
        if (n == 0) return 0;
        const SlotIdx first = allocate(&n);
        if (n == 0) return 0;
        const int error =
            -SxOs::get().preallocate(tmp.getFd(), first.byte(), static_cast<int64>(n * ZqBlocks::SIZE));
        if (error) {
            giveBack(first, n);
            return error;
        }
        const SxMutexBlock lock(&mutex);
        for (uint64 i = n; i-- > 0;)
            reserved.push_back(first + i);
    }
}

bool WriteLayer::giveBackRoom() {
    const SxMutexBlock turn(&giving);
    if (isGivingOver) return false;
    std::vector<SlotIdx> slots;
    {
        const SxMutexBlock lock(&mutex);
        const size_t n = std::min(unused.size(), SLOTS_AT_ONCE);
        slots.assign(unused.end() - static_cast<std::ptrdiff_t>(n), unused.end());
        unused.resize(unused.size() - n);
    }
    if (slots.empty()) return false;
    std::sort(slots.begin(), slots.end());
    for (size_t i = 0; i < slots.size();) {
        size_t end = i + 1;
        while (end < slots.size() && slots[end] == slots[i] + (end - i))
            ++end;
        SxOs::get().punchHole(tmp.getFd(), slots[i].byte(), static_cast<int64>((end - i) * ZqBlocks::SIZE));
        i = end;
    }
    const SxMutexBlock lock(&mutex);
    freeSlots.insert(freeSlots.end(), slots.rbegin(), slots.rend());
    return !unused.empty();
}

void WriteLayer::stopGivingBack() {
    const SxMutexBlock turn(&giving);
    isGivingOver = true;
}
