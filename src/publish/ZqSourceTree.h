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
///
/// A link leads out where it is absolute, climbs above the folder, or comes to something outside of it by way
/// of other links. On the player's machine such a link would lead to whatever stands there, and without it
/// the drive would lack a file. Links that are followed give way to a copy of what they lead to. In a folder
/// that comes in so, links within that folder stay links, and those that lead out of it are followed in turn.
class ZqSourceTree {
public:
    struct Entry {
        SxString relPath;
        SxString from; ///< where it is read; elsewhere than in the folder for what a link has brought in
        SxStat::Kind kind;
        int64 size = 0;         ///< bytes of a file
        uint32 permissions = 0; ///< that it gets on the drive
        bool linkable = false; ///< a second name of the file itself will do, where the file system allows one
    };

    /// Reads the folder `source` (with its trailing slash). Raises where it can't be read, on a symbolic link
    /// that leads back into itself, and, naming all of them, on links that lead out. With `followsLinks` the
    /// latter are followed, and those raise that lead to nothing, to what is neither file nor folder, or to a
    /// folder that holds them. Ends early where `job` is asked to stop.
    ZqSourceTree(const SxString& source, const ZqTaskMon& job, bool followsLinks = false);

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
    /// What links that were followed lead to: the real path of each file and folder.
    const std::vector<SxString>& getFollowed() const { return followed; }
    /// Sum of the files' sizes.
    uint64 getBytes() const;
    /// The same in whole blocks.
    uint64 getNBlocks() const;

private:
    struct Place;
    struct Reading;
    void read(const Place& place, Reading* reading);
    void take(Entry entry, const SxStat& stat, const Place& place, Reading* reading);
    void takeLink(const Entry& entry, const Place& place, Reading* reading);
    static void placeFile(const Entry& entry, const SxString& to, ZqTaskMon* job);

    const SxString source;
    std::vector<Entry> entries;
    std::vector<SxString> followed;
    uint64 device = 0; ///< of the folder itself
    int64 nSkipped = 0;
};
