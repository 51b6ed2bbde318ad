#pragma once

#include "DriveFile.h"

#include <string>

/// The folder of an image, kept open for a drive that makes, replaces and removes files by their names in it.
/// When the folder is moved away these names still mean its files, whatever comes in its place. Safe from any
/// thread.
class ImageFolder {
public:
    /// Opens a host path with its trailing slash. Raises, naming it.
    explicit ImageFolder(const std::string& path_);
    ~ImageFolder();
    ImageFolder(const ImageFolder&) = delete;
    ImageFolder& operator=(const ImageFolder&) = delete;

    /// As it was when it was opened; for texts.
    const std::string& getPath() const { return path; }
    /// Whether nothing has that name. Raises.
    bool isGone(const char* name) const;
    /// Whether the open file still has that name here.
    bool holds(const DriveFile& file, const char* name) const;
    /// Opens a file with SxOs flags, as DriveFile::open() does.
    void open(DriveFile* file, const char* name, unsigned flags) const;
    /// These give 0 or an errno value. sync() returns when the names are on the device.
    int unlink(const char* name) const { return -SxOs::get().unlinkIn(fd, name); }
    int rename(const char* from, const char* to) const { return -SxOs::get().renameIn(fd, from, to); }
    int sync() const { return -SxOs::get().syncDirFd(fd); }

private:
    const std::string path;
    const int fd;
};
