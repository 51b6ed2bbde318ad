#include "ZqBlockWriter.h"

#include "ZqImageFiles.h"

#include <algorithm>

namespace {

/// A new image is made to be handed out, by a web server that may run as another user, which could read
/// nothing at 0600, the mode of a player's own files. So the maker's umask says who may read the image.
constexpr int PERMISSIONS = 0666;
constexpr int64 MAP_PIECE = 1 << 18;
} // namespace

ZqDigestPipe::ZqDigestPipe(const SxString& threadName) : chunks(N_CHUNKS) {
    hasher.setThreadName(threadName);
    for (Chunk& chunk : chunks)
        hasher.done.push(&chunk);
    hasher.start();
}

ZqDigestPipe::~ZqDigestPipe() {
    hasher.todo.close();
    hasher.wait();
}

void ZqDigestPipe::Hasher::main() {
    try {
        md5.initialize();
        while (const auto chunk = todo.pop()) {
            md5.update((*chunk)->bytes.data(), (*chunk)->used, -1);
            done.push(*chunk);
        }
        md5.finish();
    } catch (const SxException&) {
        done.close();
        throw;
    }
}

ZqDigestPipe::Chunk* ZqDigestPipe::next() {
    // The buffers come back in their order, so this one has been taken into the digest.
    const auto free = hasher.done.pop();
    if (!free) {
        hasher.wait();
        throw hasher.getException();
    }
    (*free)->used = (*free)->written = 0;
    return *free;
}

SxString ZqDigestPipe::finish() {
    hasher.todo.close();
    hasher.wait();
    if (hasher.hasException()) throw hasher.getException();
    return hasher.md5.toString();
}

ZqBlockWriter::ZqBlockWriter(const SxString& folder)
    : zqf(folder + ZqImageFiles::ZQF, "wb", PERMISSIONS),
      current(pipe.next()) {
}

void ZqBlockWriter::take(int64 n) {
    current->used += n;
    if (current->used - current->written == PIECE) writePiece();
    if (current->used == ZqDigestPipe::CHUNK) flush();
}

void ZqBlockWriter::append(const char* bytes, int64 n) {
    while (n > 0) {
        const int64 part = std::min(n, spaceSize());
        std::copy_n(bytes, part, space());
        take(part);
        bytes += part;
        n -= part;
    }
}

SxString ZqBlockWriter::finish() {
    flush();
    SxString digest = pipe.finish();
    zqf.sync();
    zqf.close();
    return digest;
}

void ZqBlockWriter::flush() {
    if (current->used == 0) return;
    writePiece();
    const int64 n = current->used;
    pipe.take(current);
    zqf.startWriteback(zqf.getOffset() - n, n);
    current = pipe.next();
}

void ZqBlockWriter::writePiece() {
    zqf.writeBuffer(current->bytes.data() + current->written, current->used - current->written);
    current->written = current->used;
}

ZqMapWriter::ZqMapWriter(const SxString& folder)
    : idx(folder + ZqImageFiles::IDX, "wb", PERMISSIONS),
      bytes(MAP_PIECE) {
}

void ZqMapWriter::append(uint64 entry) {
    for (int byte = 0; byte < 8; ++byte)
        bytes(used++) = static_cast<unsigned char>(entry >> (8 * byte));
    if (used == MAP_PIECE) flush();
}

void ZqMapWriter::finish() {
    flush();
    idx.sync();
    idx.close();
}

void ZqMapWriter::flush() {
    idx.write(bytes, used);
    used = 0;
}
