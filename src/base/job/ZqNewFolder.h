#pragma once

#include "SxString.h"

#include <vector>

/// A folder that something is made in. Makes it, and those above it that are missing. The destructor removes
/// those that were made here, as far as they are empty, unless keep() was called. One thread.
class ZqNewFolder {
public:
    explicit ZqNewFolder(const SxString& path);
    ~ZqNewFolder() { remove(); }
    ZqNewFolder(const ZqNewFolder&) = delete;
    ZqNewFolder& operator=(const ZqNewFolder&) = delete;

    /// Whether the folder was made here.
    bool isNew() const { return !made.empty(); }
    /// Returns when the names of the new folders are on the device.
    void sync() const;
    void keep() { made.clear(); }

private:
    void remove();

    std::vector<SxString> made;
};
