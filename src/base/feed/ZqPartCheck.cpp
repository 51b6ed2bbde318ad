#include "ZqPartCheck.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/ZqPartCheck";
} // namespace

ZqPartCheck::ZqPartCheck(const SxString& zqf_, uint64 size, uint64 sizeZqf_)
    : zqf(zqf_),
      sizeZqf(sizeZqf_),
      endIdx(ZqSeekTable::countFrames(std::min(size, sizeZqf_))) {
}

void ZqPartCheck::compare(const ZqSeekTable& table, uint64 fileSize, uint64 nMost, const ZqStopTest& stop) {
    SxFileIO file(zqf, "rb");
    file.seek(static_cast<int64>(nextIdx * ZqBlocks::STRETCH));
    SxArray<char> bytes(static_cast<int64>(ZqBlocks::STRETCH));
    for (uint64 n = 0; n < nMost && nextIdx < endIdx; ++n, ++nextIdx) {
        if (stop && stop()) throw SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
        const uint64 begin = nextIdx * ZqBlocks::STRETCH;
        const uint64 size = std::min(ZqBlocks::STRETCH, sizeZqf - begin);
        if (begin + size > fileSize) return;
        const int64 nRead = file.readBuffer(bytes.data(), static_cast<int64>(size));
        if (ZqSeekTable::checksumOf(bytes.data(), nRead) != table.getFrame(nextIdx).checksum)
            wrong.push_back(nextIdx);
    }
}
