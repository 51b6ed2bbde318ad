#pragma once

#include "SxMutex.h"
#include "VirtualDisk.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

/// What lets the kernel serve a complete image by itself: the metadata of its EROFS in a file of their own,
/// whose files point into `img.zqf` (ErofsMetadata). That file has no name, so nobody can exchange it. It
/// lies in the image's folder, since the kernel takes no metadata on a tmpfs, as the service's own folder is.
class DirectVolume {
public:
    /// Why the service has to serve a disk with that file system; empty where the kernel may.
    static SxString whyNot(const VirtualDisk& disk, const SxString& type, bool isReadOnly);

    /// Makes the metadata. `image`: its folder; `state`: what stateOf() gave before. `look` is called now and
    /// then, and may raise to stop it. Raises where they can't be made, or the kernel shouldn't be given
    /// them. Beside anything.
    DirectVolume(const VirtualDisk& disk, const SxString& image, std::string state,
                 const std::function<void()>& look);
    DirectVolume(const DirectVolume&) = delete;
    DirectVolume& operator=(const DirectVolume&) = delete;

    int getFd() const { return file.fd; }
    /// Whether most of `img.zqf` is in memory and will stay there: then the kernel reads through that, else
    /// past it. Read past it, even single blocks in random order come as fast as through the service, so no
    /// order is cut too finely for the kernel. Read through it, they would come from the disk at a third of
    /// that, and which of both it is can't be changed after the mount. So an image that takes more than a
    /// quarter of the machine's memory, and is likely to be driven from there by the game, is read past it.
    static bool isCached(const VirtualDisk& disk);
    /// KiB that the kernel is to read in advance.
    static const char* readAhead(bool isCached);

    /// What changes when the image's files are changed or replaced. Raises.
    static std::string stateOf(const VirtualDisk& disk, const SxString& image);
    const std::string& getState() const { return state; }

private:
    void fill(const VirtualDisk& disk, const std::function<void()>& look);

    /// Closed by the last of those who have the file.
    struct File {
        int fd;
        ~File();
    };
    const File file;
    const std::string state;
};

/// The metadata of the images that are being mounted, which each is twice, and the disks from which the
/// kernel takes none. Safe from any thread, and no file is closed with its lock held.
///
/// A file that is kept open keeps its file system in use, and its room on the disk. So it goes with the end
/// of the mount, however that comes: see drop() and dropEnded().
class DirectVolumes {
public:
    using Ptr = std::shared_ptr<const DirectVolume>;

    /// Those of the image, made where there are none or the image has changed; as the constructor of
    /// DirectVolume. `mounterPid`: who mounts it; 0 for unknown.
    Ptr get(const VirtualDisk& disk, const SxString& image, int64 mounterPid,
            const std::function<void()>& look);
    /// No further mount of the image follows.
    void drop(const SxString& image);
    /// Drops those whose mounter has ended, or should long have come to the second mount, which makes them
    /// anew else.
    void dropEnded();

    /// The kernel took no image from where that one lies; it isn't asked again, since all metadata would be
    /// made in vain. These raise where the folder can't be looked at.
    void noteUnable(const VirtualDisk& disk, const SxString& image);
    bool isUnable(const VirtualDisk& disk, const SxString& image) const;

private:
    struct Kept {
        Ptr volume;
        int64 mounterPid = 0, sinceNs = 0;
        bool hasEnded(int64 nowNs) const;
    };
    mutable SxMutex mutex;
    std::map<SxString, Kept> volumes SX_GUARDED_BY(mutex); ///< by image
    /// The devices of a folder, where metadata would lie, and of the file `img.zqf`: it may be either that
    /// the kernel refuses, and only a file that is mounted by itself lies elsewhere than its folder.
    using Place = std::pair<uint64, uint64>;
    static Place placeOf(const VirtualDisk& disk, const SxString& image);
    std::set<Place> unable SX_GUARDED_BY(mutex);
};
