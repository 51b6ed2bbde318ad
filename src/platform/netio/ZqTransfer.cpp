#include "ZqTransfer.h"

#include <chrono>
#include <cstring>

namespace {
constexpr int64 PIECE = 256 << 10;
constexpr auto LOOK = std::chrono::milliseconds(20);
} // namespace

ZqTransfer::Next ZqTransfer::next(SxArray<char>* piece) {
    bool madeRoom = false;
    {
        SxMutexBlock lock(&mutex);
        if (pieces.empty() && !ended) changed.wait_for(mutex, LOOK);
        if (pieces.empty()) {
            if (failed) throw failure;
            return ended ? Next::Ended : Next::Waiting;
        }
        *piece = std::move(pieces.front());
        pieces.pop_front();
        madeRoom = nBuffered >= request.maxBuffered;
        nBuffered -= piece->getSize();
    }
    if (madeRoom && wake) wake();
    return Next::Taken;
}

bool ZqTransfer::isFinished() const {
    SxMutexBlock lock(&mutex);
    return ended;
}

bool ZqTransfer::hasRoom() const {
    SxMutexBlock lock(&mutex);
    return nBuffered < request.maxBuffered;
}

void ZqTransfer::append(const char* bytes, size_t n) {
    const auto nNew = static_cast<int64>(n);
    {
        SxMutexBlock lock(&mutex);
        if (pieces.empty() || pieces.back().getSize() + nNew > PIECE) {
            pieces.emplace_back();
            pieces.back().reserve(std::max(PIECE, nNew));
        }
        SxArray<char>& piece = pieces.back();
        const int64 old = piece.getSize();
        piece.resize(old + nNew, true);
        std::memcpy(piece.data() + old, bytes, n);
        nBuffered += nNew;
    }
    changed.notify_one();
}

void ZqTransfer::finish() {
    {
        SxMutexBlock lock(&mutex);
        ended = true;
    }
    changed.notify_one();
}

void ZqTransfer::fail(const SxException& e) {
    {
        SxMutexBlock lock(&mutex);
        if (ended) return;
        failure = e;
        failed = ended = true;
    }
    changed.notify_one();
}
