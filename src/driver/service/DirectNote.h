#pragma once

#include "MountParams.h"

#include <optional>

/// What a service notes of a disk whose volume the kernel serves, in the disk's folder: that goes on where
/// the service is killed, and the next service takes the disk over by this.
struct DirectNote {
    MountParams params;
    uint64 madeNs = 0;                  ///< when the disk was made
    int64 mounterPid = 0;               ///< the process that has it mounted
    bool ready = false;                 ///< all of its mount was done
    bool isRedirected = false;          ///< names on it were redirected
    SxString device;                    ///< of the mounted file system, "major:minor"
    SxString readAhead;                 ///< the kernel's setting for it; empty without one
    uint64 zqfDevice = 0, zqfInode = 0; ///< the file `img.zqf` that the kernel reads

    /// That of the EROFS at `volume`; empty where there is none. Raises where the mounts can't be read.
    static SxString deviceAt(const SxString& volume);
    /// Writes it into the disk's folder. Raises.
    void write(const SxString& folder) const;
    /// From now on the disk isn't taken over.
    static void remove(const SxString& folder);
    /// That of the folder, if there is a whole one, and the volume is still the one that it was written for.
    /// Looks at nothing of the image, whose disk may be stuck. Raises where the mounts can't be read.
    static std::optional<DirectNote> readFitting(const SxString& folder);
    /// That of a disk in another mount namespace, where what it says can't be looked at. Raises where it
    /// can't be read.
    static std::optional<DirectNote> readOther(const SxString& folder);

private:
    static std::optional<DirectNote> read(const SxString& file);
};
