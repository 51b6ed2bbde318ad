#pragma once

#include "BlockMap.h"
#include "DriveFailure.h"
#include "FreedSlots.h"
#include "ImageFolder.h"
#include "LayerFlush.h"
#include "LayerIndex.h"
#include "LayerSlots.h"
#include "SxMutex.h"

#include <vector>

/// The write layer of an image: written blocks in `img.tmp`, each in a slot of its own (LayerSlots), and the
/// index of slots, `img.tix` (LayerIndex). A block is durable once sync() has written its data, and then its
/// index record. Slots of blocks that have one are written in place. Which block has which slot stands in the
/// BlockMap.
///
/// A block that was discarded reads as zeros, with an entry for nothing in the map. A record of 16 bytes says
/// so, which stays for a block that the image has. The slot is used again, and its room given back to the
/// disk, only once that record is durable (by the next sync) and whoever was writing to the slot has ended
/// (FreedSlots): a cut leaves what was written last before the discard, or zeros. No sync waits for the room
/// to be given back: giveBackRoom() does it.
///
/// All files are made, replaced and removed by their names in the open folder, and the index is written anew
/// only while it has its name there. So a folder that was moved away under its drive keeps all that is
/// written, and neither another image in its place nor the files of another one that were put into it are
/// touched.
///
/// write(), discard() and sync() are safe from any thread; flush() only while nobody does either.
class WriteLayer {
public:
    /// Opens the layer of the image in `folder_` if there is one and puts its slots over `map_`. Raises,
    /// naming the file and the fault, where it is damaged or belongs to another image, or another version.
    WriteLayer(const std::string& folder_, BlockMap* map_, bool readOnly);

    /// Makes the files where there are none; durable by the next sync(). Raises.
    void create();
    /// As create(), for a drive that may never need them: where it fails, the first write that does tries
    /// again.
    void tryToCreate();
    /// Writes `n` whole blocks; gives 0 or an errno value. A full disk fails this write alone; whatever else
    /// fails here or in sync() fails all later ones.
    int write(RawIdx first, uint64 n, const char* data);
    /// Makes `n` blocks read as zeros and frees their slots; gives 0 or an errno value. Durable after the
    /// next sync(), and their room given back after that.
    int discard(RawIdx first, uint64 n);
    /// Gives 0 when all writes that have returned are on the device, else an errno value.
    int sync();
    /// Gives the room of some free slots back to the disk; false where none is left to give. Where the file
    /// system can't do this the room is used by later writes.
    bool giveBackRoom() { return slots.giveBackRoom(); }
    /// Ends that; the next drive goes on with it. To be called before anybody else may have the image.
    void stopGivingBack() { slots.stopGivingBack(); }
    /// Whether anything was ever written to it.
    bool hasRecords() const;
    int getFd() const { return slots.getFd(); }
    /// Grows while a sync() or a flush() under way goes on. Of the index this alone is asked without its
    /// lock.
    uint64 getProgress() const SX_THREAD_ATTR(no_thread_safety_analysis) {
        return slots.getProgress() + index.getProgress() + nLookedAt.load();
    }

    using Target = LayerFlush::Target;
    /// Moves the blocks that have a place in `target` there, durably. Raises.
    void flush(const Target& target);
    /// Changes when slots are about to be used otherwise: what was read before is not to be trusted.
    uint64 nMoves() const { return moves.load(); }

    /// What doesn't count of the index, and was cut off when the layer was opened; empty where nothing.
    const SxString& getNotice() const { return notice; }
    /// In words, what has failed; empty where nothing.
    SxString getFailure() const { return failure.getText(); }

private:
    /// What one sync() makes durable.
    struct Batch {
        std::vector<LayerRecord> records;
        uint64 nBefore = 0; ///< records that were made before them
        size_t nDone = 0;   ///< of the records, that are durable
    };

    void load(bool readOnly) SX_REQUIRES(changing);
    void createInTurn() SX_REQUIRES(changing);
    int makeFiles();
    int writeBlocks(RawIdx first, uint64 n, const char* data);
    int writeNew(RawIdx first, uint64 n, const char* data);
    int writeReserved(RawIdx first, uint64 n, const char* data);
    void publish(RawIdx first, SlotIdx slot, uint64 n);
    RawIdx discardSome(RawIdx first, RawIdx end);
    bool hasManyPending() const;
    int reserve() SX_REQUIRES(changing);
    int syncInTurn() SX_REQUIRES(changing);
    int syncBatch(Batch* batch) SX_REQUIRES(changing);
    int appendBatch(Batch* batch) SX_REQUIRES(changing);
    void putBack(const Batch& batch);
    void reuseFreed();

    const ImageFolder folder;
    BlockMap* const map;
    SxString notice;
    DriveFailure failure;
    LayerSlots slots;
    FreedSlots freed;
    std::atomic<uint64> moves{0};
    std::atomic<uint64> nLookedAt{0}; ///< blocks, to move them

    /// Held by whatever makes files or changes `img.tix`, over its I/O, and taken before all others: records
    /// go to the end of a file one batch after the other. Readers don't take it, nor do writers, but for
    /// those that find no files or too many records in memory.
    mutable SxMutex changing;
    LayerIndex index SX_GUARDED_BY(changing);
    mutable SxMutex mutex;
    std::vector<LayerRecord> pending SX_GUARDED_BY(mutex); ///< of written blocks, not in `img.tix` yet
    uint64 nRecords SX_GUARDED_BY(mutex) = 0;              ///< ever made, up to the last of `pending`
};
