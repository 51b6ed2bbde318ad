#pragma once

#include "BlockMap.h"
#include "ImageFolder.h"
#include "LayerIdentity.h"
#include "SxMutex.h"
#include "ZqImageFiles.h"

#include <vector>

/// The write layer of an image: written blocks in `img.tmp`, each in a slot of its own, and the index of
/// slots, `img.tix`. A block is durable once sync() has written its data, and then its index record. Slots of
/// blocks that have one are written in place. Which block has which slot stands in the BlockMap.
///
/// A block that was discarded reads as zeros, with an entry for nothing in the map. A record of 16 bytes says
/// so, which stays for a block that the image has. The slot is used again, and its room given back to the
/// disk, only once that record is durable (by the next sync) and whoever was writing to the slot has ended: a
/// cut leaves what was written last before the discard, or zeros. Giving room back takes a call for each run
/// of slots, of which there are very many after a large fstrim, so no sync waits for it: giveBackRoom() does
/// it a little at a time, and until then these slots are the first to be used again.
///
/// The layer keeps a little room in reserve, allocated before it is needed: on a disk that others have filled
/// a few blocks can still be written. The file system of a drive needs them to be unmounted: ext4 then writes
/// its superblock and a few blocks of its journal, even if it was only read, and without room for them the
/// unmount would say that something is lost. (Access times aren't kept, so reading writes nothing else.) On a
/// file system that can't allocate room before it is written there is no reserve.
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
    WriteLayer(const std::string& folder_, BlockMap* map_, bool readOnly_);

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
    bool giveBackRoom();
    /// Ends that; the next drive goes on with it. To be called before anybody else may have the image.
    void stopGivingBack();
    int getFd() const { return publishedFd.load(); }
    /// Grows while a sync() or a flush() under way goes on.
    uint64 getProgress() const {
        return tmp.getProgress() + tix.getProgress() + nextTix.getProgress() + nLookedAt.load();
    }

    /// Where a block of the layer is moved to.
    struct Target {
        const DriveFile* zqf;
        uint64 nBlocks; ///< ZqF blocks that are there
        uint64 nBytes;  ///< of the file
        uint64 sizeRaw; ///< bytes
    };
    /// Moves the blocks that have a place in `target` there, durably. Raises.
    void flush(const Target& target);
    /// Changes when slots are about to be used otherwise: what was read before is not to be trusted.
    uint64 nMoves() const { return moves.load(); }

    /// What doesn't count of the index, and was cut off when the layer was opened; empty where nothing.
    const SxString& getNotice() const { return notice; }
    /// In words, what has failed; empty where nothing.
    SxString getFailure() const;

private:
    /// One record of `img.tix`, as it stands there.
    struct Record {
        uint64 rawIdx;
        uint32 slot, check;
    };
    static constexpr const char *INDEX = ZqImageFiles::LAYER_INDEX, *DATA = ZqImageFiles::LAYER_DATA,
                                *NEXT_INDEX = "img.tix.new"; ///< which takes the place of the index
    static constexpr uint64 HEADER_SIZE = 2 * sizeof(Record);
    /// Bytes of an index that aren't worth writing it anew.
    static constexpr uint64 LEAST_TO_COMPACT = 1 << 20;
    /// Slots that are kept allocated: enough for what an unmount of a journaling file system writes, its
    /// superblock and a few blocks of its journal.
    static constexpr uint64 N_RESERVED = 64;
    /// In the place of a slot: the block reads as zeros.
    static constexpr SlotIdx ZEROS{~uint32{0}};
    /// A slot that a discard has freed, and the epoch of writers in which it did.
    struct Freed {
        SlotIdx slot;
        uint64 epoch;
        uint64 nRecords; ///< of all that were made, up to its own
    };
    /// What one sync() makes durable.
    struct Batch {
        std::vector<Record> records;
        std::vector<Freed> freed; ///< by these records
        uint64 nBefore = 0;       ///< records that were made before them
        size_t nDone = 0;         ///< of the records, that are durable
    };
    /// What load() has found.
    struct Found {
        std::vector<bool> used;    ///< by slot
        std::vector<bool> hasHome; ///< by RAW index: a block of the layer that the image has, too
    };
    /// What flush() does with one block.
    struct Move {
        RawIdx rawIdx;
        SlotIdx slot;         ///< or ZEROS
        BlockMap::Place home; ///< its entry in the map without the layer
        uint64 size;          ///< bytes of it that lie on the disk
        bool moves;
    };

    static RawIdx blockOf(const Record& record);
    static bool isZeros(const Record& record);
    static Record makeRecord(RawIdx rawIdx, SlotIdx slot);
    void load() SX_REQUIRES(changing);
    void makeDurable() SX_REQUIRES(changing);
    int syncNames();
    uint64 readHeader(uint64 size) SX_REQUIRES(changing);
    uint64 readIdentity(uint64 size) const;
    void readAll(void* to, uint64 n, uint64 offset) const;
    uint64 readRecords(uint64 at, uint64 size, Found* found);
    void adoptRecord(RawIdx rawIdx, SlotIdx slot, Found* found);
    uint64 countLive(const Found& found) const;
    int writeBlocks(RawIdx first, uint64 n, const char* data);
    uint64 enterWriter();
    void leaveWriter(uint64 epoch);
    int makeFiles();
    int writeInSlots(SlotIdx first, uint64 n, const char* data);
    int writeNew(RawIdx first, uint64 n, const char* data);
    int writeReserved(RawIdx first, uint64 n, const char* data);
    SlotIdx allocate(uint64* n);
    void publish(RawIdx first, SlotIdx slot, uint64 n);
    void giveBack(SlotIdx first, uint64 n);
    /// Gives 0 or an errno value, where it isn't full.
    int reserve() SX_REQUIRES(changing);
    bool hasManyPending() const;
    int appendBatch(Batch* batch) SX_REQUIRES(changing);
    void settle(Batch* batch);
    void putBack(Batch* batch);
    void reuseFreed();
    int syncInTurn() SX_REQUIRES(changing);
    int syncBatch(Batch* batch) SX_REQUIRES(changing);
    int appendRecords(const Record* records, size_t n) SX_REQUIRES(changing);
    int compact() SX_REQUIRES(changing);
    void requireInPlace() SX_REQUIRES(changing);
    void openNext() SX_REQUIRES(changing);
    void replaceIndex(uint64 end) SX_REQUIRES(changing);
    template<class Append>
    void copyLatest(Append&& append) SX_REQUIRES(changing);
    int writeHeader(const DriveFile& file) const;
    void note(const SxString& text);
    int fail(const SxString& what, int error);
    template<class Visit>
    void forEachBlock(const Target& target, Visit&& visit);
    uint64 copyOut(const Target& target);
    void writeIndex(const Target& target) SX_REQUIRES(changing);
    void freeMoved(const Target& target);

    const ImageFolder folder;
    BlockMap* const map;
    const LayerIdentity identity;
    SxString notice;
    const bool readOnly;
    std::atomic<bool> dirty{false};
    std::atomic<int> publishedFd{-1}, failedError{0};
    std::atomic<uint64> moves{0};
    std::atomic<uint64> nLookedAt{0}; ///< blocks and records, to move them or write them anew

    /// Held by whatever makes files or changes `img.tix`, over its I/O, and taken before `mutex`: records
    /// go to the end of a file one batch after the other. Readers don't take it, nor do writers, but for
    /// those that find no files or too many records in memory.
    SxMutex changing;
    DriveFile tmp, tix, nextTix; ///< `nextTix`: an index that is being written anew
    bool namesPending SX_GUARDED_BY(changing) = false;
    bool isFormer SX_GUARDED_BY(changing) = false;         ///< the index is of a format without discards
    uint64 tixBegin SX_GUARDED_BY(changing) = HEADER_SIZE; ///< where the records begin
    uint64 tixEnd SX_GUARDED_BY(changing) = 0;             ///< bytes that are written
    uint64 tixReserved SX_GUARDED_BY(changing) = 0;        ///< bytes of the index that have room on the disk
    uint64 compactAt SX_GUARDED_BY(changing) = 0; ///< bytes of the index from which on it is written anew

    /// Held over the giving back of room, so that a slot that is about to become a hole is given to nobody.
    SxMutex giving;
    bool isGivingOver SX_GUARDED_BY(giving) = false;
    mutable SxMutex mutex;
    std::vector<Record> pending SX_GUARDED_BY(mutex);     ///< of written blocks, not in `img.tix` yet
    uint64 nRecords SX_GUARDED_BY(mutex) = 0;             ///< ever made, up to the last of `pending`
    std::vector<SlotIdx> freeSlots SX_GUARDED_BY(mutex);  ///< without room on the disk
    std::vector<SlotIdx> unused SX_GUARDED_BY(mutex);     ///< the same, but for their room
    std::vector<SlotIdx> reserved SX_GUARDED_BY(mutex);   ///< that have room on the disk, for when it is full
    std::vector<Freed> freedPending SX_GUARDED_BY(mutex); ///< whose records aren't in `img.tix` yet
    std::vector<Freed> freedSynced SX_GUARDED_BY(mutex);  ///< which a writer may still be writing to
    /// Writers are counted by the epoch in which they began; the epoch rises when none of the one before is
    /// left. So a writer that saw a slot in use has ended two epochs later.
    uint64 epoch SX_GUARDED_BY(mutex) = 0;
    uint64 nWriters[2] SX_GUARDED_BY(mutex) = {};
    uint64 nSlots SX_GUARDED_BY(mutex) = 0; ///< ever given out
    SxString failure SX_GUARDED_BY(mutex);
};
