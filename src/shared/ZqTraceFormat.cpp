#include "ZqTraceFormat.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqTraceFiles.h"

namespace {

// Clients know these failures as those of a trace.
constexpr const char* UNIT = "src/base/ZqTrace";

uint64 readTime(SxFileIO* file) {
    char record[ZqTraceFormat::SIZE] = {};
    file->readBuffer(record, ZqTraceFormat::SIZE);
    return ZqTraceFormat::decode(record).time;
}

} // namespace

namespace ZqTraceFormat {

void encode(uint64 block, uint64 timeMs, char* record) {
    if (!holds(timeMs)) {
        throw SxException(SxString("The time ") + static_cast<int64>(timeMs) + " of block " +
                              (block & ~FLAG) + " is none that a trace can hold",
                          UNIT, __LINE__);
    }
    const uint64 fields[2] = {swapIfBig(block), swapIfBig((timeMs + FROM_1601_TO_1970_MS) * UNITS_PER_MS)};
    std::memcpy(record, fields, sizeof fields);
}

int64 durationOf(const SxString& path) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) return 0;
    try {
        SxFileIO items(file, "rb", 0600);
        const int64 n = items.getSize() / SIZE;
        if (n < 2) return 0;
        const uint64 first = readTime(&items);
        items.seek((n - 1) * SIZE);
        return static_cast<int64>(readTime(&items) - first);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot evaluate duration for trace " + path, UNIT, __LINE__);
    }
}

} // namespace ZqTraceFormat
