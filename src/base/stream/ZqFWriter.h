#pragma once

#include "SxArray.h"
#include "SxFileIO.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqDiskReserve.h"
#include "ZqFileSync.h"
#include "ZqImageFiles.h"

#include <atomic>
#include <memory>

class ZqWriteBuffer;
class ZqWriteLog;
class ZqWritePace;
class ZqWriteRoom;

/// Takes the bytes of an image from download threads as chunks, in any order, and appends them to the image
/// file strictly by their offsets, on a thread of its own, at a pace that follows the download. It is the one
/// writer of a growing `img.zqf`. A failure, such as a full disk, ends the thread with the event APP_ERROR.
/// The file keeps what it has, also of a piece that was written in part: its size is where a new object goes
/// on, in the middle of a block or not, and where the client pushes from then. So nothing is cut off and
/// nothing is written twice. Of what was written before the machine's last start only that counts which is
/// sure to have reached the disk (ZqSyncedSize). Durations are taken on the steady clock: after a jump of the
/// system's clock a pause could last for hours. For one run. All operations are safe from any thread, but for
/// those of SxSystemThread. Offsets and sizes are in bytes of the image file.
class ZqFWriter : public SxSystemThread {
public:
    /// What popOffset() gives while the next chunk isn't there.
    static constexpr uint64 NO_OFFSET = ~uint64{0};

    /// `dirPath`: the image's folder with a trailing slash; `fileName`: the image in it, which is made,
    /// empty, where it is missing. Chunks that an earlier run left on disk are removed. `app.json` must lie
    /// in the folder when the thread starts.
    ZqFWriter(const SxString& dirPath, const SxString& fileName);
    ~ZqFWriter() override;

    /// Leaves that much of the disk free: where the next piece would go beyond it, the thread waits for room
    /// and keeps its pieces, so that nothing is fetched twice. To be called before the start; without it
    /// nothing is left.
    void setReserve(const ZqDiskReserve& reserve);

    /// Writes what comes at once, without a pace and without the test of the disk that bounds one; the head
    /// line of `write.log` then states a test of 0 bytes. For a client that bounds by itself what it has
    /// pushed and isn't written yet, see getBytesHeld(): a pace is there to spread out a large buffer, and of
    /// such a client the link is the pace. The test takes its measure while a game starts, which is the
    /// busiest time: in seven runs on one disk it gave bounds from 22 to 476 MB/s, and the lower ones held up
    /// the download. To be called before the start.
    void setUnpaced() { isPaced = false; }

    /// Takes a copy of `data`, cut into pieces of 2,000,000 bytes. A client pushes on a grid: where a piece
    /// ends the next one begins. What ends at or before the write cursor isn't kept. With setThrottle(true)
    /// it takes a second. Raises where there is no memory.
    void pushChunk(uint64 offset, const SxArray<char>& data);
    /// The same; a chunk of one piece is taken over without a copy.
    void pushChunk(uint64 offset, SxArray<char>&& data);
    /// Holds who pushes to one chunk a second. The second ends early with setThrottle(false), and with
    /// stop().
    void setThrottle(bool on);

    /// The next offset to write, which is taken, or NO_OFFSET. For the writer's thread.
    uint64 popOffset();
    /// Moves the buffer cursor over what has arrived, and takes the samples of the speed. For the writer's
    /// thread.
    void updateBufferCursor();

    /// Bytes that lie ready from the write cursor on without a gap.
    uint64 getBytesAvail() const;
    /// The end of what has arrived without a gap.
    uint64 getBufferCursor() const;
    /// The end of what is written, as far as the thread has started.
    uint64 getWriteCursor() const;
    /// The end of what the calls of write(2) have returned for, which can be read; also within a piece. A
    /// file system may tell a larger size.
    uint64 getWriteEnd() const { return writeEnd; }
    /// Bytes in memory: pushed and not yet written, also those after a gap.
    uint64 getBytesHeld() const;
    /// Whether the thread waits for room on the disk.
    bool isWaitingForRoom() const { return waitingForRoom; }
    /// The download's mean speed of the last minute; 0 until the first sample, after 5 s.
    uint64 getBytesPerSecond() const;

    /// Ends the pacing by the download's speed, and its samples.
    void finalize();
    bool finalizeRequested() const;
    void stop();
    bool stopRequested() const;

    /// Whether the image was empty at the construction.
    bool isNewImage() const { return cursor0 == 0; }
    /// Whether the image is complete; meaningful once the thread has ended.
    bool isCompleteImage() const;

protected:
    void main() override;

private:
    using Piece = SxPtr<SxArray<char>>;

    SxString pathOf(const SxString& name) const { return dirPath + name; }
    SxString chunkFolder() const { return dirPath + SxString(ZqImageFiles::CHUNKS).left("/"); }
    SxString chunkPath(uint64 offset) const { return chunkFolder() + "/" + offset + ".chunk"; }
    void holdPusher() const;
    void writeImage();
    void beginAtEnd(SxFileIO* image, uint64 total);
    uint64 awaitOffset();
    bool awaitRoom(uint64 nBytes);
    uint64 targetSpeed(uint64 dlSpeed, uint64 nAvailable) const;
    void writePiece(SxFileIO* image, const Piece& piece, uint64 target);
    void freePiece(uint64 offset);
    void removeLeftovers();

    const SxString dirPath, fileName;
    std::atomic<bool> stopFlag{false}, finalizeFlag{false}, throttleFlag{false};
    const uint64 cursor0;
    const std::unique_ptr<ZqWriteBuffer> buffer;
    std::atomic<bool> completeImage{false};
    std::atomic<bool> waitingForRoom{false};
    std::atomic<uint64> writeEnd;

    // The writer's thread alone.
    ZqFileSync sync;
    const std::unique_ptr<ZqWriteRoom> room;
    bool isPaced = true;
    const std::unique_ptr<ZqWritePace> pace;
    const std::unique_ptr<ZqWriteLog> log;
};
