#pragma once

#include "SxList.h"
#include "SxString.h"

#include <string>

/// Puts private copies in the place of names of a mounted volume. A folder that both sides have gets a bind
/// mount of its private copy. For anything else its folder gets a writable overlay whose upper layer is the
/// private side: programs save a file by writing a new one beside it and renaming that over it, which a bind
/// mount of a file refuses. A name that the volume lacks has no place to mount on; the overlay of the nearest
/// folder that is there gives it one. Binds go on top of the overlays, since an overlay doesn't show mounts
/// inside its layers.
namespace Redirection {

/// `volume` and `directory` are host paths; `names` are relative to the volume's protected folder, and the
/// private copy of each is `directory`/<protected folder>/<name>. Raises on a name that could lead out of
/// these folders or through a link, where names of the volume are redirected already, where a drive of this
/// machine, of any service, uses the private copies, and where a mount fails; then nothing stays mounted.
/// `version` tells versions of the image apart. With another one than at the last time, what the private side
/// has beside these names and would hide from the volume goes into a dated folder first (FormerCopies); gives
/// that folder, or nothing.
std::string apply(const SxString& volume, const SxString& directory, const SxList<SxString>& names,
                  const std::string& version);

} // namespace Redirection
