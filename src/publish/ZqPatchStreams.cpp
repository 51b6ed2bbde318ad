#include "ZqPatchStreams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqDiffTask.h"
#include "ZqTaskMon.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqPatchStreams";
constexpr size_t BATCH = 256; ///< blocks that are read at a time
constexpr int64 PIECE = 1 << 20;
constexpr int64 LOOK_MS = 50;
constexpr const char *OLD = "old", *NEW = "new", *STREAM = "stream";

void removeFile(const SxString& path) {
    if (!SxFSAction::isGone(path)) SxFSAction::rm(path);
}

} // namespace

ZqPatchStreams::ZqPatchStreams(const ZqPatchSide& older_, const ZqPatchSide& newer_,
                               const std::vector<ZqPatchPart>& parts_, const SxString& scratch_,
                               ZqPatchCompression::Type compression_, int level_, ZqTaskMon* progress_)
    : older(older_),
      newer(newer_),
      parts(parts_),
      scratch(scratch_),
      compression(compression_),
      level(level_),
      progress(progress_) {
    for (size_t i = 0; i < parts.size(); ++i)
        made.push_back(std::make_unique<Made>());
    const auto n = std::min(static_cast<size_t>(SxSystemThread::getNCores()), parts.size());
    for (size_t i = 0; i < n; ++i)
        makers.start("patch parts", [this] { makeParts(); });
}

ZqPatchStreams::~ZqPatchStreams() {
    isEnding = true;
}

/// One after the other, as long as there are any.
void ZqPatchStreams::makeParts() {
    for (size_t part = claim(); part < parts.size(); part = claim()) {
        Made& result = *made[part];
        try {
            make(part);
            result.isRight = true;
        } catch (...) {
            result.isEnded.set();
            throw;
        }
        result.isEnded.set();
    }
}

/// The next part that nobody makes; their number where there is none.
size_t ZqPatchStreams::claim() {
    if (isStopped()) return parts.size();
    SxMutexBlock lock(&mutex);
    return nClaimed < parts.size() ? nClaimed++ : parts.size();
}

bool ZqPatchStreams::isStopped() const {
    return isEnding || progress->stopRequested();
}

SxString ZqPatchStreams::fileOf(size_t part, const char* what) const {
    return scratch + what + "_" + SxString(uint64{part});
}

void ZqPatchStreams::make(size_t part) {
    Made& result = *made[part];
    const bool isReplaced = compression == ZqPatchCompression::REPLACE;
    result.oldMd5 = write(older, parts[part].oldItems, isReplaced ? SxString() : fileOf(part, OLD));
    result.newMd5 = write(newer, parts[part].newItems, fileOf(part, isReplaced ? STREAM : NEW));
    if (!isReplaced) runTool(part);
    progress->addNCurrent(parts[part].newItems.size() * ZqPatchSide::BLOCK);
}

/// Writes the blocks of the items, and gives their digest. Without a file there are none.
SxMd5 ZqPatchStreams::write(const ZqPatchSide& side, const std::vector<uint32>& items,
                            const SxString& file) const {
    SxMd5 md5;
    SxFileIO out;
    if (!file.isEmpty()) out.open(file, "wb", 0600);
    ZqPatchSide::Reader reader(side);
    std::vector<char> bytes(BATCH * ZqPatchSide::BLOCK);
    for (size_t i = 0; i < items.size(); i += BATCH) {
        const auto batch = std::span(items).subspan(i, std::min(BATCH, items.size() - i));
        const auto n = static_cast<int64>(batch.size()) * ZqPatchSide::BLOCK;
        reader.read(batch, bytes.data());
        md5.update(bytes.data(), n);
        out.writeBuffer(bytes.data(), n);
    }
    md5.finish();
    return md5;
}

void ZqPatchStreams::runTool(size_t part) const {
    ZqDiffTask task(fileOf(part, OLD), fileOf(part, NEW), fileOf(part, STREAM), ZqPatchMemory::InMemory,
                    compression, level);
    task.start(6);
    while (task.isRunning()) {
        if (isStopped()) task.stop();
        SxWait::pass(LOOK_MS, [&] { return !task.isRunning(); });
    }
    task.wait();
    if (task.hasException()) throw task.getException();
    for (const char* what : {OLD, NEW})
        removeFile(fileOf(part, what));
}

ZqPatchInfo ZqPatchStreams::next(const std::function<void(const char* bytes, int64 n)>& take) {
    const size_t part = nTaken++;
    Made& result = *made[part];
    while (!result.isEnded.isSetWithin(LOOK_MS)) {
        if (progress->stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    }
    if (!result.isRight) {
        isEnding = true;
        makers.wait();
        throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    }
    ZqPatchInfo info;
    const auto list = [](const std::vector<uint32>& items) {
        SxArray<uint64> array(static_cast<int64>(items.size()));
        std::copy(items.begin(), items.end(), array.begin());
        return array;
    };
    info.oldMap = list(parts[part].oldItems);
    info.newMap = list(parts[part].newItems);
    info.oldMd5 = result.oldMd5;
    info.newMd5 = result.newMd5;
    {
        SxFileIO stream(fileOf(part, STREAM), "rb");
        std::vector<char> bytes(PIECE);
        while (const int64 n = stream.readBuffer(bytes.data(), PIECE)) {
            info.patchMd5.update(bytes.data(), n);
            info.patchSize += static_cast<uint64>(n);
            take(bytes.data(), n);
        }
        info.patchMd5.finish();
    }
    removeFile(fileOf(part, STREAM));
    return info;
}
