#include "ZqExt4Maker.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqExt4Walk.h"
#include "ZqSourceTree.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqExt4Maker";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 BLOCKS_PER_GROUP = 32768, INODES_PER_GROUP = 32768; ///< at most
constexpr uint64 JOURNAL_MIB = 16, ROOM_MIB = 16;
constexpr uint64 BYTES_PER_INODE = 16384; ///< of free room
constexpr uint64 LEAST_FREE_INODES = 65536;
constexpr uint64 OWN_INODES = 32; ///< of the file system, and for folders above those of the source
constexpr uint64 MIB_BLOCKS = (1 << 20) / BLOCK;
/// Spelled out, so that the machine's mke2fs.conf has no say; ZqExt4Walk reads no others.
constexpr const char* FEATURES =
    "none,has_journal,extent,flex_bg,sparse_super,large_file,huge_file,dir_nlink,"
    "extra_isize,metadata_csum,dir_index,filetype";

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
    return withRoom + nInodes * ZqExt4Walk::INODE_SIZE / BLOCK + nGroups * 8;
}

} // namespace

uint64 ZqExt4Maker::getOverhead(const ZqSourceTree& source, uint64 freeBytes) const {
    return JOURNAL_MIB * MIB_BLOCKS * BLOCK + nInodesFor(source, freeBytes) * ZqExt4Walk::INODE_SIZE;
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
              ZqExt4Walk::INODE_SIZE,
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
        ZqRawReader raw(job.raw);
        ZqExt4Walk walk(&raw);
        walk.findNames();
        for (const uint64 inode : walk.getInodes()) {
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

void ZqExt4Maker::survey(const Job& job, Drive* drive) const {
    ZqRawReader raw(job.raw);
    ZqExt4Walk walk(&raw);
    followFiles(job, &walk, drive);
}
