#pragma once

#include "SxList.h"
#include "SxString.h"

/// The operations that a helper process runs; results go to standard output, a name and a value a line.
namespace HelperOps {

/// Runs the operation that the first argument names:
///
///   attach file|loop FILE FOLDER TYPE ro|rw READAHEAD_KB
///                                    mounts the file system in FILE, itself or through a loop device; says
///                                    `readahead` (a setting of the kernel), `loop` (the device), `needsLoop`
///   attachDirect FOLDER READAHEAD_KB cached|uncached
///                                    mounts the EROFS of metadata in the first file that it was given, whose
///                                    blocks are in the second one, `img.zqf`; says `readahead`, or `unable`
///                                    and why, where the kernel takes none at all, or none from that disk;
///                                    whatever else is wrong is about this image. With `uncached` the kernel
///                                    reads past its cache of `img.zqf`, if it can
///   detach FOLDER LOOP|- FILE        syncs and unmounts; says `unmounted` where it was by then, `busy` where
///                                    it was in use, and was detached, `unsynced` why a sync failed
///   redirect VOLUME PRIVATE IMAGE NAME...
///                                    puts the private copies of names in the place of the volume's; says
///                                    `aside`, the folder that former copies were moved to
///   restore VOLUME                   undoes that; may say `busy`
///   readahead SETTING KB             writes a setting of the kernel that `attach` has told of
///   sweep FOLDER                     removes every mount and loop device below the folder; may say `busy`
///
/// Raises SxException.
void run(const SxList<SxString>& arguments);

/// Writes one fact.
void tell(const std::string& name, const std::string& value);

} // namespace HelperOps
