#pragma once

#include "BlockIdx.h"
#include "DriveFailure.h"
#include "ImageFolder.h"
#include "SxMutex.h"

#include <vector>

/// The data of a write layer, `img.tmp`: slots of one block each. It knows which of them are free, and which
/// of these have room on the disk.
///
/// Giving room back to the disk takes a call for each run of slots, of which there are very many after a
/// large fstrim, so giveBackRoom() does it a little at a time. Until then these slots are the first to be
/// used again.
///
/// A little room is kept in reserve, allocated before it is needed: on a disk that others have filled a few
/// blocks can still be written. The file system of a drive needs them to be unmounted: ext4 then writes its
/// superblock and a few blocks of its journal, even if it was only read, and without room for them the
/// unmount would say that something is lost. (Access times aren't kept, so reading writes nothing else.) On a
/// file system that can't allocate room before it is written there is no reserve.
///
/// open(), create(), close(), load(), cut(), reserve() and shrink() are for one thread at a time, and all but
/// reserve() only while no slot is written. Everything else is safe from any thread.
class LayerSlots {
public:
    /// `maxSlots`: as many may be given out. What stops the layer goes to `failure_`.
    LayerSlots(const ImageFolder& folder_, uint64 maxSlots, DriveFailure* failure_);

    /// How many slots may be given out for a disk of `nRaw` blocks.
    static uint64 maxFor(uint64 nRaw);

    /// Opens the file if it is there; it is not published yet. Raises.
    void open(bool readOnly);
    /// Makes an empty one, which isn't published yet. Raises.
    void create();
    /// Readers find the file from now on.
    void publish() { publishedFd = file.getFd(); }
    void close();
    bool isOpen() const { return file.isOpen(); }
    /// Of the file once it is published; negative before that.
    int getFd() const { return publishedFd.load(); }
    /// Slots that the file is long enough for. Raises.
    uint64 nInFile() const { return isOpen() ? file.getSize() / ZqBlocks::SIZE : 0; }
    /// The slots that an index names are in use, and all others free.
    void load(const std::vector<bool>& used);
    /// Cuts off what lies beyond the slots that were ever given out.
    void cut();

    /// Writes `n` slots in place; gives 0 or an errno value. Any but a full disk stops the layer.
    int write(SlotIdx first, uint64 n, const char* data);
    /// Reads `size` bytes of a slot. Raises.
    void read(SlotIdx slot, uint64 size, char* to) const;
    /// Gives 0 when all writes that have returned are on the device, else an errno value.
    int sync();
    /// What is in the file need not be on the device, so the next sync() brings it there.
    void noteUnsynced();
    /// For a sync() whose caller could not finish.
    void noteDirty() { dirty = true; }
    /// Grows while a sync() under way goes on.
    uint64 getProgress() const { return file.getProgress(); }

    /// Takes up to `*n` free slots that lie together, and says how many.
    SlotIdx allocate(uint64* n);
    /// Takes `n` slots of the reserve; none where it has fewer.
    std::vector<SlotIdx> takeReserved(uint64 n);
    /// These are free, and may have room on the disk.
    void giveBack(SlotIdx first, uint64 n);
    void giveBack(std::vector<SlotIdx> slots);
    /// Fills the reserve where the disk has room again; gives 0 or an errno value. Without room, or on a file
    /// system that can't allocate any before it is written, the reserve stays as it is.
    int reserve();
    /// Gives the room of some free slots back to the disk; false where none is left to give. Where the file
    /// system can't do this the room is used by later writes.
    bool giveBackRoom();
    /// Ends that.
    void stopGivingBack();
    /// Only slots below `end` are in use from now on, `freed` not among them: cuts off the rest.
    void shrink(const std::vector<SlotIdx>& freed, SlotIdx end);

private:
    const ImageFolder& folder;
    const uint64 nMax;
    DriveFailure* const failure;
    DriveFile file;
    std::atomic<bool> dirty{false};
    std::atomic<int> publishedFd{-1};

    /// Held over the giving back of room, and taken before `mutex`, so that a slot that is about to become a
    /// hole is given to nobody.
    SxMutex giving;
    bool isGivingOver SX_GUARDED_BY(giving) = false;
    SxMutex mutex;
    std::vector<SlotIdx> freeSlots SX_GUARDED_BY(mutex); ///< without room on the disk
    std::vector<SlotIdx> unused SX_GUARDED_BY(mutex);    ///< the same, but for their room
    std::vector<SlotIdx> reserved SX_GUARDED_BY(mutex);  ///< that have room on the disk, for when it is full
    uint64 nSlots SX_GUARDED_BY(mutex) = 0;              ///< ever given out
};
