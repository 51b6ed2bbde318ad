#include "LayerSlots.h"

#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <functional>

namespace {

constexpr const char* UNIT = "src/driver/LayerSlots";

/// Slots that may be given out beyond one for each RAW block: two writes of one block that run at once take
/// two, of which one is given back, and slots that were discarded wait for a sync.
constexpr uint64 SPARE_SLOTS = 1 << 18;
/// Slots that are kept allocated: enough for what an unmount of a journaling file system writes, its
/// superblock and a few blocks of its journal.
constexpr uint64 N_RESERVED = 64;
/// Slots whose room one giveBackRoom() gives back; each may take a system call of its own.
constexpr size_t SLOTS_AT_ONCE = 64;

} // namespace

LayerSlots::LayerSlots(const ImageFolder& folder_, uint64 maxSlots, DriveFailure* failure_)
    : folder(folder_),
      nMax(maxSlots),
      failure(failure_) {
}

uint64 LayerSlots::maxFor(uint64 nRaw) {
    return std::min<uint64>(nRaw + SPARE_SLOTS, uint64{~uint32{0}});
}

void LayerSlots::open(bool readOnly) {
    if (folder.isGone(ZqImageFiles::LAYER_DATA)) return;
    folder.open(&file, ZqImageFiles::LAYER_DATA,
                SxOs::Read | SxOs::NoFollow | (readOnly ? 0U : unsigned{SxOs::Write}));
}

void LayerSlots::create() {
    const SxMutexBlock turn(&giving);
    folder.open(&file, ZqImageFiles::LAYER_DATA,
                SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
}

void LayerSlots::close() {
    const SxMutexBlock turn(&giving);
    publishedFd = -1;
    file.close();
}

void LayerSlots::load(const std::vector<bool>& used) {
    const SxMutexBlock lock(&mutex);
    nSlots = used.size();
    // A cut may have come between a record that frees a slot and the hole in its place.
    for (uint64 slot = nSlots; slot-- > 0;) {
        if (!used[slot]) unused.push_back({slot});
    }
}

void LayerSlots::cut() {
    uint64 size = 0;
    {
        const SxMutexBlock lock(&mutex);
        size = nSlots * ZqBlocks::SIZE;
    }
    if (file.getSize() > size) SxOs::get().truncate(file.getFd(), static_cast<int64>(size));
}

/// As a disk does it: a cut leaves the old bytes or the new ones. So the layer never outgrows the disk,
/// however often its blocks are written, and needs no compaction.
int LayerSlots::write(SlotIdx first, uint64 n, const char* data) {
    const int error = file.writeAt(data, n * ZqBlocks::SIZE, static_cast<uint64>(first.byte()));
    dirty = true;
    if (error == 0 || error == ENOSPC) return error;
    return failure->stop(error, [this] { return "Cannot write '" + SxString(file.getPath()) + "'"; });
}

void LayerSlots::read(SlotIdx slot, uint64 size, char* to) const {
    const int64 got = file.readAt(to, size, static_cast<uint64>(slot.byte()));
    if (got != static_cast<int64>(size)) file.raise("Cannot read", got < 0 ? got : -EIO, UNIT, __LINE__);
}

int LayerSlots::sync() {
    if (!dirty.exchange(false)) return 0;
    const int error = file.sync();
    if (error == 0) return 0;
    return failure->stop(error,
                         [this] { return "Cannot bring '" + SxString(file.getPath()) + "' to the disk"; });
}

void LayerSlots::noteUnsynced() {
    file.noteWritten(0, file.getSize());
    dirty = true;
}

SlotIdx LayerSlots::allocate(uint64* n) {
    const SxMutexBlock lock(&mutex);
    std::vector<SlotIdx>* const from = unused.empty() ? &freeSlots : &unused;
    if (from->empty()) {
        const SlotIdx slot{nSlots};
        *n = std::min(*n, nMax - std::min(nSlots, nMax));
        nSlots += *n;
        return slot;
    }
    const SlotIdx slot = from->back();
    uint64 nTaken = 0;
    while (nTaken < *n && !from->empty() && from->back() == slot + nTaken) {
        from->pop_back();
        ++nTaken;
    }
    *n = nTaken;
    return slot;
}

std::vector<SlotIdx> LayerSlots::takeReserved(uint64 n) {
    const SxMutexBlock lock(&mutex);
    if (n > reserved.size()) return {};
    std::vector<SlotIdx> slots(reserved.end() - static_cast<std::ptrdiff_t>(n), reserved.end());
    reserved.resize(reserved.size() - n);
    return slots;
}

void LayerSlots::giveBack(SlotIdx first, uint64 n) {
    const SxMutexBlock lock(&mutex);
    for (uint64 i = n; i-- > 0;)
        unused.push_back(first + i);
}

void LayerSlots::giveBack(std::vector<SlotIdx> slots) {
    std::sort(slots.begin(), slots.end(), std::greater<>());
    const SxMutexBlock lock(&mutex);
    unused.insert(unused.end(), slots.begin(), slots.end());
}

int LayerSlots::reserve() {
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
            -SxOs::get().preallocate(file.getFd(), first.byte(), static_cast<int64>(n * ZqBlocks::SIZE));
        if (error) {
            giveBack(first, n);
            return error;
        }
        const SxMutexBlock lock(&mutex);
        for (uint64 i = n; i-- > 0;)
            reserved.push_back(first + i);
    }
}

bool LayerSlots::giveBackRoom() {
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
        SxOs::get().punchHole(file.getFd(), slots[i].byte(), static_cast<int64>((end - i) * ZqBlocks::SIZE));
        i = end;
    }
    const SxMutexBlock lock(&mutex);
    freeSlots.insert(freeSlots.end(), slots.rbegin(), slots.rend());
    return !unused.empty();
}

void LayerSlots::stopGivingBack() {
    const SxMutexBlock turn(&giving);
    isGivingOver = true;
}

void LayerSlots::shrink(const std::vector<SlotIdx>& freed, SlotIdx end) {
    const SxMutexBlock turn(&giving);
    {
        const SxMutexBlock lock(&mutex);
        unused.insert(unused.end(), freed.begin(), freed.end());
        unused.insert(unused.end(), reserved.begin(), reserved.end());
        reserved.clear();
        for (std::vector<SlotIdx>* slots : {&unused, &freeSlots}) {
            std::erase_if(*slots, [end](SlotIdx slot) { return slot >= end; });
            std::sort(slots->begin(), slots->end(), std::greater<>());
        }
        nSlots = end.value;
    }
    SxOs::get().truncate(file.getFd(), end.byte());
}
