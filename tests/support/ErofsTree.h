#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

/// What an EROFS in memory holds: plain, or of metadata alone with one further device. A reader of its own,
/// which shares nothing with the product's. It takes what the kernel takes without a complaint, and raises
/// wherever a number leads out of the image or a folder isn't in order.
class ErofsTree {
public:
    static constexpr uint64_t BLOCK = 4096;

    /// Where 4096 bytes of a file lie; device 0 is the image itself.
    struct Block {
        static constexpr uint32_t HOLE = 0xFFFFFFFF;
        uint32_t device = 0, block = HOLE;
        bool operator==(const Block&) const = default;
    };
    struct Node {
        uint64_t number = 0, mode = 0, size = 0, nLinks = 0, uid = 0, gid = 0;
        int64_t seconds = 0;
        uint64_t nanoseconds = 0;
        std::string target;        ///< of a symbolic link
        std::vector<Block> blocks; ///< of a file
        uint64_t chunk = 0;        ///< blocks of a chunk; 0 where there are none
    };

    explicit ErofsTree(std::string_view image) : bytes(image) {
        readSuperblock();
        walk("", root, root);
    }

    /// Raises where two things lie in one place of the image.
    void requireApart() {
        std::sort(taken.begin(), taken.end());
        for (size_t i = 1; i < taken.size(); ++i)
            require(taken[i - 1].end <= taken[i].begin, "two things lie at byte", taken[i].begin);
    }

    /// Raises where this isn't `source` with its RAW blocks at their places by `map` (all ones: none) of the
    /// further device, in chunks as large as can be.
    void requireMadeOf(const ErofsTree& source, const std::vector<uint64_t>& map) const {
        std::map<uint64_t, uint64_t> numbers, sourceNumbers;
        require(nInodes == firstPaths.size(), "inodes:", nInodes);
        auto other = source.nodes.begin();
        for (const auto& mine : nodes) {
            const Node& node = mine.second;
            const auto fail = [&mine](const char* what) {
                throw std::runtime_error("'" + mine.first + "': " + what);
            };
            if (other == source.nodes.end() || other->first != mine.first) fail("another name");
            const Node& old = (other++)->second;
            const auto rest = [](const Node& of) {
                return std::tie(of.mode, of.size, of.nLinks, of.uid, of.gid, of.seconds, of.nanoseconds,
                                of.target);
            };
            if (rest(node) != rest(old)) fail("mode, size, owner, time or target");
            if (numbers.emplace(node.number, old.number).first->second != old.number ||
                sourceNumbers.emplace(old.number, node.number).first->second != node.number) {
                fail("another link");
            }
            std::vector<Block> blocks;
            for (const Block& at : old.blocks) {
                const uint64_t place = map.at(at.block);
                blocks.push_back(place == ~uint64_t{0} ? Block{} : Block{1, static_cast<uint32_t>(place)});
            }
            if (blocks != node.blocks) fail("another place");
            if (node.chunk != largestChunk(blocks)) fail("another size of chunks");
        }
        require(other == source.nodes.end(), "names:", nodes.size());
    }

    std::map<std::string, Node> nodes; ///< by path; the root's is empty
    uint64_t nBlocks = 0;              ///< of the image
    uint64_t nFurther = 0;             ///< blocks of the further device
    uint64_t nInodes = 0;              ///< as the superblock has it

private:
    struct Range {
        uint64_t begin, end;
        auto operator<=>(const Range&) const = default;
    };
    struct Inode {
        Node node;
        uint64_t layout = 0, data = 0, end = 0;
    };

    /// By trying all.
    static uint64_t largestChunk(const std::vector<Block>& blocks) {
        const auto fits = [&blocks](uint64_t chunk) {
            for (uint64_t i = 1; i < blocks.size(); ++i) {
                const Block &before = blocks[i - 1], &at = blocks[i];
                const bool joins =
                    at.device == 0 ? before.device == 0 : before.device == 1 && before.block + 1 == at.block;
                if (i % chunk != 0 && !joins) return false;
            }
            return true;
        };
        uint64_t chunk = blocks.empty() ? 0 : uint64_t{1} << 18;
        while (chunk > 1 && !fits(chunk))
            chunk /= 2;
        return chunk;
    }

    static void require(bool holds, const char* what, uint64_t value) {
        if (!holds) throw std::runtime_error(std::string(what) + " " + std::to_string(value));
    }
    std::string_view part(uint64_t at, uint64_t n) const {
        require(n <= bytes.size() && at <= bytes.size() - n, "the image ends before byte", at + n);
        return bytes.substr(at, n);
    }
    static uint64_t number(std::string_view from, size_t at, size_t n) {
        uint64_t value = 0;
        for (size_t i = n; i > 0; --i)
            value = value << 8 | static_cast<unsigned char>(from.at(at + i - 1));
        return value;
    }
    uint64_t numberAt(uint64_t at, size_t n) const { return number(part(at, n), 0, n); }
    void take(uint64_t begin, uint64_t n) {
        part(begin, n);
        if (n != 0) taken.push_back({begin, begin + n});
    }

    void readSuperblock() {
        const std::string_view super = part(1024, 128);
        take(0, 1024 + 128);
        require(number(super, 0, 4) == 0xE0F5E1E2, "magic", number(super, 0, 4));
        require(number(super, 12, 1) == 12, "size of blocks", number(super, 12, 1));
        require(number(super, 13, 1) == 0, "further slots", number(super, 13, 1));
        root = number(super, 14, 2);
        nInodes = number(super, 16, 8);
        seconds = static_cast<int64_t>(number(super, 24, 8));
        nanoseconds = number(super, 32, 4);
        nBlocks = number(super, 36, 4);
        inodes = number(super, 40, 4) * BLOCK;
        const uint64_t features = number(super, 80, 4), nDevices = number(super, 86, 2);
        require((features & ~uint64_t{0xC}) == 0, "features", features);
        require(nDevices == (features >> 3), "devices", nDevices);
        hasChunks = (features & 4) != 0;
        if (nDevices == 0) return;
        require(bytes.size() == nBlocks * BLOCK, "the image isn't as long as it says:", nBlocks);
        const uint64_t slot = number(super, 88, 2) * 128;
        take(slot, 128);
        nFurther = numberAt(slot + 64, 4);
        require(numberAt(slot + 68, 4) == 0, "place of the device", numberAt(slot + 68, 4));
    }

    Inode readInode(uint64_t nid) {
        require(nid <= bytes.size() / 32, "inode", nid);
        const uint64_t at = inodes + nid * 32;
        Inode inode;
        Node& node = inode.node;
        const uint64_t format = numberAt(at, 2);
        const bool isLong = format & 1;
        const std::string_view core = part(at, isLong ? 64 : 32);
        require(format < 16 && number(core, 2, 2) == 0, "format or attributes of inode", nid);
        node.number = nid;
        node.mode = number(core, 4, 2);
        node.nLinks = isLong ? number(core, 44, 4) : number(core, 6, 2);
        node.size = number(core, 8, isLong ? 8 : 4);
        node.uid = number(core, 24, isLong ? 4 : 2);
        node.gid = isLong ? number(core, 28, 4) : number(core, 26, 2);
        // Later kernels count a compact inode's time from the superblock's.
        node.seconds = isLong ? static_cast<int64_t>(number(core, 32, 8))
                              : static_cast<int64_t>(static_cast<uint64_t>(seconds) + number(core, 12, 4));
        node.nanoseconds = isLong ? number(core, 40, 4) : nanoseconds;
        inode.layout = format >> 1;
        inode.data = number(core, 16, 4);
        inode.end = at + core.size();
        require(!isLong || number(core, 6, 2) == 0, "upper part of a block of inode", nid);
        require(node.size <= INT64_MAX, "size of inode", nid);
        require(node.nLinks > 0 && node.nanoseconds < 1'000'000'000, "names or time of inode", nid);
        return inode;
    }

    /// Whole blocks, or with those that a tail in the inode leaves.
    uint64_t countBlocks(const Inode& inode) const {
        const uint64_t size = inode.node.size;
        return size / BLOCK + (inode.layout == 0 && size % BLOCK != 0 ? 1 : 0);
    }
    void requireBlocks(uint64_t first, uint64_t n, uint64_t limit) const {
        require(n <= limit && first <= limit - n, "beyond the last block:", first);
    }

    std::string contentOf(const Inode& inode) {
        const uint64_t size = inode.node.size, n = countBlocks(inode);
        require(inode.layout == 0 || inode.layout == 2, "layout of a folder or link:", inode.layout);
        if (n > 0) {
            requireBlocks(inode.data, n, bytes.size() / BLOCK);
            take(inode.data * BLOCK, n * BLOCK);
        }
        const uint64_t tail = inode.layout == 2 ? size - n * BLOCK : 0;
        require(inode.layout == 0 || size == 0 || tail > 0, "no tail in inode", inode.node.number);
        require(tail == 0 || inode.end / BLOCK == (inode.end + tail - 1) / BLOCK,
                "a block ends in the tail of inode", inode.node.number);
        take(inode.end, tail);
        std::string content;
        if (n > 0) content = part(inode.data * BLOCK, std::min(size, n * BLOCK));
        return content += part(inode.end, tail);
    }

    void readBlocks(Inode* inode) {
        Node& node = inode->node;
        const uint64_t n = node.size / BLOCK + (node.size % BLOCK != 0);
        if (inode->layout == 0) {
            if (n == 0) return;
            requireBlocks(inode->data, n, bytes.size() / BLOCK);
            take(inode->data * BLOCK, n * BLOCK);
            for (uint64_t i = 0; i < n; ++i)
                node.blocks.push_back({0, static_cast<uint32_t>(inode->data + i)});
            return;
        }
        require(inode->layout == 4 && hasChunks, "layout of a file:", inode->layout);
        require((inode->data & ~uint64_t{0x1F}) == 0x20, "format of chunks:", inode->data);
        node.chunk = uint64_t{1} << (inode->data & 0x1F);
        const uint64_t indices = (inode->end + 7) / 8 * 8;
        take(indices, (n + node.chunk - 1) / node.chunk * 8);
        for (uint64_t i = 0; i < n; i += node.chunk) {
            const std::string_view index = part(indices + i / node.chunk * 8, 8);
            const uint64_t device = number(index, 2, 2), block = number(index, 4, 4);
            const uint64_t length = std::min(node.chunk, n - i);
            require(number(index, 0, 2) == 0 && device <= 1, "an index isn't one:", number(index, 0, 8));
            const bool isHole = block == Block::HOLE;
            if (!isHole) requireBlocks(block, length, device == 0 ? nBlocks : nFurther);
            for (uint64_t j = 0; j < length; ++j) {
                node.blocks.push_back(
                    isHole ? Block{}
                           : Block{static_cast<uint32_t>(device), static_cast<uint32_t>(block + j)});
            }
        }
    }

    void walk(const std::string& path, uint64_t nid, uint64_t parent) {
        Inode inode = readInode(nid);
        const uint64_t type = inode.node.mode & 0xF000;
        const auto known = firstPaths.find(nid);
        if (known != firstPaths.end()) {
            require(type != 0x4000, "a folder has two names, inode", nid);
            nodes[path] = nodes.at(known->second);
            return;
        }
        firstPaths[nid] = path;
        take(inodes + nid * 32, inode.end - inodes - nid * 32);
        require(type == 0x4000 || type == 0x8000 || type == 0xA000, "mode", inode.node.mode);
        if (type == 0x8000) readBlocks(&inode);
        if (type == 0xA000) inode.node.target = contentOf(inode);
        require(type != 0xA000 || !inode.node.target.empty(), "no target in inode", nid);
        require(inode.node.target.find('\0') == std::string::npos, "a NUL in the target of inode", nid);
        nodes[path] = inode.node;
        if (type == 0x4000) walkFolder(path, nid, parent, contentOf(inode));
    }

    void walkFolder(const std::string& path, uint64_t nid, uint64_t parent, std::string_view content) {
        std::string last;
        int nOwn = 0;
        for (; !content.empty(); content.remove_prefix(std::min(BLOCK, content.size()))) {
            const std::string_view block = content.substr(0, BLOCK);
            const uint64_t names = number(block, 8, 2), n = names / 12;
            require(n > 0 && names % 12 == 0 && names < block.size(), "entries of folder", nid);
            for (uint64_t i = 0; i < n; ++i) {
                const uint64_t begin = number(block, i * 12 + 8, 2);
                const uint64_t end = i + 1 < n ? number(block, i * 12 + 20, 2) : block.size();
                require(begin >= names && begin < end && end <= block.size(), "names of folder", nid);
                std::string name(block.substr(begin, end - begin));
                if (i + 1 == n) name.resize(std::min(name.find('\0'), name.size()));
                require(name > last && name.size() <= 255, "order of the names of folder", nid);
                require(name.find('/') == name.npos && name.find('\0') == name.npos, "a name in", nid);
                last = name;
                const uint64_t of = number(block, i * 12, 8), kind = number(block, i * 12 + 10, 1);
                const uint64_t mode = readInode(of).node.mode & 0xF000;
                require(kind == (mode == 0x8000 ? 1 : mode == 0x4000 ? 2 : 7), "kind of", of);
                if (name == "." || name == "..") {
                    ++nOwn;
                    require(of == (name == "." ? nid : parent), "dots of folder", nid);
                } else {
                    walk(path.empty() ? name : path + "/" + name, of, nid);
                }
            }
        }
        require(nOwn == 2, "dots are missing in folder", nid);
    }

    const std::string_view bytes;
    uint64_t root = 0, inodes = 0, nanoseconds = 0;
    int64_t seconds = 0;
    bool hasChunks = false;
    std::map<uint64_t, std::string> firstPaths;
    std::vector<Range> taken;
};
