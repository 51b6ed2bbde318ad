#pragma once

#include "SxString.h"

/// The folder that a disk has for itself: where its file and its volume are mounted, and notes for clients
/// and for whoever tidies up after a service that was killed. Safe from any thread.
class DiskFolder {
public:
    /// Held over a mount that doesn't end with the service, by the service and by the helper that gets the
    /// descriptor: whoever tidies up after a service that was killed waits for it.
    class Mounting {
    public:
        /// Raises where the file can't be made.
        explicit Mounting(const DiskFolder& folder);
        ~Mounting();
        Mounting(const Mounting&) = delete;
        Mounting& operator=(const Mounting&) = delete;
        int getFd() const { return fd; }

        /// Whether no helper mounts anything in a disk's folder, or none does after `ms` milliseconds.
        static bool awaitEnd(const SxString& path, int64 ms);

    private:
        const std::string file;
        int fd;
    };

    explicit DiskFolder(const SxString& path_) : path(path_) {}

    const SxString& getPath() const { return path; }
    /// Where the disk is served as a file, and that file.
    SxString getFront() const;
    SxString getFile() const;
    /// Where its volume is mounted.
    SxString getVolume() const;

    /// These raise where a file can't be written.
    void noteImage(const SxString& image) const;
    void noteIdentity(uint64 deviceId) const;
    void makeMountPoints() const;
    /// Whether what programs wrote may not be on the disk yet.
    void noteWritten(bool isWritten) const;
    /// What the kernel calls a volume that it serves (ZqServiceFolder::KERNEL).
    void noteKernel(const SxString& names) const;
    /// Why the kernel may still have that volume, in whatever mount namespace, as a sentence; empty where it
    /// has ended for certain: no other one gets its name. Looks at no image.
    SxString whyServed() const;
    /// Removes the files in it and the folders that the disk has made, one by one: where a volume could not
    /// be unmounted, nothing of it must be touched.
    void remove() const;

private:
    const SxString path;
};
