#pragma once

#include "SxOs.h"

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

/// What isn't durable yet in a folder, for FaultOs, whose comment states the model. Each operation is told of
/// before it is done. Not locked. Replaced and removed files are held by second names in a folder beside the
/// watched one.
class PendingChanges {
public:
    explicit PendingChanges(const std::string& folder);
    ~PendingChanges();
    PendingChanges(const PendingChanges&) = delete;
    PendingChanges& operator=(const PendingChanges&) = delete;

    /// The name is about to be made, replaced or removed.
    void changeName(const std::string& path);
    /// The same for both names of a rename. That of a folder is told after it is done, by moveFolder().
    void rename(const std::string& from, const std::string& to);
    void moveFolder(const std::string& from, const std::string& to);
    /// The open file has been made just now.
    void makeFile(int fd);
    /// `newBytes` are about to be written at `offset`, or, without bytes, the size to be set.
    void changeFile(int fd, int64 offset, std::string newBytes, int64 newSize);

    void syncFile(int fd);
    /// A sync of the file has failed: what it should have brought to the device is in memory alone, and no
    /// later sync brings it there. Writing to a page again does.
    void loseFile(int fd);
    void syncFolder(const std::string& path);
    void syncAll();

    /// Takes back what is pending, with `random` only some of it, and forgets about it.
    void crash(std::mt19937_64* random);

private:
    using Inode = std::pair<uint64, uint64>;
    /// One change of a file's bytes or size, with what it takes to undo and to redo it.
    struct Change {
        int64 offset;
        std::string oldBytes, newBytes;
        int64 oldSize, newSize;
    };
    /// What durably stands under a name that has changed since.
    struct Name {
        enum Was { Absent, Kept, Folder } was;
        std::string grave; ///< second name of a kept file or link
        int64 group;       ///< names of one rename share it
    };
    struct FolderMove {
        std::string from, to;
        bool fromDurable = false, toDurable = false;
    };

    void rekey(const std::string& from, const std::string& to);
    void eraseNames(const std::string& prefix);
    void undoMoves(std::mt19937_64* random);
    void restoreNames(std::mt19937_64* random);
    void restoreFiles(std::mt19937_64* random);
    void restoreLost();

    const std::string folder, graveyard;
    std::map<Inode, std::vector<Change>> changes;
    /// Pages that no sync brings to the device, by their offset, with what it has there.
    std::map<Inode, std::map<int64, std::string>> lost;
    std::map<std::string, Name> names; ///< by path, so a folder comes before what it holds
    std::vector<FolderMove> moves;
    int64 nGraves = 0, nGroups = 0;
};
