#pragma once

/// Whether the kernel may read an image's file through the page cache. Such a read runs in the process that
/// wants the data and ends early where that is killed. Some kernels take a read that comes short for the end
/// of the file: they fill what is missing with zeros, which all later readers get, too.
namespace CacheTrust {

/// Mounts the EROFS metadata of descriptor `metadata` out of sight, with an empty file for the blocks, and
/// reads from it: true where that fails, as it should. False as well where nothing can be found out, as in an
/// image without data. Takes root; raises nothing.
bool isEarned(int metadata);

} // namespace CacheTrust
