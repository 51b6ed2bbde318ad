#pragma once

#include "MountParams.h"
#include "SxOs.h"

/// What a service notes of a disk whose volume the kernel serves, in the disk's folder: that goes on where
/// the service is killed, and the next service takes the disk over by this.
struct DirectNote {
    MountParams params;
    uint64 madeNs = 0;         ///< when the disk was made
    int64 mounterPid = 0;      ///< the process that has it mounted
    bool ready = false;        ///< all of its mount was done
    bool isRedirected = false; ///< names on it were redirected
    SxString device;           ///< of the mounted file system, "major:minor"
    SxString readAhead;        ///< the kernel's setting for it; empty without one
    uint64 nIncluded = 0;      ///< blocks of the image, all of which are there
    /// What tells a file from another one, and from itself with other bytes. Locks, leases, rights and
    /// further names don't change it.
    struct File {
        uint64 device = 0, inode = 0;
        int64 size = 0, modifiedNs = 0;
        bool operator==(const File&) const = default;
        static File of(const SxStat& info);
    };
    File zqf, idx; ///< `img.zqf`, which the kernel reads, and the map that its metadata were made by

    /// That of the EROFS at `volume`; empty where there is none. Raises where the mounts can't be read.
    static SxString deviceAt(const SxString& volume);
    /// Writes it into the disk's folder. Raises.
    void write(const SxString& folder) const;
    /// From now on the disk isn't taken over.
    static void remove(const SxString& folder);
    /// Whether the folder has one of this mount namespace, sound or not. It does from the end of a disk's
    /// mount to the begin of its unmount.
    static bool exists(const SxString& folder);
    /// That of the folder. Raises where it is damaged, where the volume isn't the one that it was written
    /// for, or where the mounts can't be read. Looks at nothing of the image, whose disk may be stuck.
    static DirectNote readFitting(const SxString& folder);
    /// Whether the folder has one of another mount namespace, where the volume can't be looked at.
    static bool existsElsewhere(const SxString& folder);
    /// That one. Raises where it is damaged.
    static DirectNote readElsewhere(const SxString& folder);

private:
    static DirectNote read(const SxString& file);
};
