#pragma once

#include "SxString.h"

/// States in `trace.json` of the folder `path` (with its trailing slash) what has been recorded: the size of
/// `img.trc` in bytes and its MD5 text. Whatever else stands there stays, known or not. Without a
/// `trace.json`, as on the mount that only prepares a drive, nothing is done. Raises.
void stateRecorded(const SxString& path, uint64 size, const SxString& digest);
