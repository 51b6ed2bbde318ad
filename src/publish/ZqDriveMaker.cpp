#include "ZqDriveMaker.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqDriveRows.h"
#include "ZqErofsMaker.h"
#include "ZqExt4Maker.h"
#include "ZqSquashfsMaker.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/publish/ZqDriveMaker";
constexpr const char* NAMES[] = {"erofs", "ext4", "squashfs"};
} // namespace

bool ZqDriveMaker::Job::isEarly(const SxString& path) const {
    for (const SxString& name : early) {
        if (path == name || path.startsWith((name + "/").str())) return true;
    }
    return false;
}

std::unique_ptr<ZqDriveMaker> ZqDriveMaker::get(FileSystem type) {
    switch (type) {
    case Erofs:
        return std::make_unique<ZqErofsMaker>();
    case Ext4:
        return std::make_unique<ZqExt4Maker>();
    default:
        return std::make_unique<ZqSquashfsMaker>();
    }
}

ZqDriveMaker::FileSystem ZqDriveMaker::stringToType(const SxString& text) {
    for (const FileSystem type : {Erofs, Ext4, Squashfs}) {
        if (text == NAMES[type]) return type;
    }
    throw SxException("The file system '" + text + "' is none of erofs, ext4, squashfs", UNIT, __LINE__);
}

SxString ZqDriveMaker::typeToString(FileSystem type) {
    return NAMES[type];
}

ZqDriveMaker::Drive ZqDriveMaker::make(const Job& job) const {
    format(job);
    constexpr auto BLOCK = static_cast<int64>(ZqBlocks::SIZE);
    int64 nRaw = 0;
    {
        SxFileIO raw(job.raw, "r+b");
        nRaw = (raw.getSize() + BLOCK - 1) / BLOCK;
        raw.truncate(nRaw * BLOCK);
        raw.close();
    }
    Drive drive{std::vector<ZqBlockKind>(static_cast<size_t>(nRaw), ZqBlockKind::Metadata), std::nullopt};
    survey(job, &drive);
    return drive;
}

void ZqDriveMaker::followFiles(const Job& job, ZqDriveWalk* walk, Drive* drive) {
    drive->files.emplace();
    walk->findNames();
    walk->visitFiles([&](const ZqDriveWalk::File& file) {
        const bool isEarly = std::any_of(file.paths.begin(), file.paths.end(),
                                         [&](const SxString& path) { return job.isEarly(path); });
        for (const ZqDriveWalk::Extent& extent : file.extents) {
            const auto begin = drive->kinds.begin() + static_cast<int64>(extent.first);
            std::fill_n(begin, extent.count, isEarly ? ZqBlockKind::Early : ZqBlockKind::File);
        }
        ZqDriveRows::append(file, &*drive->files);
    });
}
