#pragma once

#include "ZqImageFiles.h"

/// The fixed file names of a patch folder.
namespace ZqPatchFiles {
constexpr const char* RECORD = "patch.json"; ///< ZqPatchParams
constexpr const char* MAP = "map.idx";       ///< where the items of the old image are in the new one
constexpr const char* MAP_7Z = "map.7z";     ///< the same in an archive
constexpr const char* INFO = "patch.info";   ///< the parts, see ZqPatchInfo
constexpr const char* INFO_7Z = "patch.7z";  ///< the same in an archive
constexpr const char* DATA = "patch.data";   ///< the streams of the parts, one after the other
/// What every patch folder has, the record last.
constexpr const char* ALL[] = {MAP_7Z, INFO_7Z, DATA, ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON,
                               RECORD};
} // namespace ZqPatchFiles
