#pragma once

#include "SxArray.h"

/// Writes the first 4096 bytes of `data` into the log as a hex dump, 16 bytes a line. Safe from any thread.
void blockPrint(const SxArray<char>& data);
