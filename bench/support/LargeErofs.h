#pragma once

#include "ZqBlocks.h"
#include "ZqErofsFormat.h"

#include <algorithm>
#include <string>

namespace bench {

/// The first blocks of a RAW image that is one folder of files of one size, whose blocks follow: the EROFS
/// that mkfs.erofs would make of it, without the content. So a drive of any size is there at once.
class LargeErofs {
public:
    /// `nRaw`: blocks of the drive; the files fill it, but for less than a block for each.
    LargeErofs(uint64 nRaw, uint64 nFiles_) : nFiles(nFiles_) {
        const uint64 nInodeBlocks = (INODES + (1 + nFiles) * INODE + BLOCK - 1) / BLOCK;
        const uint64 nFolderBlocks = (2 + nFiles + ENTRIES - 1) / ENTRIES;
        firstFolder = nInodeBlocks;
        firstFile = nInodeBlocks + nFolderBlocks;
        nFileBlocks = (nRaw - firstFile) / nFiles;
        bytes.assign(firstFile * BLOCK, '\0');
        putSuperblock(nRaw);
        putInode(0, 0x41ED, nFolderBlocks, firstFolder);
        for (uint64 i = 0; i < nFiles; ++i)
            putInode(1 + i, 0x81A4, nFileBlocks, firstFile + i * nFileBlocks);
        for (uint64 i = 0; i < nFolderBlocks; ++i)
            putFolderBlock(i * ENTRIES, std::min(ENTRIES, 2 + nFiles - i * ENTRIES),
                           (firstFolder + i) * BLOCK);
    }

    const std::string& getBytes() const { return bytes; } ///< whole blocks
    uint64 countFileBlocks() const { return nFiles * nFileBlocks; }

private:
    static constexpr uint64 BLOCK = ZqBlocks::SIZE, INODES = BLOCK, INODE = ZqErofsFormat::COMPACT_SIZE;
    static constexpr uint64 N_LINKS = 6, SERIAL = 20; ///< in an inode
    static constexpr uint64 NAME = 8;                 ///< bytes of a file's name
    static constexpr uint64 ENTRIES = BLOCK / (ZqErofsFormat::DIRENT + NAME);

    void put(uint64 at, size_t n, uint64 value) {
        for (size_t i = 0; i < n; ++i, value >>= 8)
            bytes.at(at + i) = static_cast<char>(value & 0xFF);
    }
    static uint64 numberOf(uint64 index) { return (INODES + index * INODE) / ZqErofsFormat::NID_UNIT; }

    void putSuperblock(uint64 nRaw) {
        using namespace ZqErofsFormat;
        put(SUPERBLOCK, 4, MAGIC);
        put(SUPERBLOCK + SB_BLOCK_BITS, 1, BLOCK_BITS);
        put(SUPERBLOCK + SB_ROOT, 2, numberOf(0));
        put(SUPERBLOCK + SB_N_INODES, 8, 1 + nFiles);
        put(SUPERBLOCK + SB_N_BLOCKS, 4, nRaw);
    }
    void putInode(uint64 index, uint64 mode, uint64 nBlocks, uint64 firstRaw) {
        using namespace ZqErofsFormat;
        const uint64 at = INODES + index * INODE;
        put(at + INODE_FORMAT, 2, Plain << 1);
        put(at + INODE_MODE, 2, mode);
        put(at + N_LINKS, 2, index == 0 ? 2 : 1);
        put(at + INODE_BYTES, 4, nBlocks * BLOCK);
        put(at + INODE_DATA, 4, firstRaw);
        put(at + SERIAL, 4, 1 + index);
    }
    /// `first`: place of its first name, with "." as 0 and ".." as 1.
    void putFolderBlock(uint64 first, uint64 n, uint64 at) {
        using namespace ZqErofsFormat;
        uint64 nameAt = n * DIRENT;
        for (uint64 i = 0; i < n; ++i) {
            const uint64 place = first + i;
            const bool isFile = place >= 2;
            const std::string digits = std::to_string(10'000'000 + place);
            const std::string name = isFile ? "f" + digits.substr(1) : std::string(place + 1, '.');
            put(at + i * DIRENT, 8, numberOf(isFile ? place - 1 : 0));
            put(at + i * DIRENT + DIRENT_NAME, 2, nameAt);
            put(at + i * DIRENT + DIRENT_TYPE, 1, isFile ? 1 : 2);
            bytes.replace(at + nameAt, name.size(), name);
            nameAt += name.size();
        }
    }

    const uint64 nFiles;
    uint64 firstFolder = 0, firstFile = 0; ///< RAW blocks
    uint64 nFileBlocks = 0;                ///< of one
    std::string bytes;
};

} // namespace bench
