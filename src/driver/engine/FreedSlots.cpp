#include "FreedSlots.h"

uint64 FreedSlots::enterWriter() {
    const SxMutexBlock lock(&mutex);
    ++nWriters[epoch % 2];
    return epoch;
}

void FreedSlots::leaveWriter(uint64 began) {
    const SxMutexBlock lock(&mutex);
    --nWriters[began % 2];
}

void FreedSlots::add(const std::vector<Slot>& slots) {
    const SxMutexBlock lock(&mutex);
    for (const Slot& slot : slots)
        waiting.push_back({slot, epoch});
}

void FreedSlots::setDurable(uint64 nRecords) {
    const SxMutexBlock lock(&mutex);
    nDurable = nRecords;
}

std::vector<SlotIdx> FreedSlots::takeReusable() {
    const SxMutexBlock lock(&mutex);
    for (int i = 0; i < 2 && nWriters[(epoch + 1) % 2] == 0; ++i)
        ++epoch;
    std::vector<SlotIdx> slots;
    // Without memory nothing may be moved yet: a slot would be there twice.
    slots.reserve(waiting.size());
    std::erase_if(waiting, [&](const Waiting& freed) SX_REQUIRES(mutex) {
        if (freed.slot.nRecords > nDurable || freed.epoch + 2 > epoch) return false;
        slots.push_back(freed.slot.idx);
        return true;
    });
    return slots;
}

std::vector<SlotIdx> FreedSlots::takeAll() {
    const SxMutexBlock lock(&mutex);
    std::vector<SlotIdx> slots;
    for (const Waiting& freed : waiting)
        slots.push_back(freed.slot.idx);
    waiting.clear();
    return slots;
}
