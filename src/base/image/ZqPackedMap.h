#pragma once

#include "SxArray.h"
#include "SxMd5.h"

#include <functional>

/// The form of `img.idx.zst`, as docs/file-formats.md has it: a frame that says which map was packed, then
/// one Zstandard frame (RFC 8878) for the differences of each 131,072 entries. An ordered map is runs of
/// blocks that follow each other, whose entries zstd makes a seventh of, and whose differences are nearly
/// all 1.
namespace ZqPackedMap {
/// Bytes of `img.idx` in each frame but the last.
constexpr int64 FRAME = 1 << 20;
/// Most bytes that a frame takes: what the encoder can't compress grows by less than this.
constexpr int64 MAX_PACKED = FRAME + FRAME / 128 + 64;
constexpr int64 ORIGIN_SIZE = 44;

/// The frame that says that a map with the MD5 text `md5` was packed.
std::string origin(const SxString& md5);
/// Most bytes that the packed form of a map of `sizeIdx` bytes takes.
uint64 maxSize(uint64 sizeIdx) noexcept;

/// Called between frames; true ends it with an SxException of the tag "Stopped".
using StopTest = std::function<bool()>;
/// Packs the map `idx`, a multiple of 8 bytes, to `to`, which is replaced when it is complete and on the
/// device. Raises where the map hasn't the MD5 text `digest`, unless that is empty. Gives the bytes of `to`.
uint64 pack(const SxString& idx, const SxString& to, const SxString& digest, const StopTest& stop = nullptr);

/// Makes a map of its packed form, piece by piece, in the memory of a frame or two. Never gives more than it
/// is to. For one thread.
class Decoder {
public:
    /// Gets the map's bytes in their order.
    using Sink = std::function<void(const char* bytes, int64 n)>;

    /// The map has `sizeIdx_` bytes and the MD5 text `digest_`, or any where that is empty.
    Decoder(uint64 sizeIdx_, const SxString& digest_, Sink sink_);

    /// The next bytes of the packed form. Raises as soon as they can't be those of that map.
    void take(const char* bytes, int64 n);
    /// To be called after the last bytes; raises where the map isn't whole or is another one.
    void finish();

private:
    bool takeOrigin();
    bool takeFrame();

    const uint64 sizeIdx;
    const SxString digest;
    const Sink sink;
    std::string pending;
    SxArray<char> plain;
    SxMd5 md5;
    bool hasOrigin = false;
    uint64 nDone = 0; ///< bytes of the map
};
} // namespace ZqPackedMap
