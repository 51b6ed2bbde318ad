#pragma once

#include "SxString.h"

#include <string>

/// A new file under a name of its own beside `path`, for what is to become that file. The name keeps two
/// writers of one file from renaming each other's half. As long as the object lives, a lock on the file tells
/// others that its writer lives. So the writer opens this file by its path, and makes no other in its place.
/// The destructor removes it unless commit() was called. One thread.
class SxTemporaryFile {
public:
    /// Makes the file, empty, and removes what writers of `path` have left that have ended. Raises, naming
    /// the file.
    SxTemporaryFile(const SxString& path, int permission);
    ~SxTemporaryFile();
    SxTemporaryFile(const SxTemporaryFile&) = delete;
    SxTemporaryFile& operator=(const SxTemporaryFile&) = delete;

    /// The file to write.
    const SxString& getPath() const { return name; }
    /// Renames the file, which the caller has synced, to `path`, and syncs the folder. Raises.
    void commit();

    /// Removes what writers of `path` have left that have ended. What can't be told or removed stays.
    static void removeDead(const SxString& path);
    /// Whether `name` is one that such a file has for `of`; both without their folder.
    static bool isName(const SxString& name, const SxString& of);
    /// The name that a file of such a name is to get; empty where it is none. Both without their folder.
    static SxString targetOf(const SxString& name);

private:
    const SxString path;
    SxString name;
    std::string host;
    int fd = -1;
    bool isRenamed = false;
};
