#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "ZqAvg.h"

#include <map>

/// The pieces of a file that have arrived, in any order, and aren't written yet; how far they go without a
/// gap, and how fast they come. Download threads put them in, one writer takes them out by their offsets. All
/// operations are safe from any thread. Offsets and sizes are in bytes of the file.
class ZqWriteBuffer {
public:
    using Piece = SxPtr<SxArray<char>>;
    /// What pop() gives while the next piece isn't there.
    static constexpr uint64 NO_OFFSET = ~uint64{0};
    /// The size of a piece, at most.
    static constexpr uint64 MAX_PIECE = 2'000'000;

    /// How far it all is, at one moment.
    struct Cursors {
        uint64 nReceived = 0; ///< all that had come at the last sample of the speed
        uint64 buffered = 0;  ///< end of what has arrived without a gap
        uint64 written = 0;
        uint64 nAvailable = 0; ///< bytes that lie ready from `written` on without a gap
    };

    /// The file has `size` bytes.
    explicit ZqWriteBuffer(uint64 size);

    /// Both cursors are at the end of the file, which has `size` bytes. To be called before the first piece
    /// is taken.
    void beginAt(uint64 size);
    /// What ends at or before the write cursor isn't kept; a piece at the offset of another one replaces it.
    void push(uint64 offset, Piece piece);
    /// Moves the buffer cursor over what has arrived, and takes a sample of the speed, with `samples`.
    void update(bool samples);
    /// The offset of the next piece, which is taken, or NO_OFFSET. The piece stays until free().
    uint64 pop();
    /// That of an offset which pop() has given.
    Piece get(uint64 offset) const;
    /// Moves the write cursor.
    void advance(uint64 nBytes);
    void free(uint64 offset);

    Cursors getCursors() const;
    /// Bytes in memory, also those after a gap.
    uint64 getBytesHeld() const;
    /// Mean speed of the last minute; 0 until the first sample, after 5 s.
    uint64 getBytesPerSecond() const;

private:
    mutable SxMutex mutex;
    uint64 bufferCursor SX_GUARDED_BY(mutex) = 0;
    uint64 writeCursor SX_GUARDED_BY(mutex);
    uint64 bytesAvail SX_GUARDED_BY(mutex) = 0;
    uint64 bytesHeld SX_GUARDED_BY(mutex) = 0;
    uint64 bytesReceived SX_GUARDED_BY(mutex);
    uint64 bytesAtLastSample SX_GUARDED_BY(mutex);
    uint64 timeAtLastSample SX_GUARDED_BY(mutex); ///< steady clock in ms
    SxPtr<ZqAvg> avgSpeed SX_GUARDED_BY(mutex);
    /// By their offsets. These are multiples of 2,000,000, which share their low bits, and a hash map of
    /// `core` goes by these.
    std::map<uint64, Piece> pieces SX_GUARDED_BY(mutex);
    /// Of those in `pieces` that pop() hasn't given yet.
    std::map<uint64, uint64> sizes SX_GUARDED_BY(mutex);
};
