#include "ErofsMetadata.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqErofsFormat.h"

#include <algorithm>
#include <bit>
#include <numeric>
#include <span>

using namespace ZqErofsFormat;

namespace {

constexpr const char* UNIT = "src/driver/ErofsMetadata";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
/// The first block is the superblock's, and inodes follow. Their numbers count from offset 0, so that none
/// has the number 0, which programs take for a name that is gone.
constexpr uint64 INODES = BLOCK;
/// The slot of the one device follows the superblock.
constexpr uint64 DEVICE = SUPERBLOCK + SUPERBLOCK_SIZE;
static_assert(DEVICE % DEVICE_SIZE == 0);
constexpr uint64 NOWHERE = ~uint64{0};        ///< place of a block that isn't included
constexpr uint64 MAX_CHUNK_BITS = 18;         ///< 1 GiB; the kernel takes more, and no file gains by it
constexpr uint64 MAX_LINK = 4095;             ///< bytes of a target; the kernel follows none that is longer
constexpr uint64 NANOSECONDS = 1'000'000'000; ///< of a second
/// Bytes of memory for names while they are read; enough for a million files. The service has less to give
/// than who makes an image.
constexpr uint64 NAMES_MEMORY = uint64{128} << 20;
constexpr uint64 PART = 1 << 18; ///< bytes that are handed on together

uint64 number(const std::string& bytes, size_t at, size_t n) {
    return ZqDriveReader::number(bytes, at, n);
}

void put(std::string* bytes, size_t at, size_t n, uint64 value) {
    for (size_t i = 0; i < n; ++i, value >>= 8)
        bytes->at(at + i) = static_cast<char>(value & 0xFF);
}

uint64 typeOf(uint64 mode) {
    return mode == ZqDriveWalk::MODE_DIR ? TYPE_DIR : mode == ZqDriveWalk::MODE_FILE ? TYPE_FILE : TYPE_LINK;
}

uint64 numberOf(uint64 offset) {
    return offset / NID_UNIT;
}

/// CRC-32C without the inversion at its end.
uint32 checksumOf(const std::string& bytes) {
    constexpr uint32 POLYNOMIAL = 0x82F63B78; // its lowest bit is that of the highest power
    uint32 sum = ~uint32{0};
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? POLYNOMIAL : 0);
    }
    return sum;
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
    walk.setMostMemory(NAMES_MEMORY);
    walk.findNames();
    collect();
    for (Item& item : items)
        examine(&item);
    for (const Item& item : items) {
        if (item.type != ZqDriveWalk::MODE_FILE) examineContent(item);
    }
    place();
}

SxException ErofsMetadata::refusal(const SxString& why, int line) const {
    return SxException("'" + reader->getName() + "' holds an EROFS that " + why, UNIT, line);
}

void ErofsMetadata::check() {
    if (number(super, SB_INCOMPAT, 4) != 0 || number(super, SB_EXT_SLOTS, 1) != 0 ||
        number(super, SB_N_DEVICES, 2) != 0 || number(super, SB_FOLDER_BITS, 1) != 0) {
        throw refusal("has features that its metadata alone can't have", __LINE__);
    }
    if (number(super, SB_NANOSECONDS, 4) >= NANOSECONDS) throw refusal("states no time", __LINE__);
    const uint64 nRaw = reader->getSize() / BLOCK;
    if (nRaw > map.nRaw()) {
        throw refusal("has " + SxString(nRaw) + " blocks, and its map " + map.nRaw(), __LINE__);
    }
    if (nStored >= HOLE) throw refusal("lies in more blocks than it can have", __LINE__);
    // The metadata have no checksum, so the kernel would mount what it refuses otherwise.
    if ((number(super, SB_COMPAT, 4) & COMPAT_CHECKSUM) == 0) return;
    std::string checked = reader->read(SUPERBLOCK, BLOCK - SUPERBLOCK);
    put(&checked, SB_CHECKSUM, 4, 0);
    if (checksumOf(checked) != number(super, SB_CHECKSUM, 4))
        throw refusal("has another superblock than its checksum says", __LINE__);
}

/// Lists everything that has a name.
void ErofsMetadata::collect() {
    const auto& folders = walk.getFolders();
    const std::vector<uint64> files = walk.getFiles(), others = walk.getOthers();
    items.reserve(folders.size() + files.size() + others.size());
    const auto add = [this](uint64 inode, uint64 type, uint64 parent) {
        items.push_back({.inode = inode, .parent = parent, .type = static_cast<uint32>(type)});
    };
    for (const ZqDriveWalk::Folder& folder : folders)
        add(folder.inode, ZqDriveWalk::MODE_DIR, folders[folder.parent].inode);
    for (const uint64 inode : files)
        add(inode, ZqDriveWalk::MODE_FILE, 0);
    for (const uint64 inode : others)
        add(inode, ZqDriveWalk::MODE_LINK, 0);
    std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.inode < b.inode; });
    const auto twice = std::adjacent_find(items.begin(), items.end(),
                                          [](const Item& a, const Item& b) { return a.inode == b.inode; });
    if (twice != items.end())
        throw refusal("has inode " + SxString(twice->inode) + " as two kinds of things", __LINE__);
}

ErofsMetadata::Inode ErofsMetadata::inodeOf(const Item& item) const {
    return walk.interpret(item.inode, std::string(item.core.data(), item.coreSize), item.type);
}

/// Reads and checks an inode, takes its room, and finds the chunks of a file.
void ErofsMetadata::examine(Item* item) {
    const SxString name = "inode " + SxString(item->inode);
    const std::string core = walk.readCore(item->inode);
    item->coreSize = static_cast<unsigned char>(core.size());
    std::copy(core.begin(), core.end(), item->core.begin());
    if (item->type == ZqDriveWalk::MODE_LINK &&
        (number(core, INODE_MODE, 2) & ZqDriveWalk::MODE_TYPE) != ZqDriveWalk::MODE_LINK) {
        throw refusal("has something that is neither file, folder nor link, " + name, __LINE__);
    }
    const Inode inode = inodeOf(*item);
    requireKnown(inode, name);
    takeRoom(inode, name);
    if (item->type == ZqDriveWalk::MODE_LINK && (inode.size == 0 || inode.size > MAX_LINK)) {
        throw refusal("has a link with a target of " + SxString(inode.size) + " bytes, " + name, __LINE__);
    }
    if (item->type != ZqDriveWalk::MODE_FILE) return;
    if (inode.getTail() != 0) throw refusal("has content of a file beside " + name, __LINE__);
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        const uint64 stored = storedAt(inode.firstRaw + i);
        if (stored == NOWHERE || stored < nStored) continue;
        throw refusal("has RAW block " + SxString(inode.firstRaw + i) + " at ZqF block " + stored +
                          ", where only " + nStored + " are stored",
                      __LINE__);
    }
    item->chunkBits = findChunkBits(inode);
    nFileBlocks += inode.nBlocks;
    nChunks += item->countChunks(inode);
}

/// The kernel takes all of an inode. So what isn't written here must be what the maker writes.
void ErofsMetadata::requireKnown(const Inode& inode, const SxString& name) const {
    const std::string& core = inode.core;
    const bool isExtended = core.size() == EXTENDED_SIZE;
    if (inode.nXattrs != 0) throw refusal("has extended attributes at " + name, __LINE__);
    const std::span<const Unused> unused =
        isExtended ? std::span<const Unused>(EXTENDED_UNUSED) : std::span<const Unused>(COMPACT_UNUSED);
    for (const Unused& part : unused) {
        if (core.find_first_not_of('\0', part.at) < part.at + part.n)
            throw refusal("has something that isn't known in " + name, __LINE__);
    }
    const uint64 nLinks = isExtended ? number(core, EXTENDED_N_LINKS, 4) : number(core, COMPACT_N_LINKS, 2);
    if (nLinks == 0) throw refusal("counts no names of " + name, __LINE__);
    if (isExtended && number(core, EXTENDED_NANOSECONDS, 4) >= NANOSECONDS)
        throw refusal("states no time at " + name, __LINE__);
}

/// Sees to it that nothing of an inode, its content included, belongs to another one, too. So what comes out
/// isn't much more than what went in.
void ErofsMetadata::takeRoom(const Inode& inode, const SxString& name) {
    const uint64 tail = inode.getTail();
    if (inode.begin < inodesEnd) throw refusal("has " + name + " within another one", __LINE__);
    inodesEnd = inode.end + tail;
    if (inodesEnd > reader->getSize()) throw refusal("ends before the content of " + name, __LINE__);
    if (tail != 0 && inode.end / BLOCK != (inode.end + tail - 1) / BLOCK) {
        throw refusal("has content of " + name + " that crosses the end of a block", __LINE__);
    }
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        if (owned.insert(inode.firstRaw + i)) continue;
        throw refusal("has RAW block " + SxString(inode.firstRaw + i) + " in " + name + " and elsewhere",
                      __LINE__);
    }
}

/// Checks the content of a folder or link before anything is written.
void ErofsMetadata::examineContent(const Item& item) const {
    const Inode inode = inodeOf(item);
    uint64 nOwn = 0;
    const auto look = [&](const std::string& bytes) {
        if (item.type == ZqDriveWalk::MODE_LINK) requireTarget(item, bytes);
        if (item.type != ZqDriveWalk::MODE_DIR) return;
        visitEntries(item, bytes, [&](const Entry& entry, const Item&) {
            if (entry.name == "." || entry.name == "..") ++nOwn;
        });
    };
    for (uint64 i = 0; i < inode.nBlocks; ++i)
        look(walk.readBlock(inode, i));
    if (inode.getTail() != 0) look(reader->read(inode.end, inode.getTail()));
    if (item.type == ZqDriveWalk::MODE_DIR && nOwn != 2) {
        throw refusal("has a folder that doesn't name itself and its parent, inode " + SxString(item.inode),
                      __LINE__);
    }
}

/// The kernel would show a target that is shorter than its inode says.
void ErofsMetadata::requireTarget(const Item& link, const std::string& target) const {
    if (target.find('\0') != std::string::npos)
        throw refusal("has a link whose target has a NUL, inode " + SxString(link.inode), __LINE__);
}

/// Place of a block in `img.zqf`, or NOWHERE.
uint64 ErofsMetadata::storedAt(uint64 rawIdx) const {
    const BlockMap::Place at = map.get({rawIdx});
    return at.isNothing() ? NOWHERE : at.zqfIdx().value;
}

/// Whether the block lies beside the one before it, in `img.zqf` or in a hole.
bool ErofsMetadata::isRun(uint64 rawIdx) const {
    const uint64 before = storedAt(rawIdx - 1), at = storedAt(rawIdx);
    return before == NOWHERE ? at == NOWHERE : at == before + 1;
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
        const Inode inode = inodeOf(*item);
        at = alignUp(at, NID_UNIT);
        const uint64 coreSize = item->coreSize;
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
    const auto keep = [&](size_t at, size_t n) { block.replace(SUPERBLOCK + at, n, super, at, n); };
    const auto set = [&](size_t at, size_t n, uint64 value) { put(&block, SUPERBLOCK + at, n, value); };
    // All else stays zero: later versions of the format may give it a meaning.
    keep(SB_MAGIC, 4);
    keep(SB_BLOCK_BITS, 1);
    keep(SB_SECONDS, 8);
    keep(SB_NANOSECONDS, 4);
    keep(SB_UUID, UUID_SIZE);
    set(SB_COMPAT, 4, number(super, SB_COMPAT, 4) & COMPAT_MTIME);
    set(SB_ROOT, 2, numberOf(find(walk.getFolders().front().inode).offset));
    set(SB_N_INODES, 8, items.size());
    set(SB_N_BLOCKS, 4, nBlocks);
    set(SB_INCOMPAT, 4, INCOMPAT_CHUNKS | INCOMPAT_DEVICES);
    set(SB_N_DEVICES, 2, 1);
    set(SB_DEVICE_SLOT, 2, DEVICE / DEVICE_SIZE);
    put(&block, DEVICE + DEVICE_N_BLOCKS, 4, nStored);
    out->put(block);
}

void ErofsMetadata::putInode(const Item& item, Output* out) const {
    const Inode inode = inodeOf(item);
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
        out->put(contentOf(item, reader->read(inode.end, inode.getTail())));
    }
}

void ErofsMetadata::putChunks(const Item& item, const Inode& inode, Output* out) const {
    const uint64 chunk = uint64{1} << item.chunkBits;
    for (uint64 at = 0; at < inode.nBlocks; at += chunk) {
        std::string index(CHUNK_INDEX, '\0');
        const uint64 stored = storedAt(inode.firstRaw + at);
        put(&index, CHUNK_BLOCK, 4, stored == NOWHERE ? HOLE : stored);
        if (stored != NOWHERE) put(&index, CHUNK_DEVICE, 2, 1);
        out->put(index);
    }
}

/// The whole blocks of a folder or link, each filled up.
void ErofsMetadata::putBlocks(const Item& item, Output* out) const {
    if (item.type == ZqDriveWalk::MODE_FILE) return;
    const Inode inode = inodeOf(item);
    if (inode.nBlocks == 0) return;
    out->fillUpTo(item.firstBlock * BLOCK);
    for (uint64 i = 0; i < inode.nBlocks; ++i) {
        out->put(contentOf(item, walk.readBlock(inode, i)));
        out->fillUpTo(alignUp(out->getOffset(), BLOCK));
    }
}

/// Shows each entry of a block of a folder together with what it names.
void ErofsMetadata::visitEntries(const Item& folder, const std::string& block,
                                 const std::function<void(const Entry&, const Item&)>& visit) const {
    walk.listBlock(block, [&](const Entry& entry) {
        const Item& named = find(entry.inode);
        bool isRight = entry.type == typeOf(named.type) && ZqDriveWalk::isName(entry.name);
        if (entry.name == ".") {
            isRight = isRight && entry.inode == folder.inode;
        } else if (entry.name == "..") {
            isRight = isRight && entry.inode == folder.parent;
        } else if (named.type == ZqDriveWalk::MODE_DIR) {
            // Not a second name, and not the root, which is its own parent: so there is no circle.
            isRight = isRight && named.parent == folder.inode && entry.inode != folder.inode;
        }
        if (!isRight) {
            throw refusal("has '" + SxString(std::string(entry.name)).makeVisible() +
                              "' in a folder, inode " + folder.inode + ", for something else",
                          __LINE__);
        }
        visit(entry, named);
    });
}

/// A block of a folder with the inodes' new numbers, or a link's target, as it is read once more.
std::string ErofsMetadata::contentOf(const Item& item, std::string block) const {
    if (item.type == ZqDriveWalk::MODE_LINK) {
        requireTarget(item, block);
        return block;
    }
    const std::string old = block;
    visitEntries(item, old, [&](const Entry& entry, const Item& named) {
        put(&block, entry.at, 8, numberOf(named.offset));
    });
    return block;
}
