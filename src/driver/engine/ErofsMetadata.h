#pragma once

#include "BlockMap.h"
#include "SxIndexSet.h"
#include "ZqErofsFormat.h"
#include "ZqErofsWalk.h"

#include <array>
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
/// symbolic links, no byte that belongs to two of them. The image may change meanwhile: an inode is read
/// once, and what is read twice, folders and links, is checked twice. It calls nothing of the system. One
/// thread.
///
/// Memory: some 200 bytes for each file and its name, at most some 400 MB; a bit for each block, and less
/// than a MiB beside that.
class ErofsMetadata {
public:
    /// Finds out all that write() needs. `reader`: the RAW image; `map`: where its blocks are, none in a
    /// write layer. Both outlive this. `nStored`: whole blocks of `img.zqf`. Raises where the image isn't one
    /// that is taken, with the reason as a sentence that names the reader.
    ErofsMetadata(ZqDriveReader* reader, const BlockMap& map, uint64 nStored);

    /// Takes bytes in their order, none left out.
    using Sink = std::function<void(const std::string& bytes)>;
    /// Writes the file system of metadata. Raises where a folder or link has become one that isn't taken, and
    /// what the sink raises.
    void write(const Sink& sink);

    /// Bytes that write() writes.
    uint64 getSize() const { return nBlocks * ZqBlocks::SIZE; }
    /// Of all files: blocks, and chunks that they are made of.
    uint64 getNFileBlocks() const { return nFileBlocks; }
    uint64 getNChunks() const { return nChunks; }

private:
    using Inode = ZqErofsWalk::Inode;
    using Entry = ZqErofsWalk::Entry;
    /// As it was read, and where it goes.
    struct Item {
        uint64 inode;                ///< its number in the image
        uint64 parent = 0;           ///< of a folder: its parent's number in the image
        uint64 offset = 0;           ///< in the metadata, bytes
        uint32 firstBlock = 0;       ///< of a folder or link: its whole blocks in the metadata
        uint32 type = 0;             ///< as in the inode's mode
        unsigned char chunkBits = 0; ///< of a file: blocks of a chunk, as a power of two
        unsigned char coreSize = 0;
        std::array<char, ZqErofsFormat::EXTENDED_SIZE> core = {};

        uint64 countChunks(const Inode& of) const;
    };
    class Output;

    void check();
    void collect();
    Inode inodeOf(const Item& item) const;
    void examine(Item* item);
    void requireKnown(const Inode& inode, const SxString& name) const;
    void takeRoom(const Inode& inode, const SxString& name);
    void examineContent(const Item& item) const;
    void requireTarget(const Item& link, const std::string& target) const;
    unsigned char findChunkBits(const Inode& inode) const;
    bool isRun(uint64 rawIdx) const;
    uint64 storedAt(uint64 rawIdx) const;
    std::vector<size_t> order() const;
    void place();
    const Item& find(uint64 inode) const;
    void putSuperblock(Output* out) const;
    void putInode(const Item& item, Output* out) const;
    void putChunks(const Item& item, const Inode& inode, Output* out) const;
    void putBlocks(const Item& item, Output* out) const;
    void visitEntries(const Item& folder, const std::string& block,
                      const std::function<void(const Entry&, const Item&)>& visit) const;
    std::string contentOf(const Item& item, std::string block) const;
    SxException refusal(const SxString& why, int line) const;

    ZqDriveReader* const reader;
    const BlockMap& map;
    const uint64 nStored;
    ZqErofsWalk walk;
    const std::string super;
    std::vector<Item> items; ///< sorted by inode
    SxIndexSet owned;        ///< RAW blocks that belong to an item
    uint64 inodesEnd = 0;    ///< offset of the first byte after the inodes that were examined
    uint64 nFileBlocks = 0, nChunks = 0, nBlocks = 0;
};
