#pragma once

#include "SxIndexSet.h"
#include "ZqDriveReader.h"

#include <functional>
#include <string_view>
#include <vector>

/// Follows all folders of a drive's file system down to the blocks of its files. The drive may be damaged, or
/// made to do harm: every number is checked before it is used, no folder is entered twice, no path is longer
/// than MAX_PATH, and neither names nor blocks are more than the drive can have. One thread.
class ZqDriveWalk {
public:
    /// Bytes of a path; more than any system opens.
    static constexpr uint64 MAX_PATH = 8192;

    // What the file systems that are known have in common, as Linux has it: modes of inodes, and below, types
    // in folders.
    static constexpr uint64 MODE_TYPE = 0xF000, MODE_DIR = 0x4000, MODE_FILE = 0x8000, MODE_LINK = 0xA000;

    /// RAW blocks.
    struct Extent {
        uint64 first, count;
        bool operator==(const Extent&) const = default;
    };
    struct File {
        std::vector<SxString> paths; ///< its names, relative to the drive's root, sorted by their bytes
        uint64 size = 0;             ///< bytes
        std::vector<Extent> extents; ///< in the file's order, as few as can be; without holes
    };

    /// Whether something in a folder can have that name.
    static bool isName(std::string_view text) {
        constexpr std::string_view NONE("/\0", 2);
        return !text.empty() && text.find_first_of(NONE) == std::string_view::npos;
    }

    virtual ~ZqDriveWalk() = default;
    ZqDriveWalk(const ZqDriveWalk&) = delete;
    ZqDriveWalk& operator=(const ZqDriveWalk&) = delete;

    /// Has more memory than that, in bytes, never be taken for names; enough for twenty million files at
    /// first.
    void setMostMemory(uint64 bytes) { most = bytes; }
    /// Finds the names of all files, which comes first. Raises where the drive is damaged, naming it.
    void findNames();
    /// Shows each file once, in the order of their inodes. Raises as findNames() does.
    void visitFiles(const std::function<void(const File&)>& visit);

    struct Folder {
        uint64 inode;
        size_t parent;     ///< its place in getFolders(); the root is its own
        uint64 pathLength; ///< bytes, with a trailing slash
        std::string name;
    };
    /// What findNames() has found. The root comes first, and each folder after its parent.
    const std::vector<Folder>& getFolders() const { return folders; }
    /// Inodes of files, sorted, each once.
    std::vector<uint64> getFiles() const;
    /// Inodes of what is neither file nor folder, sorted, each once.
    std::vector<uint64> getOthers() const;

protected:
    enum class Kind { File, Folder, Other };

    static Kind kindOf(uint64 type) {
        return type == 1 ? Kind::File : type == 2 ? Kind::Folder : Kind::Other;
    }
    static uint64 number(const std::string& bytes, size_t at, size_t nBytes) {
        return ZqDriveReader::number(bytes, at, nBytes);
    }

    explicit ZqDriveWalk(ZqDriveReader* reader_) : reader(reader_) {}

    /// Calls add() for each name in a folder but "." and "..".
    virtual void listFolder(uint64 inode) = 0;
    /// Sets size and extents.
    virtual void readFile(uint64 inode, File* file) = 0;

    void setRoot(uint64 inode) { rootInode = inode; }
    void add(uint64 inode, Kind kind, std::string_view name);
    /// Raises where the blocks lie beyond the drive.
    void requireBlocks(uint64 firstRaw, uint64 count) const;
    /// To be called with the number of blocks that something has for itself; raises where all together are
    /// more than the drive has.
    void takeBlocks(uint64 count);
    static void append(std::vector<Extent>* extents, const Extent& next);
    /// `what` is a clause.
    SxException damage(const SxString& what, int line) const;

    ZqDriveReader* reader;

private:
    struct Name {
        uint64 inode;
        size_t folder;
        std::string name;
    };

    SxString pathIn(size_t folder, const std::string& name);

    uint64 rootInode = 0;
    std::vector<Folder> folders;
    std::vector<Name> names;        ///< of files
    std::vector<uint64> others;     ///< an inode for each name
    SxIndexSet entered{0};          ///< inodes of folders
    size_t current = 0;             ///< the folder that is listed
    uint64 nBlocks = 0, nBytes = 0; ///< taken; of names
    uint64 most = uint64{2} << 30;  ///< of those
    size_t lastFolder = 0;          ///< that of `lastPath`
    std::string lastPath;
};
