#include "ZqErofsWalk.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqErofsWalk";
constexpr uint64 BLOCK = ZqBlocks::SIZE, BLOCK_BITS = 12;
constexpr uint64 SUPERBLOCK = 1024, SUPERBLOCK_SIZE = 128;
constexpr uint64 MAGIC = 0xE0F5E1E2;
/// Those that show in the layout of each file, or don't matter here. Others may change how all is read.
constexpr uint64 KNOWN_FEATURES = 0x7F;
constexpr uint64 NID_UNIT = 32; ///< bytes that inode numbers count
constexpr uint64 DIRENT = 12;   ///< bytes
enum Layout : uint64 { Plain = 0, Inline = 2 };

} // namespace

bool ZqErofsWalk::isThat(ZqDriveReader* reader) {
    return reader->getSize() >= SUPERBLOCK + SUPERBLOCK_SIZE &&
           number(reader->read(SUPERBLOCK, SUPERBLOCK_SIZE), 0, 4) == MAGIC;
}

ZqErofsWalk::ZqErofsWalk(ZqDriveReader* reader_) : ZqDriveWalk(reader_) {
    const SxString& name = reader->getName();
    const std::string super = isThat(reader) ? reader->read(SUPERBLOCK, SUPERBLOCK_SIZE) : std::string();
    if (super.empty() || number(super, 12, 1) != BLOCK_BITS) {
        throw SxException("'" + name + "' holds no EROFS with blocks of 4096 bytes", UNIT, __LINE__);
    }
    if (number(super, 80, 4) & ~KNOWN_FEATURES) {
        throw SxException("'" + name + "' holds an EROFS with features that aren't known", UNIT, __LINE__);
    }
    inodes = number(super, 40, 4) * BLOCK;
    setRoot(number(super, 14, 2));
}

ZqErofsWalk::Inode ZqErofsWalk::readInode(uint64 inode, uint64 type) const {
    if (inode > reader->getSize() / NID_UNIT) {
        throw damage("inode " + SxString(inode) + " lies beyond it", __LINE__);
    }
    const uint64 at = inodes + inode * NID_UNIT;
    const std::string bytes = reader->read(at, NID_UNIT);
    const uint64 format = number(bytes, 0, 2), nXattrs = number(bytes, 2, 2);
    const bool extended = format & 1;
    const uint64 xattrBytes = nXattrs == 0 ? 0 : 12 + (nXattrs - 1) * 4;
    const Inode found{number(bytes, 4, 2) & MODE_TYPE, number(bytes, 8, extended ? 8 : 4), format >> 1 & 7,
                      number(bytes, 16, 4), at + (extended ? 64 : 32) + xattrBytes};
    if (found.mode != type) {
        throw damage("inode " + SxString(inode) + " isn't what its folder says", __LINE__);
    }
    if (found.layout != Plain && found.layout != Inline) {
        throw SxException("'" + reader->getName() + "': inode " + inode +
                              " is stored in a way that isn't known",
                          UNIT, __LINE__);
    }
    return found;
}

void ZqErofsWalk::readFile(uint64 inode, File* file) {
    const Inode found = readInode(inode, MODE_FILE);
    file->size = found.size;
    const uint64 count = found.size / BLOCK + (found.layout == Plain && found.size % BLOCK != 0 ? 1 : 0);
    if (count == 0) return;
    takeBlocks(found.firstRaw, count);
    append(&file->extents, {found.firstRaw, count});
}

void ZqErofsWalk::listFolder(uint64 inode) {
    const Inode folder = readInode(inode, MODE_DIR);
    const uint64 whole = folder.size / BLOCK, rest = folder.size % BLOCK;
    const bool isTailInside = folder.layout == Inline && rest != 0;
    const uint64 count = whole + (rest != 0 && !isTailInside ? 1 : 0);
    if (count > 0) takeBlocks(folder.firstRaw, count);
    for (uint64 i = 0; i < count; ++i) {
        const uint64 n = std::min(BLOCK, folder.size - i * BLOCK);
        listBlock(reader->read((folder.firstRaw + i) * BLOCK, n));
    }
    if (isTailInside) listBlock(reader->read(folder.end, rest));
}

void ZqErofsWalk::listBlock(const std::string& block) {
    const uint64 namesAt = block.size() < DIRENT ? 0 : number(block, 8, 2), n = namesAt / DIRENT;
    if (n == 0 || namesAt % DIRENT != 0 || namesAt > block.size()) {
        throw damage("a folder isn't one", __LINE__);
    }
    for (uint64 i = 0; i < n; ++i) {
        const uint64 from = number(block, i * DIRENT + 8, 2);
        const uint64 to = i + 1 < n ? number(block, (i + 1) * DIRENT + 8, 2) : block.size();
        if (from < namesAt || from > to || to > block.size()) {
            throw damage("a folder's names overlap", __LINE__);
        }
        std::string_view name(block.data() + from, to - from);
        // The last one ends at a NUL where there is room for it.
        if (i + 1 == n) name = name.substr(0, name.find('\0'));
        if (name == "." || name == "..") continue;
        const uint64 type = number(block, i * DIRENT + 10, 1);
        add(number(block, i * DIRENT, 8), kindOf(type), name);
    }
}
