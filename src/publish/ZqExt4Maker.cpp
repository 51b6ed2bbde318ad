#include "ZqExt4Maker.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqSourceTree.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqExt4Maker";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 INODE = 256;                                        ///< bytes
constexpr uint64 BLOCKS_PER_GROUP = 32768, INODES_PER_GROUP = 32768; ///< at most
constexpr uint64 JOURNAL_MIB = 16, ROOM_MIB = 16;
constexpr uint64 BYTES_PER_INODE = 16384; ///< of free room
constexpr uint64 LEAST_FREE_INODES = 65536;
constexpr uint64 OWN_INODES = 32; ///< of the file system, and for folders above those of the source
constexpr uint64 MIB_BLOCKS = (1 << 20) / BLOCK;
constexpr uint64 ROOT = 2; ///< the root folder's inode number
constexpr uint64 MODE_TYPE = 0xF000, MODE_DIR = 0x4000, MODE_FILE = 0x8000;
/// Spelled out, so that the machine's mke2fs.conf has no say; Walk reads no others.
constexpr const char* FEATURES =
    "none,has_journal,extent,flex_bg,sparse_super,large_file,huge_file,dir_nlink,"
    "extra_isize,metadata_csum,dir_index,filetype";

uint64 number(const std::string& bytes, size_t at, size_t nBytes) {
    return ZqRawReader::number(bytes, at, nBytes);
}

/// Room for content and what describes it.
uint64 contentBlocks(const ZqSourceTree& source) {
    // An entry of a folder takes up to 264 bytes, a folder or a long link a block, and files that are cut to
    // pieces one for each 340 pieces.
    const uint64 nEntries = source.getEntries().size();
    return source.getNBlocks() + nEntries / 15 + nEntries + source.getNBlocks() / 1000;
}

/// What an application may write: a tenth of the content and 16 MiB, or what is asked for where that is more.
uint64 freeBlocks(const ZqSourceTree& source, uint64 freeBytes) {
    const uint64 least = contentBlocks(source) / 10 + ROOM_MIB * MIB_BLOCKS;
    return std::max(least, freeBytes / BLOCK + (freeBytes % BLOCK != 0));
}

/// Programs that unpack or build make files by the ten thousand, and what an inode costs is 256 bytes of
/// zeros, which aren't stored.
uint64 nInodesFor(const ZqSourceTree& source, uint64 freeBytes) {
    const uint64 byRoom = freeBlocks(source, freeBytes) * BLOCK / BYTES_PER_INODE;
    return source.getEntries().size() + OWN_INODES + std::max(byRoom, LEAST_FREE_INODES);
}

uint64 nBlocksFor(const ZqSourceTree& source, uint64 freeBytes) {
    const uint64 nInodes = nInodesFor(source, freeBytes);
    const uint64 withRoom =
        contentBlocks(source) + freeBlocks(source, freeBytes) + JOURNAL_MIB * MIB_BLOCKS + MIB_BLOCKS;
    const uint64 nGroups = withRoom / BLOCKS_PER_GROUP + nInodes / INODES_PER_GROUP + 1;
    return withRoom + nInodes * INODE / BLOCK + nGroups * 8;
}

/// Follows all folders of a fresh file system down to the blocks of its files.
class Walk {
public:
    struct File {
        uint64 inode;
        SxString path;
    };
    struct Extent {
        uint64 block, firstRaw, count; ///< `block` counts in the file
    };

    explicit Walk(const SxString& path) : raw(path) {
        const std::string super = raw.read(1024, 1024);
        if (number(super, 0x38, 2) != 0xEF53 || number(super, 0x18, 4) != 2 ||
            number(super, 0x58, 2) != INODE) {
            throw SxException("'" + path + "' holds no ext4 with blocks of 4096 bytes", UNIT, __LINE__);
        }
        inodesPerGroup = number(super, 0x28, 4);
    }

    /// Calls `visit` with each file's place and its extents; gives the numbers of all inodes in folders.
    template<class Visit>
    std::vector<uint64> run(Visit&& visit) {
        std::vector<uint64> found = {ROOT};
        std::vector<File> open = {{ROOT, ""}};
        while (!open.empty()) {
            const File file = open.back();
            open.pop_back();
            const std::string inode = readInode(file.inode);
            const uint64 type = number(inode, 0, 2) & MODE_TYPE;
            if (type != MODE_DIR && type != MODE_FILE) continue;
            std::vector<Extent> extents;
            readExtents(inode.substr(0x28, 60), &extents);
            if (type == MODE_FILE) {
                visit(file, extents);
                continue;
            }
            for (const Extent& extent : extents) {
                for (uint64 i = 0; i < extent.count; ++i)
                    listBlock(raw.read((extent.firstRaw + i) * BLOCK, BLOCK), file.path, &open, &found);
            }
        }
        // A second name of a file is one of the same inode.
        std::sort(found.begin(), found.end());
        found.erase(std::unique(found.begin(), found.end()), found.end());
        return found;
    }

private:
    std::string readInode(uint64 inode) {
        const uint64 group = (inode - 1) / inodesPerGroup, inGroup = (inode - 1) % inodesPerGroup;
        const std::string descriptor = raw.read(BLOCK + group * 32, 32);
        return raw.read(number(descriptor, 8, 4) * BLOCK + inGroup * INODE, INODE);
    }

    /// `node` is the tree's root in an inode, or a block.
    void readExtents(const std::string& node, std::vector<Extent>* extents) {
        if (number(node, 0, 2) != 0xF30A) throw SxException("A tree of extents is damaged", UNIT, __LINE__);
        const bool leaf = number(node, 6, 2) == 0;
        for (uint64 i = 0, n = number(node, 2, 2); i < n; ++i) {
            const size_t at = 12 + i * 12;
            if (!leaf) {
                readExtents(raw.read(number(node, at + 4, 4) * BLOCK, BLOCK), extents);
                continue;
            }
            // Above 32768, the extent has room but no content yet.
            const uint64 count = number(node, at + 4, 2);
            extents->push_back(
                {number(node, at, 4), number(node, at + 8, 4), count > 32768 ? count - 32768 : count});
        }
    }

    static void listBlock(const std::string& block, const SxString& folder, std::vector<File>* open,
                          std::vector<uint64>* found) {
        for (uint64 at = 0; at + 8 <= BLOCK;) {
            const uint64 inode = number(block, at, 4), length = number(block, at + 4, 2);
            const std::string name = block.substr(at + 8, number(block, at + 6, 1));
            if (length < 8) throw SxException("Folder '" + folder + "' is damaged", UNIT, __LINE__);
            at += length;
            if (inode == 0 || name == "." || name == "..") continue;
            open->push_back({inode, folder.isEmpty() ? name : folder + "/" + name});
            found->push_back(inode);
        }
    }

    ZqRawReader raw;
    uint64 inodesPerGroup = 0;
};

} // namespace

uint64 ZqExt4Maker::getOverhead(const ZqSourceTree& source, uint64 freeBytes) const {
    return JOURNAL_MIB * MIB_BLOCKS * BLOCK + nInodesFor(source, freeBytes) * INODE;
}

void ZqExt4Maker::format(const Job& job) const {
    const SxString fakeTime = SxString("E2FSPROGS_FAKE_TIME=") + TIME;
    mkfs.run({"-q",
              "-F",
              "-t",
              "ext4",
              "-b",
              BLOCK,
              "-I",
              INODE,
              "-m",
              "0",
              "-N",
              nInodesFor(*job.source, job.freeBytes),
              "-U",
              UUID,
              "-J",
              SxString("size=") + JOURNAL_MIB,
              "-O",
              FEATURES,
              "-E",
              SxString("hash_seed=") + HASH_SEED +
                  ",lazy_itable_init=0,lazy_journal_init=0,root_owner=0:0,nodiscard",
              "-d",
              job.tree,
              job.raw,
              SxString(nBlocksFor(*job.source, job.freeBytes) * BLOCK / 1024) + "k"},
             {fakeTime}, job.scratch + "mkfs.log", *job.monitor, job.look);
    fixInodes(job);
}

void ZqExt4Maker::fixInodes(const Job& job) const {
    const SxString script = job.scratch + "debugfs.in";
    {
        SxFileIO file;
        file.create(script);
        std::string lines;
        for (const uint64 inode : Walk(job.raw).run([](const Walk::File&, const auto&) {})) {
            const std::string field = "sif <" + std::to_string(inode) + "> ";
            for (const char* time : {"atime", "ctime", "mtime", "crtime"})
                lines.append(field).append(time).append(" @").append(TIME).append("\n");
            lines.append(field).append("uid 0\n").append(field).append("gid 0\n");
            if (lines.size() < 1 << 16) continue;
            file.write(SxString(lines));
            lines.clear();
        }
        file.write(SxString(lines));
        file.close();
    }
    const SxString log = job.scratch + "debugfs.log";
    debugfs.run({"-w", "-f", script, job.raw}, {SxString("E2FSPROGS_FAKE_TIME=") + TIME}, log, *job.monitor,
                job.look);
    // Where a command fails, debugfs goes on and ends with 0. Where none fails, it says nothing but its
    // version.
    const SxList<SxString> said = SxFileIO::readLines(log, 0);
    for (const SxString& line : said) {
        if (!line.startsWith("debugfs ") && !line.isEmpty()) {
            throw SxException("'debugfs' failed: " + line, UNIT, __LINE__);
        }
    }
}

void ZqExt4Maker::mark(const Job& job, std::vector<ZqBlockKind>* kinds) const {
    Walk(job.raw).run([&](const Walk::File& file, const std::vector<Walk::Extent>& extents) {
        const ZqBlockKind kind = job.isEarly(file.path) ? ZqBlockKind::Early : ZqBlockKind::File;
        for (const Walk::Extent& extent : extents) {
            for (uint64 i = 0; i < extent.count; ++i)
                kinds->at(extent.firstRaw + i) = kind;
        }
    });
}
