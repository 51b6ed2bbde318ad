#pragma once

#include "SxList.h"
#include "SxOs.h"

#include <vector>

class ZqTaskMon;

/// A folder that is to become the content of a drive: its files, folders and symbolic links by path. Sockets,
/// pipes and devices are passed over. One thread.
///
/// The tools of Debian 12 that make a file system read a folder, and it must have the drive's layout and
/// permissions. So a tree is made of second names of the files: hard links cost neither time nor room, and
/// nothing writes through them. A file gets a copy instead where its own permissions won't do, where the
/// system refuses a link (another file system, or another user's file), or where it has come up before under
/// another name.
class ZqSourceTree {
public:
    struct Entry {
        SxString relPath;
        SxStat::Kind kind;
        int64 size = 0;         ///< bytes of a file
        uint32 permissions = 0; ///< that it gets on the drive
        bool linkable = false; ///< a second name of the file itself will do, where the file system allows one
    };

    /// Reads the folder `source` (with its trailing slash). Raises where it can't be read, and on a symbolic
    /// link that is absolute, leads out of the folder, or back into itself. On the player's machine a link
    /// that leads out would lead to whatever stands there, and without it the drive would lack a file. Ends
    /// early where `job` is asked to stop.
    ZqSourceTree(const SxString& source, const ZqTaskMon& job);

    /// Raises where a file can't be opened.
    void requireReadable(const ZqTaskMon& job) const;
    /// Makes the same tree in the folder `target` (with its trailing slash, made here), with the permissions
    /// of the drive: as second names of the files where that can be had, else as copies, which count as
    /// progress of `job`.
    void placeIn(const SxString& target, ZqTaskMon* job) const;
    /// Bytes that placeIn() must copy at least when `target` lies on this device.
    uint64 bytesToCopy(uint64 targetDevice) const;

    /// Makes a folder with the permissions of the drive, whatever the mask of the process.
    static void makeFolder(const SxString& path);
    static void setPermissions(const SxString& path, uint32 permissions);

    /// In each folder by name, a folder before what it holds.
    const std::vector<Entry>& getEntries() const { return entries; }
    bool holdsFile(const SxString& relPath) const;
    int64 count(SxStat::Kind kind) const;
    int64 getNSkipped() const { return nSkipped; }
    /// Sum of the files' sizes.
    uint64 getBytes() const;
    /// The same in whole blocks.
    uint64 getNBlocks() const;

private:
    void refuseLeavingLink(const SxString& relPath, const std::string& canonicalRoot) const;
    void placeFile(const Entry& entry, const SxString& to, ZqTaskMon* job) const;

    const SxString source;
    std::vector<Entry> entries;
    uint64 device = 0; ///< of the folder itself
    int64 nSkipped = 0;
};
