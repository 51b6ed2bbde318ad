#pragma once

#include "SxString.h"

/// Writes one line to the service's log, which is its standard error: local time, text. Control characters
/// are written as escapes. Safe from any thread.
void driverLog(const SxString& text);
