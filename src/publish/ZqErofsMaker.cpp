#include "ZqErofsMaker.h"

#include "SxException.h"
#include "ZqBlocks.h"

namespace {

constexpr const char* UNIT = "src/publish/ZqErofsMaker";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 SUPERBLOCK = 1024;
constexpr uint64 MAGIC = 0xE0F5E1E2;
constexpr uint64 NID_UNIT = 32; ///< bytes that inode numbers count
constexpr uint64 DIRENT = 12;   ///< bytes
constexpr uint64 MODE_TYPE = 0xF000, MODE_DIR = 0x4000, MODE_FILE = 0x8000;

uint64 number(const std::string& bytes, size_t at, size_t nBytes) {
    return ZqRawReader::number(bytes, at, nBytes);
}

/// Follows all folders of a fresh image down to the blocks of its files.
class Walk {
public:
    Walk(const ZqDriveMaker::Job& job_, std::vector<ZqBlockKind>* kinds_)
        : job(job_),
          kinds(*kinds_),
          raw(job_.raw) {
        const std::string super = raw.read(SUPERBLOCK, 128);
        if (number(super, 0, 4) != MAGIC || number(super, 12, 1) != 12) {
            throw SxException("'" + job.raw + "' holds no EROFS with blocks of 4096 bytes", UNIT, __LINE__);
        }
        inodes = number(super, 40, 4) * BLOCK;
        open.push_back({number(super, 14, 2), ""});
    }

    void run() {
        while (!open.empty()) {
            const Place place = open.back();
            open.pop_back();
            visit(place);
        }
    }

private:
    enum Layout : uint64 { Plain = 0, Inline = 2 };
    struct Place {
        uint64 nid;
        SxString path;
    };
    struct Inode {
        uint64 mode, size, layout, firstBlock, end; ///< `end`: offset of the first byte after it
    };

    Inode readInode(uint64 nid) {
        const uint64 at = inodes + nid * NID_UNIT;
        const std::string bytes = raw.read(at, 32);
        const uint64 format = number(bytes, 0, 2), nXattrs = number(bytes, 2, 2);
        const bool extended = format & 1;
        const uint64 xattrBytes = nXattrs == 0 ? 0 : 12 + (nXattrs - 1) * 4;
        return {number(bytes, 4, 2), number(bytes, 8, extended ? 8 : 4), format >> 1 & 7,
                number(bytes, 16, 4), at + (extended ? 64 : 32) + xattrBytes};
    }

    void visit(const Place& place) {
        const Inode inode = readInode(place.nid);
        const uint64 type = inode.mode & MODE_TYPE;
        if (type != MODE_DIR && type != MODE_FILE) return;
        if (inode.layout != Plain && inode.layout != Inline) {
            throw SxException("'" + place.path + "' is stored in a way that isn't known", UNIT, __LINE__);
        }
        if (type == MODE_FILE) return markFile(inode, place.path);
        for (uint64 done = 0; done < inode.size; done += BLOCK) {
            const uint64 n = std::min(BLOCK, inode.size - done);
            const bool tail = inode.layout == Inline && done + BLOCK >= inode.size && n < BLOCK;
            listBlock(raw.read(tail ? inode.end : inode.firstBlock * BLOCK + done, n), place.path);
        }
    }

    void markFile(const Inode& inode, const SxString& path) {
        const uint64 whole = inode.size / BLOCK;
        const uint64 n = inode.layout == Plain && inode.size % BLOCK != 0 ? whole + 1 : whole;
        const ZqBlockKind kind = job.isEarly(path) ? ZqBlockKind::Early : ZqBlockKind::File;
        for (uint64 i = 0; i < n; ++i)
            kinds.at(inode.firstBlock + i) = kind;
    }

    void listBlock(const std::string& block, const SxString& folder) {
        const uint64 n = number(block, 8, 2) / DIRENT;
        for (uint64 i = 0; i < n; ++i) {
            const uint64 from = number(block, i * DIRENT + 8, 2);
            const uint64 to = i + 1 < n ? number(block, (i + 1) * DIRENT + 8, 2) : block.size();
            // NOLINTNEXTLINE(readability-redundant-string-cstr): the last name ends at a NUL
            const std::string name(block.substr(from, to - from).c_str());
            if (name == "." || name == "..") continue;
            open.push_back({number(block, i * DIRENT, 8), folder.isEmpty() ? name : folder + "/" + name});
        }
    }

    const ZqDriveMaker::Job& job;
    std::vector<ZqBlockKind>& kinds;
    ZqRawReader raw;
    uint64 inodes = 0; ///< offset of inode number 0
    std::vector<Place> open;
};

} // namespace

void ZqErofsMaker::format(const Job& job) const {
    mkfs.run({"--quiet", "-x-1", SxString("-T") + TIME, SxString("-U") + UUID, "--all-root",
              "-Enoinline_data", job.raw, job.tree},
             {}, job.scratch + "mkfs.log", *job.monitor, job.look);
}

void ZqErofsMaker::mark(const Job& job, std::vector<ZqBlockKind>* kinds) const {
    Walk(job, kinds).run();
}
