#include "ZqSeekTable.h"

#include "SxException.h"
#include "SxXxh64.h"
#include "ZqBlocks.h"
#include "ZqPackedForm.h"

namespace {

constexpr const char* UNIT = "src/shared/ZqSeekTable";
constexpr uint32 FOOTER_MAGIC = 0x8F92EAB1;
constexpr uint64 HEADER = 8, FOOTER = 9;
constexpr unsigned CHECKSUM_FLAG = 0x80, RESERVED_BITS = 0x7C;

uint32 readUint32(const char* bytes) {
    uint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

[[noreturn]] void raise(const SxString& text, int line) {
    throw SxException(text, UNIT, line);
}

} // namespace

uint64 ZqSeekTable::maxTail(uint64 sizeZqf) noexcept {
    return HEADER + (countFrames(sizeZqf) + 1) * 12 + FOOTER;
}

uint32 ZqSeekTable::checksumOf(const char* bytes, int64 n) noexcept {
    return static_cast<uint32>(SxXxh64::of(bytes, n));
}

ZqSeekTable::ZqSeekTable(const char* tail, uint64 nTail, uint64 sizePacked, uint64 sizeZqf) {
    if (nTail < HEADER + FOOTER || nTail > sizePacked)
        raise("The file is too short for a seek table", __LINE__);
    const char* footer = tail + nTail - FOOTER;
    if (readUint32(footer + 5) != FOOTER_MAGIC) raise("The file doesn't end in a seek table", __LINE__);
    const auto descriptor = static_cast<unsigned char>(footer[4]);
    if ((descriptor & RESERVED_BITS) != 0) raise("The seek table is of an unknown kind", __LINE__);
    checksums = (descriptor & CHECKSUM_FLAG) != 0;

    const uint64 nEntries = readUint32(footer), nFrames = countFrames(sizeZqf);
    if (nEntries != nFrames && nEntries != nFrames + 1) {
        raise("The seek table has " + SxString(nEntries) + " frames, and the image takes " +
                  SxString(nFrames),
              __LINE__);
    }
    const uint64 entry = checksums ? 12 : 8;
    const uint64 nTable = HEADER + nEntries * entry + FOOTER;
    if (nTable > nTail) raise("The seek table is cut short", __LINE__);
    const char* at = tail + nTail - nTable;
    if (readUint32(at) != ZqPackedForm::TABLE_MAGIC || readUint32(at + 4) != nTable - HEADER) {
        raise("The seek table has no header of its size", __LINE__);
    }
    at += HEADER;

    frames.resize(static_cast<int64>(nFrames));
    uint64 offset = 0;
    if (nEntries > nFrames) {
        offset = readUint32(at);
        if (offset != ZqPackedForm::ORIGIN_SIZE || readUint32(at + 4) != 0) {
            raise("The seek table begins with a frame that no image has", __LINE__);
        }
        at += entry;
    }
    for (uint64 frameIdx = 0; frameIdx < nFrames; ++frameIdx, at += entry) {
        const uint64 wanted = std::min(ZqBlocks::STRETCH, sizeZqf - frameIdx * ZqBlocks::STRETCH);
        const uint32 size = readUint32(at), decoded = readUint32(at + 4);
        if (decoded != wanted || size == 0 || size > MAX_PACKED) {
            raise("The seek table gives frame " + SxString(frameIdx) + " " + SxString(size) +
                      " bytes that become " + SxString(decoded) + ", where " + SxString(wanted) + " are due",
                  __LINE__);
        }
        frames(static_cast<int64>(frameIdx)) = {offset, size, checksums ? readUint32(at + 8) : 0};
        offset += size;
    }
    if (offset + nTable != sizePacked) {
        raise("The frames of the seek table and the table itself take " + SxString(offset + nTable) +
                  " bytes, and the file has " + SxString(sizePacked),
              __LINE__);
    }
    for (const Frame& frame : frames)
        checksumsId = checksums ? SxXxh64::of(&frame.checksum, sizeof(frame.checksum), checksumsId + 1) : 0;
}

bool ZqSeekTable::hasSameChecksums(const ZqSeekTable& other) const {
    if (!checksums || !other.checksums || getNFrames() != other.getNFrames()) return false;
    for (uint64 frameIdx = 0; frameIdx < getNFrames(); ++frameIdx) {
        if (getFrame(frameIdx).checksum != other.getFrame(frameIdx).checksum) return false;
    }
    return true;
}
