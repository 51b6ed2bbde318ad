#include "ErofsMetadata.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqErofsFormat.h"

#include <algorithm>
#include <bit>
#include <numeric>

using namespace ZqErofsFormat;

namespace {

constexpr const char* UNIT = "src/driver/ErofsMetadata";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
/// The first block is the superblock's, and inodes follow.
constexpr uint64 INODES = BLOCK;
/// The slot of the one device follows the superblock.
constexpr uint64 DEVICE = SUPERBLOCK + SUPERBLOCK_SIZE;
static_assert(DEVICE % DEVICE_SIZE == 0);
constexpr uint64 MAX_CHUNK_BITS = 18; ///< 1 GiB; the kernel takes more, and no file gains by it
constexpr uint64 MAX_LINK = 4096;     ///< bytes of a symbolic link's target
constexpr uint64 TYPE_LINK = 7;       ///< in a folder
constexpr uint64 PART = 1 << 18;      ///< bytes that are handed on together

uint64 number(const std::string& bytes, size_t at, size_t n) {
    return ZqDriveReader::number(bytes, at, n);
}

void put(std::string* bytes, size_t at, size_t n, uint64 value) {
    for (size_t i = 0; i < n; ++i, value >>= 8)
        bytes->at(at + i) = static_cast<char>(value & 0xFF);
}

uint64 alignUp(uint64 value, uint64 unit) {
    return (value + unit - 1) / unit * unit;
}

} // namespace

/// What was written so far, handed on in parts.
class ErofsMetadata::Output {
public:
    explicit Output(const Sink& sink_) : sink(sink_) {}

    uint64 getOffset() const { return offset + bytes.size(); }
    void put(const std::string& more) {
        bytes += more;
        if (bytes.size() >= PART) flush();
    }
    void fillUpTo(uint64 wanted) { put(std::string(wanted - getOffset(), '\0')); }
    void flush() {
        offset += bytes.size();
        sink(bytes);
        bytes.clear();
    }

private:
    const Sink& sink;
    uint64 offset = 0;
    std::string bytes;
};

ErofsMetadata::ErofsMetadata(ZqDriveReader* reader_, const BlockMap& map_, uint64 nStored_)
    : reader(reader_),
      map(map_),
      nStored(nStored_),
      walk(reader),
      super(reader->read(SUPERBLOCK, SUPERBLOCK_SIZE)),
      owned(static_cast<int64>(map.nRaw())) {
    check();
    walk.findNames();
    collect();
    for (Item& item : items)
        examine(&item, readInode(item));
    place();
}

SxException ErofsMetadata::refusal(const SxString& why, int line) const {
    return SxException("'" + reader->getName() + "' holds an EROFS that " + why, UNIT, line);
}

void ErofsMetadata::check() {
    if (number(super, SB_INCOMPAT, 4) != 0 || number(super, SB_EXT_SLOTS, 1) != 0 ||
        number(super, SB_N_DEVICES, 2) != 0 || number(super, SB_FOLDER_BITS, 1) != 0) {
        throw refusal("has features which the kernel isn't given by itself", __LINE__);
    }
    if (nStored >= HOLE) throw refusal("lies in more blocks than it can have", __LINE__);
}

/// Lists everything that has a name.
void ErofsMetadata::collect() {
    const auto& folders = walk.getFolders();
    const auto add = [this](uint64 inode, uint64 type, uint64 parent) {
        items.push_back({.inode = inode, .parent = parent, .type = static_cast<uint32>(type)});
    };
    for (const ZqDriveWalk::Folder& folder : folders)
        add(folder.inode, ZqDriveWalk::MODE_DIR, folders[folder.parent].inode);
    for (const uint64 inode : walk.getFiles())
        add(inode, ZqDriveWalk::MODE_FILE, 0);
    for (const uint64 inode : walk.getOthers())
        add(inode, ZqDriveWalk::MODE_LINK, 0);
    std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.inode < b.inode; });
    const auto twice = std::adjacent_find(items.begin(), items.end(),
                                          [](const Item& a, const Item& b) { return a.inode == b.inode; });
    if (twice != items.end())
        throw refusal("has inode " + SxString(twice->inode) + " as two kinds of things", __LINE__);
}

ErofsMetadata::Inode ErofsMetadata::readInode(const Item& item) const {
    return walk.readInode(item.inode, item.type);
}

/// Checks an inode, takes its blocks, and finds the chunks of a file.
void ErofsMetadata::examine(Item* item, const Inode& inode) {
    const SxString name = "inode " + SxString(item->inode);
    if (inode.nXattrs != 0) throw refusal("has extended attributes at " + name, __LINE__);
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        if (!owned.insert(inode.firstRaw + i)) {
            throw refusal("has RAW block " + SxString(inode.firstRaw + i) + " in " + name + " and elsewhere",
                          __LINE__);
        }
    }
    if (inode.getTail() != 0 && inode.end / BLOCK != (inode.end + inode.getTail() - 1) / BLOCK) {
        throw refusal("has content of " + name + " that crosses the end of a block", __LINE__);
    }
    if (item->type == ZqDriveWalk::MODE_LINK && (inode.size == 0 || inode.size > MAX_LINK)) {
        throw refusal("has a link without a target, " + name, __LINE__);
    }
    if (item->type != ZqDriveWalk::MODE_FILE) return;
    if (inode.getTail() != 0) throw refusal("has content of a file beside " + name, __LINE__);
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        const uint64 stored = storedAt(inode.firstRaw + i);
        if (stored == HOLE || stored < nStored) continue;
        throw SxException("'" + reader->getName() + "' ends before ZqF block " + stored, UNIT, __LINE__);
    }
    item->chunkBits = findChunkBits(inode);
    nFileBlocks += inode.nBlocks;
    nChunks += item->countChunks(inode);
}

/// Place of a block in `img.zqf`, or HOLE.
uint64 ErofsMetadata::storedAt(uint64 rawIdx) const {
    const BlockMap::Place at = map.get({rawIdx});
    return at.isNothing() ? HOLE : at.zqfIdx().value;
}

/// Whether the block lies beside the one before it, in `img.zqf` or in a hole.
bool ErofsMetadata::isRun(uint64 rawIdx) const {
    const uint64 before = storedAt(rawIdx - 1), at = storedAt(rawIdx);
    return before == HOLE ? at == HOLE : at == before + 1;
}

/// A chunk may begin wherever a run does: so its size divides the places of all of these.
unsigned char ErofsMetadata::findChunkBits(const Inode& inode) const {
    uint64 places = uint64{1} << MAX_CHUNK_BITS;
    for (uint64 i = 1; i < inode.nBlocks && (places & 1) == 0; ++i) {
        if (!isRun(inode.firstRaw + i)) places |= i;
    }
    return static_cast<unsigned char>(std::countr_zero(places));
}

uint64 ErofsMetadata::Item::countChunks(const Inode& of) const {
    return (of.nBlocks + (uint64{1} << chunkBits) - 1) >> chunkBits;
}

/// The places in `items` as they are written: by the numbers that the inodes had, so that those which stood
/// together still do, but for the root. That comes first, since the superblock has 16 bits for its number.
std::vector<size_t> ErofsMetadata::order() const {
    std::vector<size_t> places(items.size());
    std::iota(places.begin(), places.end(), size_t{0});
    const auto root = static_cast<std::ptrdiff_t>(&find(walk.getFolders().front().inode) - items.data());
    std::rotate(places.begin(), places.begin() + root, places.begin() + root + 1);
    return places;
}

/// Gives each inode its place. The whole blocks of folders and links follow all inodes.
void ErofsMetadata::place() {
    uint64 at = INODES, nContent = 0;
    for (const size_t index : order()) {
        Item* const item = &items[index];
        const Inode inode = readInode(*item);
        at = alignUp(at, NID_UNIT);
        const uint64 coreSize = inode.core.size();
        if (at / BLOCK != (at + coreSize - 1) / BLOCK) at = alignUp(at, BLOCK);
        const uint64 end = at + coreSize, tail = inode.getTail();
        // What follows an inode lies in one block.
        if (tail != 0 && end / BLOCK != (end + tail - 1) / BLOCK) at = alignUp(end, BLOCK) - coreSize;
        item->offset = at;
        at += coreSize + tail;
        if (item->type == ZqDriveWalk::MODE_FILE) {
            at += item->countChunks(inode) * CHUNK_INDEX;
        } else {
            item->firstBlock = static_cast<uint32>(nContent);
            nContent += inode.nBlocks;
        }
    }
    const uint64 firstContent = alignUp(at, BLOCK) / BLOCK;
    nBlocks = firstContent + nContent;
    if (nBlocks >= HOLE) throw refusal("has more metadata than it can have", __LINE__);
    for (Item& item : items)
        item.firstBlock += static_cast<uint32>(firstContent);
}

const ErofsMetadata::Item& ErofsMetadata::find(uint64 inode) const {
    const auto found = std::lower_bound(items.begin(), items.end(), inode,
                                        [](const Item& item, uint64 wanted) { return item.inode < wanted; });
    if (found == items.end() || found->inode != inode)
        throw refusal("names inode " + SxString(inode) + ", which there isn't", __LINE__);
    return *found;
}

uint64 ErofsMetadata::numberOf(const Item& item) const {
    return (item.offset - INODES) / NID_UNIT;
}

void ErofsMetadata::write(const Sink& sink) {
    Output out(sink);
    putSuperblock(&out);
    const std::vector<size_t> places = order();
    for (const size_t place : places)
        putInode(items[place], &out);
    for (const size_t place : places)
        putBlocks(items[place], &out);
    out.fillUpTo(getSize());
    out.flush();
}

/// The block that has superblock and device.
void ErofsMetadata::putSuperblock(Output* out) const {
    std::string block(BLOCK, '\0');
    block.replace(SUPERBLOCK, SUPERBLOCK_SIZE, super);
    const auto set = [&](size_t at, size_t n, uint64 value) { put(&block, SUPERBLOCK + at, n, value); };
    set(SB_CHECKSUM, 4, 0); // without the feature for it
    set(SB_COMPAT, 4, number(super, SB_COMPAT, 4) & COMPAT_MTIME);
    set(SB_ROOT, 2, numberOf(find(walk.getFolders().front().inode)));
    set(SB_N_INODES, 8, items.size());
    set(SB_N_BLOCKS, 4, nBlocks);
    set(SB_INODES_BLOCK, 4, INODES / BLOCK);
    set(SB_XATTR_BLOCK, 4, 0);
    set(SB_INCOMPAT, 4, INCOMPAT_CHUNKS | INCOMPAT_DEVICES);
    set(SB_N_DEVICES, 2, 1);
    set(SB_DEVICE_SLOT, 2, DEVICE / DEVICE_SIZE);
    // What later versions of the format have here may mean something together with what is set above.
    std::fill(block.begin() + SUPERBLOCK + SB_FOLDER_BITS, block.begin() + SUPERBLOCK + SUPERBLOCK_SIZE,
              '\0');
    put(&block, DEVICE + DEVICE_N_BLOCKS, 4, nStored);
    out->put(block);
}

void ErofsMetadata::putInode(const Item& item, Output* out) const {
    const Inode inode = readInode(item);
    std::string core = inode.core;
    const uint64 extended = number(core, INODE_FORMAT, 2) & FORMAT_EXTENDED;
    const bool isFile = item.type == ZqDriveWalk::MODE_FILE;
    const uint64 nFileChunks = isFile ? item.countChunks(inode) : 0;
    Layout layout = inode.getTail() != 0 ? Inline : Plain;
    uint64 data = item.firstBlock;
    if (isFile && nFileChunks > 0) {
        layout = Chunks;
        data = CHUNK_INDICES | item.chunkBits;
    }
    put(&core, INODE_FORMAT, 2, layout << 1 | extended);
    put(&core, INODE_DATA, 4, data);
    out->fillUpTo(item.offset);
    out->put(core);
    if (isFile) {
        putChunks(item, inode, out);
    } else if (inode.getTail() != 0) {
        const std::string tail = reader->read(inode.end, inode.getTail());
        out->put(item.type == ZqDriveWalk::MODE_DIR ? renumber(item, tail) : tail);
    }
}

void ErofsMetadata::putChunks(const Item& item, const Inode& inode, Output* out) const {
    const uint64 chunk = uint64{1} << item.chunkBits;
    for (uint64 at = 0; at < inode.nBlocks; at += chunk) {
        std::string index(CHUNK_INDEX, '\0');
        const uint64 stored = storedAt(inode.firstRaw + at);
        put(&index, CHUNK_BLOCK, 4, stored);
        if (stored != HOLE) put(&index, CHUNK_DEVICE, 2, 1);
        out->put(index);
    }
}

/// The whole blocks of a folder or link, each filled up.
void ErofsMetadata::putBlocks(const Item& item, Output* out) const {
    if (item.type == ZqDriveWalk::MODE_FILE) return;
    const Inode inode = readInode(item);
    if (inode.nBlocks == 0) return;
    out->fillUpTo(item.firstBlock * BLOCK);
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        std::string block = walk.readBlock(inode, i);
        if (item.type == ZqDriveWalk::MODE_DIR) block = renumber(item, block);
        out->put(block);
        out->fillUpTo(alignUp(out->getOffset(), BLOCK));
    }
}

/// A block of a folder with the inodes' new numbers.
std::string ErofsMetadata::renumber(const Item& folder, const std::string& block) const {
    std::string result = block;
    walk.listBlock(block, [&](const ZqErofsWalk::Entry& entry) {
        const Item& named = find(entry.inode);
        const bool isWrong = (entry.name == "." && entry.inode != folder.inode) ||
                             (entry.name == ".." && entry.inode != folder.parent) ||
                             (named.type == ZqDriveWalk::MODE_LINK && entry.type != TYPE_LINK);
        if (isWrong) {
            throw refusal("has '" + SxString(std::string(entry.name)) + "' in a folder as something else",
                          __LINE__);
        }
        put(&result, entry.at, 8, numberOf(named));
    });
    return result;
}
