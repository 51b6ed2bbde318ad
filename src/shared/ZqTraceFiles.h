#pragma once

/// The fixed file names of a trace folder.
namespace ZqTraceFiles {
constexpr const char* ITEMS = "img.trc";     ///< the items, see ZqTrace
constexpr const char* RECORD = "trace.json"; ///< ZqTraceParams
constexpr const char* LOCK = "trace.lock";   ///< see ZqTraceLock
} // namespace ZqTraceFiles
