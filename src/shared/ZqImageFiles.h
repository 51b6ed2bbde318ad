#pragma once

/// The fixed file names of an image folder.
namespace ZqImageFiles {
constexpr const char* ZQF = "img.zqf";                         ///< the blocks in ZqF order
constexpr const char* SYNCED = ".synced";                      ///< after a growing file's name, ZqSyncedSize
constexpr const char* PACKED = "img.zqf.zst";                  ///< the same, packed for delivery
constexpr const char* AHEAD = "img.ahead";                     ///< stretches beyond the end of img.zqf
constexpr const char* AHEAD_IDX = "img.ahead.idx";             ///< which of them, see ZqStretchStore
constexpr const char* IDX = "img.idx";                         ///< the map from RAW to ZqF indices
constexpr const char* IDX_PACKED = "img.idx.zst";              ///< the same, packed for delivery
constexpr const char* IDX_7Z = "img.idx.7z";                   ///< the map in an archive
constexpr const char* IDX_MD5 = "img.idx.md5";                 ///< digest of the map, optional
constexpr const char* FILES = "img.files";                     ///< where the drive's files lie, ZqFileTable
constexpr const char* HINTS = "img.hints";                     ///< ZqOrderHints
constexpr const char* IMAGE_JSON = "img.json";                 ///< ZqImageParams
constexpr const char* APP_JSON = "app.json";                   ///< ZqAppParams
constexpr const char* RUNTIME_JSON = "runtime.json";           ///< ZqRuntimeInfo
constexpr const char* STREAM_JSON = "stream.json";             ///< ZqStreamRecord
constexpr const char* TRACES = "traces/";                      ///< the traces of runs, a folder each
constexpr const char* RUNS = "runs/";                          ///< records of runs, see ZqRunRecord
constexpr const char* PREPARATIONS = "runs/preparations.json"; ///< ZqPreparations
constexpr const char* TRACES_NOTE = "traces.txt";              ///< ZqRunTraces
constexpr const char* SPLIT_INFO = "img.zqf.info";             ///< the split record
constexpr const char* SPLIT_PART = "img.zqf.part";             ///< a part's name, followed by its number
constexpr const char* SPLIT_JOURNAL = "img.zqf.split";  ///< the split record while a split is under way
constexpr const char* JOIN_INFO = "img.zqf.join";       ///< the split record while a join is under way
constexpr const char* LAYER_INDEX = "img.tix";          ///< the write layer's index
constexpr const char* LAYER_DATA = "img.tmp";           ///< the write layer's blocks
constexpr const char* LOCK = "image.lock";              ///< the lock file, see ZqImageLock
constexpr const char* STAGING = "image.new/";           ///< a new image on its way into the folder
constexpr const char* CHUNKS = "chunks/";               ///< what a download has yet to append
constexpr const char* REFERENCE = "imgRef.zqf";         ///< what the complete img.zqf holds, for tests
constexpr const char* OPTIMIZE_LOCK = "optimize.lock";  ///< blocks or records are on their way to a new order
constexpr const char* OPTIMIZE_WORK = "optimize.work/"; ///< what that needs, see ZqOptimizeFolder
constexpr const char* OPTIMIZE_INDEX = "optimize.index/"; ///< the order of a server, for a while
constexpr const char* PATCH_WORK = "patch.work/";         ///< a copy of the patch, see ZqPatchWork
constexpr const char* PATCH_PROGRESS = "patch.progress";
constexpr const char* EXTRACT_JSON = "extract.json"; ///< ZqExtractNote
constexpr const char* PATCHING_LOCK = "patching/img.lock";
} // namespace ZqImageFiles
