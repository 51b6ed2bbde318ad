#pragma once

#include "BlockMap.h"
#include "DriveFailure.h"
#include "ImageFolder.h"
#include "LayerIdentity.h"
#include "LayerRecord.h"

#include <functional>
#include <vector>

/// The index of a write layer on the disk, `img.tix`: records of which block has which slot, appended in the
/// order in which they count. It is written anew, as `img.tix.new`, which takes its place, where too many of
/// its records are replaced by later ones. That is done only while it has its name in the folder.
///
/// For one thread at a time, but for getProgress(). What gives an errno value gives 0 where it is done. Any
/// but a full disk stops the layer (see DriveFailure) where nobody knows what the file holds.
class LayerIndex {
public:
    /// `map`: its slots are those of this index.
    LayerIndex(const ImageFolder& folder_, const LayerIdentity& identity_, BlockMap* map_, bool readOnly_,
               DriveFailure* failure_);

    /// Opens the index; false where there is none. Raises.
    bool open();
    /// Takes over the records up to the first that isn't whole: what comes after that was never synced. Puts
    /// their slots over the map, and gives which are in use, of `nSlots` that `img.tmp` is long enough for.
    /// Where it may be written, what doesn't count is cut off. Raises, naming the file and the fault, where
    /// it is damaged or belongs to another image, or another version.
    std::vector<bool> load(uint64 nSlots);
    /// What doesn't count of it; empty where nothing.
    const SxString& getNotice() const { return notice; }
    /// Makes an empty one. Raises.
    void create();
    void close() { file.close(); }
    /// Whether nothing was written to it yet.
    bool isEmpty() const { return end == 0; }

    /// Brings the names of the layer's files to the disk, where these are new.
    int syncNewNames();
    /// Appends records, durably. Their slots must be durable before.
    int append(const LayerRecord* records, size_t n);
    /// Writes the index anew where it has become large. Where that fails the old one stays in its place, and
    /// nothing is lost but room.
    void compactIfLarge();
    /// Allocates room for some records.
    int reserve();

    using Append = std::function<void(const LayerRecord& record)>;
    /// Gives each record of an index.
    using Fill = std::function<void(const Append& append)>;
    /// Replaces the index by one of these records, durably. Raises.
    void replace(const Fill& fill);

    /// Grows while it is synced or written anew.
    uint64 getProgress() const { return file.getProgress() + next.getProgress() + nLookedAt.load(); }
    /// The failure of an operation on the layer, in words, to be raised.
    [[noreturn]] void raise(const SxString& what, int error, int line) const;

private:
    static constexpr uint64 HEADER_SIZE = 2 * sizeof(LayerRecord);
    /// What load() has found.
    struct Found {
        std::vector<bool> used;    ///< by slot
        std::vector<bool> hasHome; ///< by RAW index: a block of the layer that the image has, too
    };

    uint64 readHeader(uint64 size);
    uint64 readIdentity(uint64 size) const;
    void readAll(void* to, uint64 n, uint64 offset) const;
    uint64 readRecords(uint64 at, uint64 size, Found* found);
    void adopt(RawIdx rawIdx, SlotIdx slot, Found* found);
    uint64 countLive(const Found& found) const;
    void makeDurable();
    int syncNames();
    int writeHeader(const DriveFile& to) const;
    void requireInPlace() const;
    int writeNext(const Fill& fill, uint64* endOfNext);
    void replaceByNext(uint64 endOfNext);
    void copyLatest(const Append& append);
    int compact();

    const ImageFolder& folder;
    const LayerIdentity identity;
    BlockMap* const map;
    const bool readOnly;
    DriveFailure* const failure;
    SxString notice;

    DriveFile file, next; ///< `next`: an index that is being written anew
    bool namesPending = false;
    bool isFormer = false;            ///< the index is of a format without discards
    uint64 begin = HEADER_SIZE;       ///< byte at which the records begin
    uint64 end = 0;                   ///< bytes that are written
    uint64 nReserved = 0;             ///< bytes of the index that have room on the disk
    uint64 compactAt = 0;             ///< bytes of the index from which on it is written anew
    std::atomic<uint64> nLookedAt{0}; ///< records, to write them anew
};
