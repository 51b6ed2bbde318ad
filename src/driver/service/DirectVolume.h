#pragma once

#include "SxMutex.h"
#include "VirtualDisk.h"

#include <memory>

/// What lets the kernel serve a complete image by itself: the metadata of its EROFS in a file of their own,
/// whose files point into `img.zqf` (ErofsMetadata). That file has no name, so nobody can exchange it. It
/// lies in the image's folder, since the kernel takes no metadata on a tmpfs, as the service's own folder is.
class DirectVolume {
public:
    /// Why the service has to serve a disk with that file system; empty where the kernel may.
    static SxString whyNot(const VirtualDisk& disk, const SxString& type, bool isReadOnly);

    /// Makes the metadata, or takes those of `former` where the image is still what they were made of (null
    /// for none). `image`: its folder. Raises where they can't be made, or the kernel shouldn't be given
    /// them. Beside anything.
    static std::shared_ptr<const DirectVolume> make(const VirtualDisk& disk, const SxString& image,
                                                    const std::shared_ptr<const DirectVolume>& former);
    ~DirectVolume();
    DirectVolume(const DirectVolume&) = delete;
    DirectVolume& operator=(const DirectVolume&) = delete;

    int getFd() const { return fd; }
    /// Whether most of `img.zqf` is in memory: then the kernel reads through that, else past it.
    static bool isCached(const VirtualDisk& disk);

private:
    DirectVolume(const SxString& image, const std::string& state);

    void fill(const VirtualDisk& disk);

    const int fd;
    const std::string state; ///< of the image's files
};

/// The metadata that were made last, for a moment: each mount of an image is made twice. Safe from any
/// thread.
class LastDirectVolume {
public:
    std::shared_ptr<const DirectVolume> get() const;
    void set(std::shared_ptr<const DirectVolume> volume_);
    /// To be called now and then. Drops what was kept for long enough: it takes room on the image's disk.
    void tick();

private:
    mutable SxMutex mutex;
    std::shared_ptr<const DirectVolume> volume SX_GUARDED_BY(mutex);
    int64 setNs SX_GUARDED_BY(mutex) = 0;
};
