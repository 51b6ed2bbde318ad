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
///   detach FOLDER LOOP|- FILE        unmounts; says `busy` where it was in use, and was detached
///   redirect VOLUME PRIVATE NAME...  puts the private copies of names in the place of the volume's
///   restore VOLUME                   undoes that; may say `busy`
///   sweep FOLDER                     removes every mount and loop device below the folder
///
/// Raises SxException.
void run(const SxList<SxString>& arguments);

/// Writes one fact.
void tell(const std::string& name, const std::string& value);

} // namespace HelperOps
