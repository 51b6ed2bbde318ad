#pragma once

#include "ZqDriveWalk.h"

/// The walk of an EROFS that isn't compressed and has all its blocks, of 4096 bytes, on one device.
class ZqErofsWalk : public ZqDriveWalk {
public:
    /// The core of an inode, and what it says.
    struct Inode {
        std::string core; ///< its 32 or 64 bytes
        uint64 mode = 0;  ///< with its type
        uint64 size = 0;  ///< bytes
        bool isInline = false;
        uint64 firstRaw = 0; ///< of its whole blocks
        uint64 nBlocks = 0;  ///< of those
        uint64 begin = 0;    ///< offset of the core
        uint64 end = 0;      ///< offset of the first byte after the inode
        uint64 nXattrs = 0;

        /// Bytes that follow the inode.
        uint64 getTail() const;
    };

    /// Whether a drive begins as an EROFS does.
    static bool isThat(ZqDriveReader* reader);
    /// `reader` outlives this. Raises where it is no such file system.
    explicit ZqErofsWalk(ZqDriveReader* reader);

    /// The 32 or 64 bytes of an inode. Raises where it lies beyond the drive.
    std::string readCore(uint64 inode) const;
    /// What the core of an inode says. Raises where it isn't of that type, has blocks
    /// beyond the drive, or is stored in a way that isn't known.
    Inode interpret(uint64 inode, std::string core, uint64 type) const;
    Inode readInode(uint64 inode, uint64 type) const { return interpret(inode, readCore(inode), type); }
    /// One of the `nBlocks` of a folder or link, as long as its content goes.
    std::string readBlock(const Inode& inode, uint64 index) const;
    /// A name in a block of a folder.
    struct Entry {
        size_t at; ///< offset in the block; the inode's number comes first
        uint64 inode, type;
        std::string_view name;
    };
    /// Raises where the block isn't one of a folder.
    void listBlock(const std::string& block, const std::function<void(const Entry&)>& visit) const;

protected:
    void listFolder(uint64 inode) override;
    void readFile(uint64 inode, File* file) override;

private:
    uint64 inodes = 0; ///< offset of inode number 0
};
