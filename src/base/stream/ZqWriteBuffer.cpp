#include "ZqWriteBuffer.h"

#include "SxClock.h"

#include <algorithm>
#include <utility>

namespace {
constexpr int64 SAMPLES = 12;
constexpr uint64 SAMPLE_MS = 5000;
} // namespace

ZqWriteBuffer::ZqWriteBuffer(uint64 size)
    : writeCursor(size),
      bytesReceived(size),
      bytesAtLastSample(size),
      timeAtLastSample(static_cast<uint64>(SxClock::get().steadyMs())),
      avgSpeed(SxPtr<ZqAvg>::create(SAMPLES)) {
}

void ZqWriteBuffer::beginAt(uint64 size) {
    const SxMutexBlock lock(&mutex);
    bufferCursor = size;
    writeCursor = size;
}

void ZqWriteBuffer::push(uint64 offset, Piece piece) {
    const auto size = static_cast<uint64>(piece->getSize());
    // What it replaces is freed once the lock is left.
    const SxMutexBlock lock(&mutex);
    bytesReceived += size;
    // Neither cursor would ever come by it again, and a client that bounds its memory by getBytesHeld() would
    // wait for ever.
    if (offset + size <= writeCursor) return;
    Piece& place = pieces[offset];
    if (place) bytesHeld -= static_cast<uint64>(place->getSize());
    bytesHeld += size;
    std::swap(place, piece);
    sizes[offset] = size;
}

void ZqWriteBuffer::update(bool samples) {
    const SxMutexBlock lock(&mutex);
    for (auto next = sizes.find(bufferCursor); next != sizes.end(); next = sizes.find(bufferCursor)) {
        bytesAvail += next->second;
        bufferCursor += next->second;
    }
    const auto now = static_cast<uint64>(SxClock::get().steadyMs());
    if (!samples || now <= timeAtLastSample + SAMPLE_MS || bytesReceived <= bytesAtLastSample) return;
    avgSpeed->update(static_cast<double>(bytesReceived - bytesAtLastSample) * 1000.0 /
                     static_cast<double>(now - timeAtLastSample));
    bytesAtLastSample = bytesReceived;
    timeAtLastSample = now;
}

uint64 ZqWriteBuffer::pop() {
    const SxMutexBlock lock(&mutex);
    const auto next = sizes.find(writeCursor);
    if (next == sizes.end() || bytesAvail == 0) return NO_OFFSET;
    // A longer piece may have replaced the one that was counted.
    bytesAvail -= std::min(bytesAvail, next->second);
    sizes.erase(next);
    return writeCursor;
}

ZqWriteBuffer::Piece ZqWriteBuffer::get(uint64 offset) const {
    const SxMutexBlock lock(&mutex);
    return pieces.at(offset);
}

void ZqWriteBuffer::advance(uint64 nBytes) {
    const SxMutexBlock lock(&mutex);
    writeCursor += nBytes;
}

void ZqWriteBuffer::free(uint64 offset) {
    const SxMutexBlock lock(&mutex);
    const auto place = pieces.find(offset);
    if (place != pieces.end()) {
        bytesHeld -= static_cast<uint64>(place->second->getSize());
        pieces.erase(place);
    }
    // A piece that has taken its place since would be counted, and never be given.
    sizes.erase(offset);
}

ZqWriteBuffer::Cursors ZqWriteBuffer::getCursors() const {
    const SxMutexBlock lock(&mutex);
    return {bytesAtLastSample, bufferCursor, writeCursor, bytesAvail};
}

uint64 ZqWriteBuffer::getBytesHeld() const {
    const SxMutexBlock lock(&mutex);
    return bytesHeld;
}

uint64 ZqWriteBuffer::getBytesPerSecond() const {
    const SxMutexBlock lock(&mutex);
    return static_cast<uint64>(avgSpeed->getAverage());
}
