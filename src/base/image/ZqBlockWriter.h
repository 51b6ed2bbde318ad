#pragma once

#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxQueue.h"
#include "SxSystemThread.h"
#include "ZqBlocks.h"

#include <memory>
#include <vector>

/// The digest of a long run of bytes, taken on a thread of its own while the owner reads or writes: buffers
/// go round between the two. One thread but for that.
class ZqDigestPipe {
public:
    static constexpr int64 CHUNK = 2500 * ZqBlocks::SIZE; ///< bytes of a buffer

    struct Chunk {
        SxArray<char> bytes = SxArray<char>(CHUNK);
        int64 used = 0;    ///< bytes to take into the digest
        int64 written = 0; ///< for the owner
    };

    explicit ZqDigestPipe(const SxString& threadName);
    ~ZqDigestPipe();
    ZqDigestPipe(const ZqDigestPipe&) = delete;
    ZqDigestPipe& operator=(const ZqDigestPipe&) = delete;

    /// A buffer that is free, emptied.
    Chunk* next();
    /// Takes what the buffer holds; it is gone for the caller.
    void take(Chunk* chunk) { hasher.todo.push(chunk); }
    /// The digest of all that was taken.
    SxString finish();

private:
    class Hasher : public SxSystemThread {
    public:
        SxQueue<Chunk*> todo, done;
        SxMd5 md5;

    protected:
        void main() override;
    };

    static constexpr int N_CHUNKS = 4;

    std::vector<Chunk> chunks;
    Hasher hasher;
};

/// Writes the blocks of a new `img.zqf`, one after the other, and takes their digest on the way. One thread.
class ZqBlockWriter {
public:
    /// Makes `img.zqf` in `folder` (with its trailing slash).
    explicit ZqBlockWriter(const SxString& folder);

    /// Room for the next bytes, which are still in the processor's cache when they are written; at least one
    /// block.
    char* space() { return current->bytes.data() + current->used; }
    int64 spaceSize() const {
        return std::min(ZqDigestPipe::CHUNK - current->used, PIECE - (current->used - current->written));
    }
    /// Takes `n` bytes of the room, which are whole blocks.
    void take(int64 n);
    /// The same for `n` bytes from elsewhere.
    void append(const char* bytes, int64 n);
    /// Writes what is left and brings it to the device; the digest of all blocks.
    SxString finish();

private:
    static constexpr int64 PIECE = 64 * ZqBlocks::SIZE;

    void flush();
    void writePiece();

    ZqDigestPipe pipe{"zqf md5"};
    SxFileIO zqf;
    ZqDigestPipe::Chunk* current;
};

/// Writes the entries of a new `img.idx`, one after the other. One thread.
class ZqMapWriter {
public:
    /// Makes `img.idx` in `folder` (with its trailing slash).
    explicit ZqMapWriter(const SxString& folder);

    void append(uint64 entry);
    /// Writes what is left and brings it to the device.
    void finish();

private:
    void flush();

    SxFileIO idx;
    SxArray<unsigned char> bytes;
    int64 used = 0;
};
