#include "ZqCursorWay.h"

namespace {
constexpr unsigned BITS = 7;
constexpr uint64 MORE = uint64{1} << BITS;
} // namespace

void ZqCursorWay::put(uint64 number) {
    for (; number >= MORE; number >>= BITS)
        bytes.push_back(static_cast<unsigned char>(number | MORE));
    bytes.push_back(static_cast<unsigned char>(number));
}

void ZqCursorWay::add(int64 timeMs, uint64 zqfIdx) {
    if (zqfIdx <= endIdx) return;
    const int64 later = timeMs - lastMs;
    put(static_cast<uint64>(later) << 1 ^ static_cast<uint64>(later >> 63));
    put(zqfIdx - endIdx);
    lastMs = timeMs;
    endIdx = zqfIdx;
}

uint64 ZqCursorWay::Walk::take() {
    uint64 number = 0;
    for (unsigned shift = 0;; shift += BITS) {
        const uint64 byte = way.bytes[at++];
        number |= (byte & (MORE - 1)) << shift;
        if (byte < MORE) return number;
    }
}

bool ZqCursorWay::Walk::next() {
    if (at == way.bytes.size()) return false;
    const uint64 later = take();
    timeMs += static_cast<int64>(later >> 1 ^ (~(later & 1) + 1));
    zqfIdx += take();
    return true;
}
