#pragma once

#include "DirectNote.h"

#include <functional>
#include <map>

/// What a service that was killed has left below the service's folder, for the next one before that serves:
/// every mount, loop device, letter and folder, found by its place. Volumes that the kernel serves go on, and
/// are taken over where that can be done; all else goes.
namespace Leftovers {

/// A disk whose volume the kernel still serves.
struct Found {
    enum Kind {
        Sound,    ///< can be taken over
        Taking,   ///< is being taken over, and no longer waits for its image
        Unfit,    ///< can't be, and stays until somebody wants it to go
        Elsewhere ///< is another mount namespace's, where nobody here can use, judge or remove it
    };
    Kind kind;
    DirectNote note; ///< of one without a sound note nothing but the image's path
    SxString why;    ///< it isn't taken over, for users
};
/// By device id.
using Disks = std::map<uint64, Found>;

/// Where nothing else is said, `folder` is the service's own, with a trailing slash, and `root` the machine
/// root.

/// Lists those disks.
Disks findServed(const SxString& folder);
/// Told of each image whose disk is about to go, and whether programs may have written to that.
using Note = std::function<void(const SxString& image, bool isWritten)>;
/// Removes all but `kept`. Gives those that can't be removed now, as from a disk that is stuck.
Disks sweep(const SxString& root, const SxString& folder, const Disks& kept, const Note& note);
/// Removes one disk, and gives whether programs used its volume, which was detached all the same. Raises
/// where that can't be done, or a mount of it hasn't ended.
bool remove(const SxString& root, const SxString& folder, uint64 deviceId, const Note& note);

} // namespace Leftovers
