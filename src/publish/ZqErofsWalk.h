#pragma once

#include "ZqDriveWalk.h"

/// The walk of an EROFS that isn't compressed and has all its blocks, of 4096 bytes, on one device.
class ZqErofsWalk : public ZqDriveWalk {
public:
    /// Whether a drive begins as an EROFS does.
    static bool isThat(ZqDriveReader* reader);
    /// `reader` outlives this. Raises where it is no such file system.
    explicit ZqErofsWalk(ZqDriveReader* reader);

protected:
    void listFolder(uint64 inode) override;
    void readFile(uint64 inode, File* file) override;

private:
    struct Inode {
        uint64 mode, size, layout, firstRaw;
        uint64 end; ///< offset of the first byte after it
    };

    Inode readInode(uint64 inode, uint64 type) const;
    void listBlock(const std::string& block);

    uint64 inodes = 0; ///< offset of inode number 0
};
