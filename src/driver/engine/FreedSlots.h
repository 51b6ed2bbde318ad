#pragma once

#include "BlockIdx.h"
#include "SxMutex.h"

#include <vector>

/// The slots of a write layer that discards have freed, until they may be used again: once the record of the
/// discard is durable, and whoever was writing to the slot has ended. Safe from any thread.
///
/// Writers are counted by the epoch in which they began; the epoch rises when none of the one before is left.
/// So a writer that saw a slot in use has ended two epochs later.
class FreedSlots {
public:
    /// One of them.
    struct Slot {
        SlotIdx idx;
        uint64 nRecords; ///< of all that the layer ever made, up to that of the discard
    };

    /// Counts a writer while this object lives; to be made before it looks which slots its blocks have.
    class Writer {
    public:
        explicit Writer(FreedSlots* slots_) : slots(slots_), began(slots_->enterWriter()) {}
        ~Writer() { slots->leaveWriter(began); }
        Writer(const Writer&) = delete;
        Writer& operator=(const Writer&) = delete;

    private:
        FreedSlots* const slots;
        const uint64 began; ///< epoch
    };
    /// Takes slots that no block has any longer: whoever looks from now on doesn't find them.
    void add(const std::vector<Slot>& slots);
    /// So many of the layer's records are durable; never goes down.
    void setDurable(uint64 nRecords);
    /// Gives those that may be used again, which are forgotten here.
    std::vector<SlotIdx> takeReusable();
    /// Gives all. Only while nobody writes, and all records are durable.
    std::vector<SlotIdx> takeAll();

private:
    uint64 enterWriter();
    void leaveWriter(uint64 began);

    struct Waiting {
        Slot slot;
        uint64 epoch; ///< in which it was freed
    };

    SxMutex mutex;
    std::vector<Waiting> waiting SX_GUARDED_BY(mutex);
    uint64 nDurable SX_GUARDED_BY(mutex) = 0; ///< records
    uint64 epoch SX_GUARDED_BY(mutex) = 0;
    uint64 nWriters[2] SX_GUARDED_BY(mutex) = {}; ///< of this epoch and the one before, by its lowest bit
};
