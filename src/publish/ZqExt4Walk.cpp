#include "ZqExt4Walk.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqExt4Walk";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 SUPERBLOCK = 1024, SUPERBLOCK_SIZE = 1024;
constexpr uint64 MAGIC = 0xEF53, EXTENTS_MAGIC = 0xF30A;
constexpr uint64 LOG_BLOCK = 2; ///< of 4096 bytes, as the superblock has it
/// Types in folders, extents, groups that share their tables. With others all lies elsewhere, or is yet to be
/// taken from the journal.
constexpr uint64 FEATURES = 0x2 | 0x40 | 0x200;
constexpr uint64 DESCRIPTOR = 32; ///< bytes
constexpr uint64 ROOT = 2;        ///< the root folder's inode number
constexpr uint64 DIRENT = 8;      ///< bytes in front of the name
constexpr uint64 NODE = 12;       ///< bytes of a node's header, and of each of its entries
constexpr uint64 MAX_DEPTH = 5;
constexpr uint64 MAX_WRITTEN = 32768; ///< blocks; what is above tells room without content

} // namespace

bool ZqExt4Walk::isThat(ZqDriveReader* reader) {
    return reader->getSize() >= SUPERBLOCK + SUPERBLOCK_SIZE &&
           number(reader->read(SUPERBLOCK, SUPERBLOCK_SIZE), 0x38, 2) == MAGIC;
}

ZqExt4Walk::ZqExt4Walk(ZqDriveReader* reader_) : ZqDriveWalk(reader_) {
    const SxString& name = reader->getName();
    const std::string super = isThat(reader) ? reader->read(SUPERBLOCK, SUPERBLOCK_SIZE) : std::string();
    if (super.empty() || number(super, 0x18, 4) != LOG_BLOCK || number(super, 0x58, 2) != INODE_SIZE) {
        throw SxException("'" + name + "' holds no ext4 with blocks of 4096 bytes", UNIT, __LINE__);
    }
    if (number(super, 0x60, 4) != FEATURES) {
        throw SxException("'" + name + "' holds an ext4 with other features than those that are known", UNIT,
                          __LINE__);
    }
    nInodes = number(super, 0, 4);
    inodesPerGroup = number(super, 0x28, 4);
    if (inodesPerGroup == 0) throw damage("its groups have no inodes", __LINE__);
    setRoot(ROOT);
    named.push_back(ROOT);
}

std::vector<uint64> ZqExt4Walk::getInodes() const {
    std::vector<uint64> inodes = named;
    // A second name of a file is one of the same inode.
    std::sort(inodes.begin(), inodes.end());
    inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
    return inodes;
}

std::string ZqExt4Walk::readInode(uint64 inode, uint64 type) {
    if (inode == 0 || inode > nInodes) {
        throw damage("inode " + SxString(inode) + " isn't among its " + nInodes, __LINE__);
    }
    const uint64 group = (inode - 1) / inodesPerGroup, inGroup = (inode - 1) % inodesPerGroup;
    if (group != lastGroup) {
        lastTable = number(reader->read(BLOCK + group * DESCRIPTOR + 8, 4), 0, 4);
        lastGroup = group;
    }
    std::string found = reader->read(lastTable * BLOCK + inGroup * INODE_SIZE, INODE_SIZE);
    if ((number(found, 0, 2) & MODE_TYPE) != type) {
        throw damage("inode " + SxString(inode) + " isn't what its folder says", __LINE__);
    }
    return found;
}

/// `node` is the tree's root in an inode, or a block.
void ZqExt4Walk::readExtents(const std::string& node, uint64 depth, std::vector<Extent>* extents) {
    const uint64 n = number(node, 2, 2);
    if (number(node, 0, 2) != EXTENTS_MAGIC || NODE + n * NODE > node.size() || depth > MAX_DEPTH ||
        number(node, 6, 2) != depth) {
        throw damage("a tree of extents isn't one", __LINE__);
    }
    for (uint64 i = 0; i < n; ++i) {
        const size_t at = NODE + i * NODE;
        if (depth > 0) {
            const uint64 block = number(node, at + 8, 2) << 32 | number(node, at + 4, 4);
            requireBlocks(block, 1);
            takeBlocks(1);
            readExtents(reader->read(block * BLOCK, BLOCK), depth - 1, extents);
            continue;
        }
        const uint64 first = number(node, at + 6, 2) << 32 | number(node, at + 8, 4);
        uint64 count = number(node, at + 4, 2);
        if (count > MAX_WRITTEN) count -= MAX_WRITTEN;
        requireBlocks(first, count);
        takeBlocks(count);
        append(extents, {first, count});
    }
}

void ZqExt4Walk::readFile(uint64 inode, File* file) {
    const std::string found = readInode(inode, MODE_FILE);
    file->size = number(found, 0x6C, 4) << 32 | number(found, 4, 4);
    const std::string root = found.substr(0x28, 60);
    readExtents(root, number(root, 6, 2), &file->extents);
}

void ZqExt4Walk::listFolder(uint64 inode) {
    const std::string root = readInode(inode, MODE_DIR).substr(0x28, 60);
    std::vector<Extent> extents;
    readExtents(root, number(root, 6, 2), &extents);
    for (const Extent& extent : extents) {
        for (uint64 i = 0; i < extent.count; ++i)
            listBlock(reader->read((extent.first + i) * BLOCK, BLOCK));
    }
}

void ZqExt4Walk::listBlock(const std::string& block) {
    for (uint64 at = 0; at < BLOCK;) {
        const uint64 left = BLOCK - at;
        const uint64 length = left < DIRENT ? 0 : number(block, at + 4, 2);
        const uint64 nName = left < DIRENT ? 0 : number(block, at + 6, 1);
        if (length < DIRENT + nName || length > left) throw damage("a folder isn't one", __LINE__);
        const uint64 inode = number(block, at, 4), type = number(block, at + 7, 1);
        const std::string_view name(block.data() + at + DIRENT, nName);
        at += length;
        if (inode == 0 || name == "." || name == "..") continue;
        named.push_back(inode);
        add(inode, kindOf(type), name);
    }
}
