#pragma once

#include "BlockMap.h"
#include "SxIndexSet.h"
#include "ZqErofsWalk.h"

#include <functional>
#include <vector>

/// The EROFS of an image, made anew for a kernel that reads the stored blocks itself: an EROFS of metadata
/// alone, whose files are made of chunks in `img.zqf`, its one further device. Folders, links, modes, times
/// and names stay as they are, and only the inodes' numbers change.
///
/// Each file gets the largest chunks for which every chunk is one run in `img.zqf`, or one hole. Blocks that
/// aren't included are holes.
///
/// What comes out goes to the kernel, so every number is checked, and only what ZqErofsMaker writes is taken:
/// no extended attributes, no compression, no content of files beside inodes, nothing but files, folders and
/// symbolic links, no block that belongs to two. It calls nothing of the system. One thread.
///
/// Memory: some 100 bytes for each file, and less than a MiB beside that.
class ErofsMetadata {
public:
    /// Finds out all that write() needs. `reader`: the RAW image; `map`: where its blocks are, none in a
    /// write layer. Both outlive this. `nStored`: blocks of `img.zqf`. Raises where the image isn't one that
    /// is taken, with the reason as a sentence that names the reader.
    ErofsMetadata(ZqDriveReader* reader, const BlockMap& map, uint64 nStored);

    /// Takes bytes in their order, none left out.
    using Sink = std::function<void(const std::string& bytes)>;
    /// Writes the file system of metadata. Raises as the constructor does, and what the sink raises.
    void write(const Sink& sink);

    /// Bytes that write() writes.
    uint64 getSize() const { return nBlocks * ZqBlocks::SIZE; }
    /// Of all files: blocks, and runs of them that lie side by side in `img.zqf`, or in a hole, and in one
    /// chunk.
    uint64 getNFileBlocks() const { return nFileBlocks; }
    uint64 getNChunks() const { return nChunks; }

private:
    using Inode = ZqErofsWalk::Inode;
    struct Item {
        uint64 inode;                ///< its number in the image
        uint64 offset = 0;           ///< in the metadata, bytes
        uint64 parent = 0;           ///< of a folder: its parent's number in the image
        uint32 firstBlock = 0;       ///< of a folder or link: its whole blocks in the metadata
        uint32 type = 0;             ///< as in the inode's mode
        unsigned char chunkBits = 0; ///< of a file: blocks of a chunk, as a power of two

        uint64 countChunks(const Inode& of) const;
    };
    class Output;

    void check();
    void collect();
    Inode readInode(const Item& item) const;
    void examine(Item* item, const Inode& inode);
    unsigned char findChunkBits(const Inode& inode) const;
    bool isRun(uint64 rawIdx) const;
    uint64 storedAt(uint64 rawIdx) const;
    std::vector<size_t> order() const;
    void place();
    const Item& find(uint64 inode) const;
    uint64 numberOf(const Item& item) const;
    void putSuperblock(Output* out) const;
    void putInode(const Item& item, Output* out) const;
    void putChunks(const Item& item, const Inode& inode, Output* out) const;
    std::string renumber(const Item& folder, const std::string& block) const;
    void putBlocks(const Item& item, Output* out) const;
    SxException refusal(const SxString& why, int line) const;

    ZqDriveReader* const reader;
    const BlockMap& map;
    const uint64 nStored;
    ZqErofsWalk walk;
    std::string super;
    std::vector<Item> items; ///< sorted by inode
    SxIndexSet owned;        ///< RAW blocks that belong to an item
    uint64 nFileBlocks = 0, nChunks = 0, nBlocks = 0;
};
