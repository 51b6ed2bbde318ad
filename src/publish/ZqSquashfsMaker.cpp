#include "ZqSquashfsMaker.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqDriveReader.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqSquashfsMaker";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 SUPERBLOCK = 96;  ///< bytes
constexpr uint64 OPTIONS = 8192;   ///< bytes that the compressor's options after it take at most
constexpr const char* FIRST = "1"; ///< the place of files that come before the others, which have 0

/// A path as a line of the list of files that come first takes it.
SxString escape(const SxString& path) {
    std::string text;
    for (const char c : path.str()) {
        if (c == '\n') throw SxException("'" + path + "' holds a line feed", UNIT, __LINE__);
        if (c == ' ' || c == '\t' || c == '\\') text += '\\';
        text += c;
    }
    return text;
}

} // namespace

void ZqSquashfsMaker::format(const Job& job) const {
    const SxString list = job.scratch + "early";
    SxString lines;
    for (const SxString& path : job.early) {
        if (!SxFSAction::exists(job.tree + path)) continue;
        lines += escape(SxFileInfo(job.tree + path).getAbsPath()) + " " + FIRST + "\n";
    }
    SxFileIO file;
    file.create(list);
    file.write(lines);
    file.close();
    // Without fragments, which gather the ends of several files, files come one after the other.
    mkfs.run({job.tree, job.raw, "-noappend", "-no-progress", "-no-recovery", "-no-fragments", "-no-xattrs",
              "-all-root", "-reproducible", "-mkfs-time", TIME, "-all-time", TIME, "-comp", "zstd",
              "-Xcompression-level", "9", "-sort", list},
             {}, job.scratch + "mkfs.log", *job.monitor, job.look);
}

void ZqSquashfsMaker::survey(const Job& job, Drive* drive) const {
    const std::string super = ZqRawReader(job.raw).read(0, SUPERBLOCK);
    if (ZqDriveReader::number(super, 0, 4) != 0x73717368) {
        throw SxException("'" + job.raw + "' holds no squashfs", UNIT, __LINE__);
    }
    // The tables follow all content. Content that doesn't get smaller is stored as it is, so the early files
    // take at most the sum of their sizes.
    const uint64 tables = ZqDriveReader::number(super, 64, 8);
    uint64 early = SUPERBLOCK + OPTIONS;
    for (const SxFileInfo& info : SxFSAction::find(job.tree + "*")) {
        if (!info.isLink() && info.isFile() && job.isEarly(info.getRelPath(job.tree)))
            early += static_cast<uint64>(info.getSize());
    }
    for (uint64 rawIdx = 1; rawIdx < std::min<uint64>(tables / BLOCK, drive->kinds.size()); ++rawIdx)
        drive->kinds.at(rawIdx) = rawIdx * BLOCK < early ? ZqBlockKind::Early : ZqBlockKind::File;
}
