#pragma once

#include "SxString.h"

/// One file of a 7z archive. What else the archive holds must not come among the files of a folder.
namespace ZqArchiveFile {
/// A folder beside the file, in which it is unpacked. A kill may leave it; the next call removes it.
constexpr const char* UNPACKED = "img.idx.unpacked/";

/// Takes the file `name` of `archive` into `folder` (with its trailing slash), where it replaces one of that
/// name when it is whole and on the device. False where the archive hasn't got it. Raises as
/// ZqArchive::extract7z() does.
bool take(const SxString& archive, const SxString& folder, const char* name);
/// Removes what a kill has left in `folder`.
void removeLeft(const SxString& folder);
} // namespace ZqArchiveFile
