#pragma once

#include "SxList.h"
#include "ZqFileTable.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class ZqDriveWalk;
class ZqSourceTree;
class ZqTaskMon;

/// What a RAW block holds, as far as its place in the ZqF order goes by that. A block is metadata unless a
/// file owns it: the makers only follow folders to the blocks of their files, and whatever they don't know
/// comes first in the ZqF order, and so is there for a mount.
enum class ZqBlockKind : unsigned char {
    Metadata, ///< what the file system itself is made of; also what is in no use
    Early,    ///< content of a file that a mount reads
    File      ///< content of another file
};

/// Makes the file system of a drive as a RAW image. The same files give the same bytes, whoever makes them
/// where and when: times, owners and identities are fixed, and the files' own times aren't kept, so that a
/// fresh checkout gives the same image. One thread.
class ZqDriveMaker {
public:
    enum FileSystem { Erofs, Ext4, Squashfs };

    struct Job {
        SxString tree;              ///< folder with the content of the drive, with a trailing slash
        SxString raw;               ///< file to make
        SxString scratch;           ///< folder for other files, with a trailing slash
        const ZqSourceTree* source; ///< what the application's folder in `tree` was made of
        SxList<SxString> early;     ///< files and folders that a mount reads, relative to the drive's root
        ZqTaskMon* monitor;         ///< asked for a stop
        std::function<void()> look = {}; ///< called now and then while a tool works
        uint64 freeBytes = 0;            ///< room asked for, for what is written to the drive

        /// Whether the file at `path`, relative to the drive's root, is one of `early` or lies in one.
        bool isEarly(const SxString& path) const;
    };

    /// The maker for `type`. Raises where its tools aren't installed.
    static std::unique_ptr<ZqDriveMaker> get(FileSystem type);
    /// "erofs", "ext4", "squashfs".
    static FileSystem stringToType(const SxString& text);
    static SxString typeToString(FileSystem type);

    virtual ~ZqDriveMaker() = default;

    /// Bytes that the RAW image of `source` takes on the disk beyond its content.
    virtual uint64 getOverhead(const ZqSourceTree& /*source*/, uint64 /*freeBytes*/) const { return 0; }

    struct Drive {
        std::vector<ZqBlockKind> kinds; ///< by RAW index; what is File is surely no other
        /// Where the files lie, in no order. None with a file system that packs several files into a block.
        std::optional<std::vector<ZqFileTable::Row>> files;
    };

    /// Makes the RAW image, a whole number of blocks.
    Drive make(const Job& job) const;

protected:
    static constexpr const char* UUID = "5a1f6d0c-8b7e-4c39-9e52-3d6a7f10c4b8";
    static constexpr const char* HASH_SEED = "c2f0a9d4-61e8-4b75-8a3d-92e7b5406f1c";
    static constexpr const char* TIME = "1000000000"; ///< of all files; seconds since 1970

    virtual void format(const Job& job) const = 0;
    /// Finds what `drive` is to have. All its blocks are Metadata so far.
    virtual void survey(const Job& job, Drive* drive) const = 0;
    /// The same by a walk of the fresh drive.
    static void followFiles(const Job& job, ZqDriveWalk* walk, Drive* drive);
};
