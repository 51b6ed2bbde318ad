#include "ZqPackedMap.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqFrameDecoder.h"
#include "ZqFrameEncoder.h"
#include "ZqPackedForm.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/base/ZqPackedMap";
constexpr int64 ENTRY = sizeof(uint64);
/// The level of zstd. Higher ones take ten times as long on differences, and give more bytes.
constexpr int64 LEVEL = 9;

static_assert(ZqPackedMap::ORIGIN_SIZE == ZqPackedForm::ORIGIN_SIZE);

/// Of `n` bytes: each entry but the first becomes its difference to the one before it, modulo 2^64.
void toDifferences(char* bytes, int64 n) noexcept {
    uint64 before = 0;
    for (char* at = bytes; at < bytes + n; at += ENTRY) {
        uint64 entry = 0;
        std::memcpy(&entry, at, ENTRY);
        const uint64 difference = entry - before;
        std::memcpy(at, &difference, ENTRY);
        before = entry;
    }
}

void fromDifferences(char* bytes, int64 n) noexcept {
    uint64 entry = 0;
    for (char* at = bytes; at < bytes + n; at += ENTRY) {
        uint64 difference = 0;
        std::memcpy(&difference, at, ENTRY);
        entry += difference;
        std::memcpy(at, &entry, ENTRY);
    }
}

void requireWhole(uint64 sizeIdx, const SxString& what) {
    if (sizeIdx > 0 && sizeIdx % ENTRY == 0) return;
    throw SxException(what + " has " + SxString(sizeIdx) + " bytes, which isn't a number of entries", UNIT,
                      __LINE__);
}

} // namespace

std::string ZqPackedMap::origin(const SxString& md5) {
    std::string bytes;
    ZqPackedForm::append(&bytes, ZqPackedForm::ORIGIN_MAGIC);
    ZqPackedForm::append(&bytes, ZqPackedForm::ORIGIN_SIZE - ZqPackedForm::HEADER_SIZE);
    return bytes + "idx=" + md5.str();
}

uint64 ZqPackedMap::maxSize(uint64 sizeIdx) noexcept {
    constexpr auto FRAME_SIZE = static_cast<uint64>(FRAME), MAX = static_cast<uint64>(MAX_PACKED);
    return ORIGIN_SIZE + (sizeIdx / FRAME_SIZE + 1) * MAX;
}

uint64 ZqPackedMap::pack(const SxString& idx, const SxString& to, const SxString& digest,
                         const StopTest& stop) {
    SxFileIO map(idx, "rb");
    map.adviseSequential();
    requireWhole(static_cast<uint64>(map.getSize()), "'" + idx + "'");
    uint64 size = 0;
    SxFileIO::writeAtomic(to, [&](SxFileIO* out) {
        // The digest of the map is known only at the end, but must stand where a client sees it first: its
        // place is left free until then.
        const std::string place(ORIGIN_SIZE, '\0');
        out->writeBuffer(place.data(), ORIGIN_SIZE);
        ZqFrameEncoder encoder(LEVEL);
        SxMd5 md5;
        SxArray<char> plain(FRAME);
        while (const int64 n = map.readBuffer(plain.data(), FRAME)) {
            if (stop && stop()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
            if (n % ENTRY != 0) throw SxException(SxFileIO::fileReadErr(idx), UNIT, __LINE__);
            md5.update(plain.data(), n);
            toDifferences(plain.data(), n);
            encoder.encode(plain.data(), n);
            out->writeBuffer(encoder.getFrame(), encoder.getFrameSize());
        }
        md5.finish();
        if (!digest.isEmpty() && !(md5.toString() == digest)) {
            throw SxException("The digest of '" + idx + "' is " + md5.toString() + ", and not " +
                                  digest.makeVisible(),
                              UNIT, __LINE__);
        }
        size = static_cast<uint64>(out->getOffset());
        const std::string known = origin(md5.toString());
        out->seek(0);
        out->writeBuffer(known.data(), ORIGIN_SIZE);
    });
    return size;
}

ZqPackedMap::Decoder::Decoder(uint64 sizeIdx_, const SxString& digest_, Sink sink_)
    : sizeIdx(sizeIdx_),
      digest(digest_),
      sink(std::move(sink_)),
      plain(FRAME) {
    requireWhole(sizeIdx, "The map");
}

void ZqPackedMap::Decoder::take(const char* bytes, int64 n) {
    // A piece at a time, so that at most one frame is held, however much comes at once.
    while (n > 0) {
        const int64 nPiece = std::min(n, MAX_PACKED);
        pending.append(bytes, static_cast<size_t>(nPiece));
        bytes += nPiece;
        n -= nPiece;
        if (!hasOrigin && !takeOrigin()) continue;
        while (takeFrame())
            continue;
    }
}

bool ZqPackedMap::Decoder::takeOrigin() {
    const std::string known = origin(digest);
    // Without a digest any will do.
    const size_t nKnown = digest.isEmpty() ? known.size() : static_cast<size_t>(ORIGIN_SIZE);
    const size_t n = std::min(pending.size(), nKnown);
    if (pending.compare(0, n, known, 0, n) != 0) {
        throw SxException("It wasn't packed of this map", UNIT, __LINE__);
    }
    if (pending.size() < static_cast<size_t>(ORIGIN_SIZE)) return false;
    pending.erase(0, static_cast<size_t>(ORIGIN_SIZE));
    hasOrigin = true;
    return true;
}

bool ZqPackedMap::Decoder::takeFrame() {
    if (pending.empty()) return false;
    if (nDone == sizeIdx) throw SxException("It goes on beyond the map's end", UNIT, __LINE__);
    const auto nPending = static_cast<int64>(pending.size());
    const int64 n = ZqFrameDecoder::findSize(pending.data(), nPending);
    if (n == 0 && nPending >= MAX_PACKED) throw SxException("A frame of it has no end", UNIT, __LINE__);
    if (n == 0) return false;
    const auto nPlain = static_cast<int64>(std::min(static_cast<uint64>(FRAME), sizeIdx - nDone));
    ZqFrameDecoder::decode(pending.data(), n, plain.data(), nPlain);
    pending.erase(0, static_cast<size_t>(n));
    fromDifferences(plain.data(), nPlain);
    md5.update(plain.data(), nPlain);
    nDone += static_cast<uint64>(nPlain);
    sink(plain.data(), nPlain);
    return true;
}

void ZqPackedMap::Decoder::finish() {
    if (nDone < sizeIdx || !pending.empty()) {
        throw SxException("It ends after " + SxString(nDone) + " of " + SxString(sizeIdx) + " bytes", UNIT,
                          __LINE__);
    }
    md5.finish();
    if (!digest.isEmpty() && !(md5.toString() == digest)) {
        throw SxException("Its map has another digest", UNIT, __LINE__);
    }
}
