#pragma once

#include "SxString.h"
#include "ZqBlocks.h"

#include <cstring>
#include <string>

/// The form of `img.zqf.zst`, as docs/file-formats.md has it: one Zstandard frame (RFC 8878) for each
/// stretch (ZqBlocks::STRETCH) of `img.zqf`, a frame that says of which one, a seek table (Zstandard Seekable
/// Format 0.1.0).
namespace ZqPackedForm {
constexpr uint32 ORIGIN_MAGIC = 0x184D2A50; ///< a skippable frame
constexpr uint32 TABLE_MAGIC = 0x184D2A5E;  ///< another one
constexpr uint32 SEEK_MAGIC = 0x8F92EAB1;   ///< the last four bytes
constexpr int64 ORIGIN_SIZE = 44;           ///< bytes, those of the skippable frame's header included
constexpr int64 HEADER_SIZE = 8;            ///< of a skippable frame: magic, bytes after it
constexpr int64 ENTRY_SIZE = 12;
constexpr int64 FOOTER_SIZE = 9;
constexpr unsigned char HAS_CHECKSUMS = 0x80; ///< in the footer's descriptor
constexpr uint32 EMPTY_CHECKSUM = 0x51D8E999; ///< that of no bytes, in the origin's entry

inline void append(std::string* bytes, uint32 value) {
    for (int shift = 0; shift < 32; shift += 8)
        bytes->push_back(static_cast<char>(value >> shift));
}

/// The frame that says that an `img.zqf` with the MD5 text `md5` was packed.
inline std::string origin(const SxString& md5) {
    std::string bytes;
    append(&bytes, ORIGIN_MAGIC);
    append(&bytes, ORIGIN_SIZE - HEADER_SIZE);
    return bytes + "md5=" + md5.str();
}

/// Whether the packed form that begins with these bytes says that it is of such an image.
inline bool isStatedOf(const SxString& md5, const char* bytes, int64 n) {
    const std::string known = origin(md5);
    return !md5.isEmpty() && n >= ORIGIN_SIZE && std::memcmp(bytes, known.data(), known.size()) == 0;
}

/// Whether it may be; one that says nothing counts as it.
inline bool mayBeOf(const SxString& md5, const char* bytes, int64 n) {
    const std::string known = origin(md5);
    const bool isSilent =
        md5.isEmpty() || n < HEADER_SIZE || std::memcmp(bytes, known.data(), HEADER_SIZE) != 0;
    return isSilent || isStatedOf(md5, bytes, n);
}
} // namespace ZqPackedForm
