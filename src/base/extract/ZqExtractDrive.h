#pragma once

#include "ZqMountMgr.h"

#include <functional>

/// The drive of an extraction, which only reads from it. It goes with this object, whatever comes in between.
/// A job that is killed leaves it; the next one finds it by a note in the image folder. One thread.
class ZqExtractDrive {
public:
    using Log = std::function<void(const SxString& text)>;

    /// `image_`: its folder, a host path. `log_` is told of an unmount that fails in the destructor.
    ZqExtractDrive(const SxString& image_, Log log_) : image(image_), log(std::move(log_)) {}
    ~ZqExtractDrive();
    ZqExtractDrive(const ZqExtractDrive&) = delete;
    ZqExtractDrive& operator=(const ZqExtractDrive&) = delete;

    /// Mounts and gives the mount point. What a run needs beside the files isn't set up: launchers, registry
    /// entries and redirections.
    SxString mount(const ZqAppParams& app);
    /// Notes that the drive is that of an extraction to that folder.
    void note(const SxString& destination) const;
    void umount();

    /// Whether the image is mounted for somebody else.
    static bool isForeign(const SxString& image);
    /// Unmounts what a job that was killed has left.
    static void removeLeft(const SxString& image);

private:
    const SxString image;
    const Log log;
    ZqMountMgr manager;
    bool isMounted = false;
};
