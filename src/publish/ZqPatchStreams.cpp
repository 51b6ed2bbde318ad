#include "ZqPatchStreams.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqDiffTask.h"
#include "ZqRunningTask.h"
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
    // Each tool works with several threads, and takes some hundreds of megabytes.
    const int64 nTools = std::max<int64>(SxSystemThread::getNCores() / 4, 2);
    try {
        for (size_t i = 0; i < std::min(static_cast<size_t>(nTools), parts.size()); ++i)
            makers.start("patch parts", [this] { makeParts(); });
    } catch (...) {
        isEnding = true;
        throw;
    }
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
        } catch (const SxException& e) {
            note(e);
        } catch (const std::exception& e) {
            note(SxException(e.what(), UNIT, __LINE__));
        }
        result.isEnded.set();
    }
}

/// The first failure ends all; what the others fail by is its consequence.
void ZqPatchStreams::note(const SxException& e) {
    {
        SxMutexBlock lock(&mutex);
        if (!failure) failure = e;
    }
    isEnding = true;
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
    ZqRunningTask child(&task);
    while (task.isRunning()) {
        if (isStopped()) task.stop();
        SxWait::pass(LOOK_MS, [&] { return !task.isRunning(); });
    }
    child.wait();
    if (task.hasException()) throw task.getException();
    for (const char* what : {OLD, NEW})
        removeFile(fileOf(part, what));
}

void ZqPatchStreams::raiseFailure() {
    isEnding = true;
    makers.wait();
    SxMutexBlock lock(&mutex);
    if (failure && !progress->stopRequested()) throw SxException(*failure);
    throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

ZqPatchInfo ZqPatchStreams::next(const std::function<void(const char* bytes, int64 n)>& take) {
    const size_t part = nTaken++;
    Made& result = *made[part];
    // A part that nobody has begun before a failure isn't made any longer.
    while (!result.isEnded.isSetWithin(LOOK_MS) && !isStopped()) {
    }
    if (!result.isEnded.isSetWithin(0) || !result.isRight) raiseFailure();
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
