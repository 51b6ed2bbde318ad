#include "ZqOrderedDownload.h"

#include "SxTime.h"
#include "ZqBlocks.h"

#include <cstring>

namespace {
/// Bytes that are pushed as one chunk, since each chunk costs a write.
constexpr int64 BATCH = 1 << 20;
/// How long bytes wait for more: the drive's readers wait for them.
constexpr int64 BATCH_NS = 10'000'000;
/// Bytes that may wait for the disk, so that the writer needs no pace. They are less than what ZqRemoteImage
/// keeps of the stream until `img.zqf` has it: that gives it to ranges out of memory, and to the stream where
/// a new writer begins at the file's end. Its copies don't grow where the disk keeps up.
constexpr uint64 MAX_HELD = 32 << 20;
static_assert(MAX_HELD + 2 * BATCH + 2 * ZqBlocks::STRETCH <= ZqRemoteImage::MAX_HELD);
} // namespace

void ZqOrderedDownload::start(Priority priority) {
    {
        const SxMutexBlock block(&mutex);
        isTaking = true;
    }
    try {
        SxSystemThread::start(priority);
    } catch (const SxException&) {
        stopTaking();
        throw;
    }
}

void ZqOrderedDownload::stopTaking() {
    const SxMutexBlock block(&mutex);
    isTaking = false;
}

bool ZqOrderedDownload::setWriter(const SxPtr<ZqFWriter>& writer_, uint64 offset_) {
    const SxMutexBlock block(&mutex);
    target = {writer_, offset_, ++targetNumber};
    batch.removeAll();
    return isTaking;
}

ZqOrderedDownload::Target ZqOrderedDownload::getTarget() const {
    const SxMutexBlock block(&mutex);
    return target;
}

void ZqOrderedDownload::push() {
    if (batch.getSize() == 0) return;
    const auto n = static_cast<uint64>(batch.getSize());
    target.writer->pushChunk(target.offset, std::move(batch));
    target.offset += n;
    batch = SxArray<char>();
}

void ZqOrderedDownload::flush() {
    const SxMutexBlock block(&mutex);
    if (SxClock::get().steadyNs() - batchNs >= BATCH_NS) push();
}

bool ZqOrderedDownload::take(const Target& of, const char* bytes, int64 n) {
    while (of.writer->getBytesHeld() > MAX_HELD) {
        if (isObsolete(of)) return false;
        SxTime::msleep(SxWait::LOOK_MS);
    }
    const SxMutexBlock block(&mutex);
    if (isObsolete(of)) return false;
    const int64 nowNs = SxClock::get().steadyNs();
    if (batch.getSize() == 0) {
        batch.reserve(BATCH);
        batchNs = nowNs;
    }
    const int64 old = batch.getSize();
    batch.resize(old + n, true);
    std::memcpy(batch.data() + old, bytes, static_cast<size_t>(n));
    if (batch.getSize() >= BATCH || nowNs - batchNs >= BATCH_NS) push();
    return true;
}

void ZqOrderedDownload::main() {
    try {
        streamAll();
    } catch (...) {
        stopTaking();
        throw;
    }
}

void ZqOrderedDownload::streamAll() {
    while (!stopFlag) {
        const Target now = getTarget();
        try {
            image->stream(
                now.offset, [&](const char* bytes, int64 n) { return take(now, bytes, n); },
                [&] { return isObsolete(now); });
        } catch (const SxException& e) {
            if (!e.hasTag(SxException::STOPPED)) throw;
        }
        const SxMutexBlock block(&mutex);
        if (isObsolete(now)) continue;
        push();
        // Whoever comes now is told, although the thread still has some steps to its end.
        isTaking = false;
        return;
    }
}
