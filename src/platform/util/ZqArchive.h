#pragma once

#include "SxList.h"
#include "SxString.h"

#include <functional>

/// 7z archives (by libarchive) and Zstandard frames (RFC 8878). Any number of calls may run at once on
/// different targets; each uses the calling thread only. All raise SxException naming the file at fault.
class ZqArchive {
public:
    /// Bytes of the source read so far; false asks for a stop.
    using Progress = std::function<bool(int64 nRead)>;

    /// Unpacks a 7z archive into `folder`, which is made if it is missing. Files get permissions 0600,
    /// folders 0755; existing files of the same names are replaced, all else in the folder stays. Everything
    /// is unpacked into a staging folder inside `folder`, brought to the device and only then moved to its
    /// place, so a failure leaves the folder as it was.
    ///
    /// Raises, naming archive and entry, on an archive that is damaged or cut short, isn't 7z, or holds
    /// anything but files and folders; on a name that is absolute, holds "..", a drive letter or a backslash,
    /// leads through a link, or comes twice; and, before the entry is written, where the sizes that the
    /// entries declare go beyond the free space.
    static void extract7z(const SxString& archive, const SxString& folder);
    /// Packs the files `names` (relative to `folder`, with "/" between parts) into a new 7z archive, which
    /// replaces an older one only when it is complete and on the device. `level` is 0 to 9; a map packed at
    /// level 6 is 3 % smaller than at level 1 and takes six times as long.
    static void compress7z(const SxString& archive, const SxString& folder, const SxList<SxString>& names,
                           int level = 1);

    /// Writes a Zstandard-compressed copy of `from`, one frame with the content's size and checksum, to `to`,
    /// and brings it to the device. `level` is one that the zstd library takes. False where `progress` asked
    /// for a stop; then, and on a failure, `to` is removed.
    static bool compressZSTD(const SxString& from, const SxString& to, int level,
                             const Progress& progress = nullptr);
    /// The reverse. The frame must declare its size, which must fit into the free space and be what comes
    /// out, and nothing may follow it. Takes windows of up to 128 MiB. `to` is removed on a failure.
    static void decompressZSTD(const SxString& from, const SxString& to);
};
