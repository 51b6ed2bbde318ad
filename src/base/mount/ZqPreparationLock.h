#pragma once

#include "SxString.h"

#include <string>

/// The right to lay out the private side of an application, or to remove it, for one at a time across
/// processes; else one would rename or remove what another is still copying. The other one is refused, as it
/// would be when it redirects to a folder in use. It is a lock on the first byte of a file in the
/// application's folder, which stays there. File systems without locks keep nobody apart. One thread.
class ZqPreparationLock {
public:
    /// `directory`: the folder of the application, which is made, for its user alone, where it isn't there.
    /// Raises where another one has the right.
    explicit ZqPreparationLock(const SxString& directory);
    ~ZqPreparationLock();
    ZqPreparationLock(const ZqPreparationLock&) = delete;
    ZqPreparationLock& operator=(const ZqPreparationLock&) = delete;

    /// Removes the folder with all that is in it, the file of the lock last: whoever comes then makes it
    /// anew.
    void removeFolder() const;

private:
    const SxString directory, file;
    const std::string host;
    int fd = -1;
};
