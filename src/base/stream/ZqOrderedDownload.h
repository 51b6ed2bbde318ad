#pragma once

#include "SxMutex.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqFWriter.h"
#include "ZqRemoteImage.h"

#include <atomic>

/// Brings `img.zqf` from its server in order and pushes it to a writer, bounded in memory. The writer can be
/// replaced while it runs. Ends when all has been pushed; what can't be mended stays as its exception. All
/// operations are safe from any thread, but for those of SxSystemThread.
class ZqOrderedDownload : public SxSystemThread {
public:
    explicit ZqOrderedDownload(const SxPtr<ZqRemoteImage>& image_) : image(image_) {
        setThreadName("download");
    }

    void start(Priority priority = 6) override;
    /// From now on bytes go to `writer_`, beginning with byte `offset_` of the image. False where the thread
    /// brings it nothing, since it hasn't started or has come to its end: it must be started anew. That the
    /// thread runs doesn't tell it, so the answer is given under the lock under which the thread ends.
    bool setWriter(const SxPtr<ZqFWriter>& writer_, uint64 offset_);
    /// Hands on what has waited for more bytes; to be called now and then.
    void flush();
    void stop() { stopFlag = true; }

protected:
    void main() override;

private:
    /// Where bytes go to. What is left over of an older one is dropped.
    struct Target {
        SxPtr<ZqFWriter> writer;
        uint64 offset = 0;
        uint64 number = 0;
    };

    Target getTarget() const;
    bool isObsolete(const Target& of) const { return stopFlag || of.number != targetNumber; }
    bool take(const Target& target, const char* bytes, int64 n);
    void push() SX_REQUIRES(mutex);
    void streamAll();
    /// From now on nobody counts on this thread.
    void stopTaking();

    const SxPtr<ZqRemoteImage> image;
    std::atomic<bool> stopFlag{false};
    std::atomic<uint64> targetNumber{0};

    mutable SxMutex mutex; ///< held over a push to the writer, which doesn't wait
    Target target SX_GUARDED_BY(mutex);
    SxArray<char> batch SX_GUARDED_BY(mutex);
    int64 batchNs SX_GUARDED_BY(mutex) = 0;     ///< when its first byte came
    bool isTaking SX_GUARDED_BY(mutex) = false; ///< the thread looks once more for a target
};
