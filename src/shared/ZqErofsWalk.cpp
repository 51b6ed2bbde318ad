#include "ZqErofsWalk.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqErofsFormat.h"

#include <algorithm>

using namespace ZqErofsFormat;

namespace {

constexpr const char* UNIT = "src/shared/ZqErofsWalk";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
/// Those that show in the layout of each file, or don't matter here. Others may change how all is read.
constexpr uint64 KNOWN_FEATURES = 0x7F;

} // namespace

bool ZqErofsWalk::isThat(ZqDriveReader* reader) {
    return reader->getSize() >= SUPERBLOCK + SUPERBLOCK_SIZE &&
           number(reader->read(SUPERBLOCK, SUPERBLOCK_SIZE), 0, 4) == MAGIC;
}

ZqErofsWalk::ZqErofsWalk(ZqDriveReader* reader_) : ZqDriveWalk(reader_) {
    const SxString& name = reader->getName();
    const std::string super = isThat(reader) ? reader->read(SUPERBLOCK, SUPERBLOCK_SIZE) : std::string();
    if (super.empty() || number(super, SB_BLOCK_BITS, 1) != BLOCK_BITS) {
        throw SxException("'" + name + "' holds no EROFS with blocks of 4096 bytes", UNIT, __LINE__);
    }
    if (number(super, SB_INCOMPAT, 4) & ~KNOWN_FEATURES) {
        throw SxException("'" + name + "' holds an EROFS with features that aren't known", UNIT, __LINE__);
    }
    inodes = number(super, SB_INODES_BLOCK, 4) * BLOCK;
    setRoot(number(super, SB_ROOT, 2));
}

uint64 ZqErofsWalk::Inode::getTail() const {
    return isInline ? size % BLOCK : 0;
}

std::string ZqErofsWalk::readCore(uint64 inode) const {
    if (inode > reader->getSize() / NID_UNIT) {
        throw damage("inode " + SxString(inode) + " lies beyond it", __LINE__);
    }
    const uint64 at = inodes + inode * NID_UNIT;
    std::string core = reader->read(at, COMPACT_SIZE);
    if (number(core, INODE_FORMAT, 2) & FORMAT_EXTENDED)
        core += reader->read(at + COMPACT_SIZE, EXTENDED_SIZE - COMPACT_SIZE);
    return core;
}

ZqErofsWalk::Inode ZqErofsWalk::interpret(uint64 inode, std::string core, uint64 type) const {
    const uint64 format = number(core, INODE_FORMAT, 2), layout = format >> 1;
    const bool isExtended = format & FORMAT_EXTENDED;
    Inode found;
    found.mode = number(core, INODE_MODE, 2);
    found.size = number(core, INODE_BYTES, isExtended ? 8 : 4);
    found.firstRaw = number(core, INODE_DATA, 4);
    found.nXattrs = number(core, INODE_N_XATTRS, 2);
    found.begin = inodes + inode * NID_UNIT;
    found.end = found.begin + core.size() + (found.nXattrs == 0 ? 0 : 12 + (found.nXattrs - 1) * 4);
    found.core = std::move(core);
    if ((found.mode & MODE_TYPE) != type) {
        throw damage("inode " + SxString(inode) + " isn't what its folder says", __LINE__);
    }
    if (layout != Plain && layout != Inline) {
        throw SxException("'" + reader->getName() + "': inode " + inode +
                              " is stored in a way that isn't known",
                          UNIT, __LINE__);
    }
    found.isInline = layout == Inline;
    // The kernel would look for all of the last block there.
    if (found.isInline && found.size != 0 && found.getTail() == 0) {
        throw damage("inode " + SxString(inode) + " has a whole block for the part of one", __LINE__);
    }
    found.nBlocks = found.size / BLOCK + (!found.isInline && found.size % BLOCK != 0 ? 1 : 0);
    if (found.nBlocks > 0) requireBlocks(found.firstRaw, found.nBlocks);
    return found;
}

void ZqErofsWalk::readFile(uint64 inode, File* file) {
    const Inode found = readInode(inode, MODE_FILE);
    file->size = found.size;
    takeBlocks(found.nBlocks);
    append(&file->extents, {found.firstRaw, found.nBlocks});
}

void ZqErofsWalk::listFolder(uint64 inode) {
    const Inode folder = readInode(inode, MODE_DIR);
    takeBlocks(folder.nBlocks);
    std::string last;
    const auto addAll = [&](const std::string& block) {
        listBlock(block, [&](const Entry& entry) {
            if (entry.name != "." && entry.name != "..") add(entry.inode, kindOf(entry.type), entry.name);
            // The kernel searches by halves. So each name is there once, and is found.
            if (entry.name <= last) throw damage("the names of a folder aren't in their order", __LINE__);
            last = entry.name;
        });
    };
    for (uint64 i = 0; i < folder.nBlocks; ++i)
        addAll(readBlock(folder, i));
    if (folder.getTail() != 0) addAll(reader->read(folder.end, folder.getTail()));
}

std::string ZqErofsWalk::readBlock(const Inode& inode, uint64 index) const {
    return reader->read((inode.firstRaw + index) * BLOCK, std::min(BLOCK, inode.size - index * BLOCK));
}

void ZqErofsWalk::listBlock(const std::string& block, const std::function<void(const Entry&)>& visit) const {
    const uint64 namesAt = block.size() < DIRENT ? 0 : number(block, DIRENT_NAME, 2), n = namesAt / DIRENT;
    if (n == 0 || namesAt % DIRENT != 0 || namesAt > block.size()) {
        throw damage("a folder isn't one", __LINE__);
    }
    for (uint64 i = 0; i < n; ++i) {
        const size_t at = i * DIRENT;
        const uint64 from = number(block, at + DIRENT_NAME, 2);
        const uint64 to = i + 1 < n ? number(block, at + DIRENT + DIRENT_NAME, 2) : block.size();
        if (from < namesAt || from > to || to > block.size()) {
            throw damage("a folder's names overlap", __LINE__);
        }
        std::string_view name(block.data() + from, to - from);
        // The last one ends at a NUL where there is room for it.
        if (i + 1 == n) name = name.substr(0, name.find('\0'));
        if (name.size() > MAX_NAME) {
            throw damage("a name has " + SxString(name.size()) + " bytes", __LINE__);
        }
        visit({at, number(block, at, 8), number(block, at + DIRENT_TYPE, 1), name});
    }
}
