#pragma once

#include "SxString.h"

/// The files of a trace folder, by their names.
namespace ZqTraceFiles {
constexpr const char* ITEMS = "img.trc";        ///< the items, see ZqTrace
constexpr const char* RECORD = "trace.json";    ///< ZqTraceParams
constexpr const char* LOCK = "trace.lock";      ///< see ZqTraceLock
constexpr const char* SOURCES = "sources.json"; ///< see ZqTraceSources

/// Whether a file of that name is a trace's, or what a cut may have left of one.
bool isOwn(const SxString& name);
/// Whether a cut may have left a file of that name in a trace folder.
bool isRest(const SxString& name);
} // namespace ZqTraceFiles
