#pragma once

#include "SxTypes.h"

#include <cstddef>

/// EROFS as the kernel has it on the disk: offsets and sizes in bytes, numbers with their least byte first.
/// Only what is read or written here.
namespace ZqErofsFormat {

constexpr uint64 BLOCK_BITS = 12;

// The superblock.
constexpr uint64 SUPERBLOCK = 1024, SUPERBLOCK_SIZE = 128;
constexpr uint64 MAGIC = 0xE0F5E1E2;
constexpr size_t SB_MAGIC = 0, SB_CHECKSUM = 4, SB_COMPAT = 8, SB_BLOCK_BITS = 12, SB_EXT_SLOTS = 13,
                 SB_ROOT = 14;
constexpr size_t SB_N_INODES = 16, SB_SECONDS = 24, SB_NANOSECONDS = 32, SB_N_BLOCKS = 36;
constexpr size_t SB_INODES_BLOCK = 40, SB_UUID = 48, SB_INCOMPAT = 80, SB_N_DEVICES = 86;
constexpr size_t SB_DEVICE_SLOT = 88, SB_FOLDER_BITS = 90;
constexpr size_t UUID_SIZE = 16;
/// The checksum is a CRC-32C, not inverted at its end, of all from the superblock to the end of its block,
/// with zeros in its own place.
constexpr uint64 COMPAT_CHECKSUM = 0x1, COMPAT_MTIME = 0x2;
constexpr uint64 INCOMPAT_CHUNKS = 0x4, INCOMPAT_DEVICES = 0x8;

// A slot for each further device; SB_DEVICE_SLOT counts in slots.
constexpr uint64 DEVICE_SIZE = 128;
constexpr size_t DEVICE_N_BLOCKS = 64;

// Inodes. Their numbers count in units of bytes from the first block of inodes on.
constexpr uint64 NID_UNIT = 32;
constexpr uint64 COMPACT_SIZE = 32, EXTENDED_SIZE = 64;
constexpr size_t INODE_FORMAT = 0, INODE_N_XATTRS = 2, INODE_MODE = 4, INODE_BYTES = 8, INODE_DATA = 16;
constexpr uint64 FORMAT_EXTENDED = 1;
// Of a compact inode: how many names it has, 2 bytes.
constexpr size_t COMPACT_N_LINKS = 6;
// Of an extended inode: nanoseconds of its time, and how many names it has, 4 bytes each.
constexpr size_t EXTENDED_NANOSECONDS = 40, EXTENDED_N_LINKS = 44;
/// Bytes of an inode that mean nothing, or something to later kernels alone.
struct Unused {
    size_t at, n;
};
constexpr Unused COMPACT_UNUSED[] = {{28, 4}}, EXTENDED_UNUSED[] = {{6, 2}, {48, 16}};
/// In the format, above its lowest bit. Inline: the part of the last block follows the inode.
enum Layout : uint64 { Plain = 0, Inline = 2, Chunks = 4 };

// Chunks: INODE_DATA tells how many blocks one has, as a power of two, and that each has an index of these
// bytes, which follow the inode.
constexpr uint64 CHUNK_BITS = 0x1F, CHUNK_INDICES = 0x20;
constexpr uint64 CHUNK_INDEX = 8;
constexpr size_t CHUNK_DEVICE = 2, CHUNK_BLOCK = 4; ///< in an index; device 0 is the first one
constexpr uint64 HOLE = 0xFFFFFFFF;

// Folders: for each name one of these, and all names after that. A name ends where the next one begins.
constexpr uint64 DIRENT = 12;
constexpr size_t DIRENT_NAME = 8, DIRENT_TYPE = 10;
constexpr uint64 TYPE_FILE = 1, TYPE_DIR = 2, TYPE_LINK = 7;
constexpr uint64 MAX_NAME = 255; ///< bytes

} // namespace ZqErofsFormat
