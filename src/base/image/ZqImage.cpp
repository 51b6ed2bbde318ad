#include "ZqImage.h"

#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"

#include <bit>

namespace {

constexpr const char* UNIT = "src/base/ZqImage";
constexpr uint64 TOP_BIT = uint64{1} << 63;

/// Brings entries that were read from a file to the machine's byte order.
void fromLittleEndian(SxArray<uint64>* values) {
    if constexpr (std::endian::native == std::endian::big) {
        for (uint64& value : *values)
            value = __builtin_bswap64(value);
    }
}

} // namespace

SxArray<uint64> ZqImage::getMap() const {
    const SxString file = pathPrefix + ZqImageFiles::IDX;
    if (!SxFSAction::test_f(file)) throw SxException("File '" + file + "' not found.", UNIT, __LINE__);
    const int64 size = SxFSAction::sizeOf(file);
    if (size == 0 || (size & 7) != 0) {
        throw SxException("Invalid size of '" + file + "' file.", UNIT, __LINE__);
    }
    return readEntries(file);
}

SxArray<uint64> ZqImage::readEntries(const SxString& file) {
    constexpr int64 ENTRY = sizeof(uint64);
    SxFileIO io(file, "rb");
    const int64 n = io.getSize() / ENTRY;
    SxArray<uint64> entries;
    try {
        entries.resize(n);
    } catch (const std::exception&) {
        throw SxException("There is no memory for the map '" + file + "' of " + n * ENTRY + " bytes", UNIT,
                          __LINE__);
    }
    // One call, straight into the array: on a little-endian machine that is the decoded form already.
    if (io.readBuffer(entries.data(), n * ENTRY) < n * ENTRY)
        throw SxException("Failed to read all map items.", UNIT, __LINE__);
    fromLittleEndian(&entries);
    return entries;
}

SxArray<uint64> ZqImage::getReverseMap() const {
    return getReverseMap(getMap());
}

SxArray<uint64> ZqImage::getReverseMap(const SxArray<uint64>& map) {
    const int64 n = map.getSize();
    SxArray<uint64> reverse(n);
    reverse.set(NO_ENTRY);
    for (int64 rawIdx = 0; rawIdx < n; ++rawIdx) {
        const uint64 zqfIdx = map(rawIdx);
        if (zqfIdx < static_cast<uint64>(n))
            reverse(static_cast<int64>(zqfIdx)) = static_cast<uint64>(rawIdx);
    }
    return reverse;
}

ZqTraceItem ZqImage::readItem(SxFileIO* file) const {
    SxArray<uint64> entry(1);
    try {
        if (file->readBuffer(entry.data(), sizeof(uint64)) < static_cast<int64>(sizeof(uint64))) return {};
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read trace item block index", UNIT, __LINE__);
    }
    fromLittleEndian(&entry);
    return ZqTraceItem(entry(0) & ~TOP_BIT, 0, (entry(0) & TOP_BIT) != 0);
}

SxString ZqImage::formatEntry(uint64 rawIdx, uint64 zqfIdx) {
    if (zqfIdx == NO_ENTRY) return SxString::sprintf("RAW=%-9ju (not included)\n", uintmax_t{rawIdx});
    return SxString::sprintf("RAW=%-9ju ZQF=%-9ju\n", uintmax_t{rawIdx}, uintmax_t{zqfIdx});
}

void ZqImage::print(uint64 first, uint64 last, uint64 step) const {
    const SxArray<uint64> map = getMap();
    const auto n = static_cast<uint64>(map.getSize());
    const uint64 end = last == 0 ? n : std::min(last, n);
    for (uint64 rawIdx = first; rawIdx < end; ++rawIdx) {
        if (rawIdx % step == 0) zqLogMsg("base", formatEntry(rawIdx, map(static_cast<int64>(rawIdx))));
    }
}
