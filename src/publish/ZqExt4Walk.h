#pragma once

#include "ZqDriveWalk.h"

/// The walk of an ext4 with the features that ZqExt4Maker gives it, and no changes in its journal.
class ZqExt4Walk : public ZqDriveWalk {
public:
    static constexpr uint64 INODE_SIZE = 256; ///< bytes

    /// Whether a drive begins as an ext2, ext3 or ext4 does.
    static bool isThat(ZqDriveReader* reader);
    /// `reader` outlives this. Raises where it is no such file system.
    explicit ZqExt4Walk(ZqDriveReader* reader);

    /// The numbers of all inodes that have a name, and of the root; sorted. To be called after findNames().
    std::vector<uint64> getInodes() const;

protected:
    void listFolder(uint64 inode) override;
    void readFile(uint64 inode, File* file) override;

private:
    std::string readInode(uint64 inode, uint64 type);
    void readExtents(const std::string& node, uint64 depth, std::vector<Extent>* extents);
    void listBlock(const std::string& block);

    uint64 nInodes = 0, inodesPerGroup = 0;
    uint64 lastGroup = ~uint64{0}, lastTable = 0; ///< the first block of its inodes
    std::vector<uint64> named;
};
