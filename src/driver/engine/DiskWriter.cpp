#include "DiskWriter.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

DiskWriter::DiskWriter(const DiskConfig& config, const Targets& to_, DriveFailure* failure_)
    : sizeRaw(config.sizeRaw),
      writesInPlace(config.writesInPlace()),
      to(to_),
      failure(failure_) {
}

bool DiskWriter::isEdgeMissing(uint64 offset, uint32 size) const {
    for (const uint64 at : {offset, offset + size - 1}) {
        const RawIdx rawIdx{at / ZqBlocks::SIZE};
        const BlockMap::Place place = to.map.get(rawIdx);
        if (isPartWritten(rawIdx, offset, size) && place.isStored() && to.reader.isMissing(place.zqfIdx()))
            return true;
    }
    return false;
}

int DiskWriter::write(uint64 offset, uint32 size, const char* buffer, Obstacle* obstacle) {
    const uint64 end = offset + size;
    for (uint64 at = offset; at < end;) {
        const RawIdx rawIdx{at / ZqBlocks::SIZE};
        const uint64 inBlock = at % ZqBlocks::SIZE;
        const bool isWhole = inBlock == 0 && end - at >= ZqBlocks::SIZE;
        const uint64 n = isWhole ? (end - at) / ZqBlocks::SIZE * ZqBlocks::SIZE
                                 : std::min(end - at, ZqBlocks::SIZE - inBlock);
        const char* from = buffer + (at - offset);
        const int error = isWhole ? writeBlocks(rawIdx, n / ZqBlocks::SIZE, from)
                                  : writePart(rawIdx, inBlock, n, from, obstacle);
        if (error || obstacle->isAny()) return error;
        at += n;
    }
    return 0;
}

uint64 DiskWriter::validBytes(RawIdx rawIdx) const {
    return std::min(ZqBlocks::SIZE, sizeRaw - rawIdx.value * ZqBlocks::SIZE);
}

bool DiskWriter::isPartWritten(RawIdx rawIdx, uint64 offset, uint64 size) const {
    const uint64 begin = rawIdx.value * ZqBlocks::SIZE;
    return offset > begin || offset + size < begin + validBytes(rawIdx);
}

int DiskWriter::writePart(RawIdx rawIdx, uint64 from, uint64 n, const char* data, Obstacle* obstacle) {
    using Outcome = DiskReader::Outcome;
    const SxMutexBlock turn(&partialWrites);
    char block[ZqBlocks::SIZE] = {};
    const uint64 begin = rawIdx.value * ZqBlocks::SIZE;
    if (isPartWritten(rawIdx, begin + from, n)) {
        const Outcome outcome =
            to.reader.read(begin, static_cast<uint32>(validBytes(rawIdx)), block, &obstacle->shortage);
        if (outcome == Outcome::Failed) return EIO;
        obstacle->isMissing = outcome == Outcome::Missing;
        if (obstacle->isAny()) return 0;
    }
    std::memcpy(block + from, data, n);
    return writeBlocks(rawIdx, 1, block);
}

bool DiskWriter::isInPlace(RawIdx rawIdx) const {
    if (!writesInPlace) return false;
    const BlockMap::Place place = to.map.get(rawIdx);
    return place.isStored() && to.zqf.hasRoomFor(place.zqfIdx(), validBytes(rawIdx));
}

int DiskWriter::writeBlocks(RawIdx first, uint64 n, const char* data) {
    for (uint64 i = 0; i < n;) {
        const bool inPlace = isInPlace(first + i);
        uint64 end = i + 1;
        while (end < n && isInPlace(first + end) == inPlace)
            ++end;
        const char* from = data + i * ZqBlocks::SIZE;
        int error = 0;
        if (inPlace) {
            error = writeInPlace(first + i, end - i, from);
        } else if (to.layer.getFd() < 0 && to.zqf.isReplaced()) {
            error = refuseReplaced();
        } else {
            error = to.layer.write(first + i, end - i, from);
        }
        if (error) return error;
        i = end;
    }
    return 0;
}

/// The layer's files would be made in the other image, in the place of those that it has.
int DiskWriter::refuseReplaced() {
    failure->note(to.zqf.replacedText());
    return EIO;
}

int DiskWriter::writeInPlace(RawIdx first, uint64 n, const char* data) {
    for (uint64 i = 0; i < n;) {
        const ZqfIdx zqfIdx = to.map.get(first + i).zqfIdx();
        uint64 end = i + 1;
        while (end < n && to.map.get(first + end).getBits() == (zqfIdx + (end - i)).value)
            ++end;
        const uint64 size = (end - i - 1) * ZqBlocks::SIZE + validBytes(first + (end - 1));
        if (const int error = to.zqf.write(zqfIdx, size, data + i * ZqBlocks::SIZE)) return error;
        i = end;
    }
    return 0;
}

int DiskWriter::discard(RawIdx first, uint64 n) {
    for (uint64 i = 0; i < n;) {
        const RawIdx rawIdx = first + i;
        uint64 end = i + 1;
        int error = 0;
        if (isInPlace(rawIdx)) {
            error = to.zqf.zero(to.map.get(rawIdx).zqfIdx(), validBytes(rawIdx));
        } else {
            while (end < n && !isInPlace(first + end))
                ++end;
            error = discardInLayer(rawIdx, end - i);
        }
        if (error) return error;
        i = end;
    }
    return 0;
}

/// While the layer has no files, blocks that aren't included have nothing to be freed, and need none made.
int DiskWriter::discardInLayer(RawIdx first, uint64 n) {
    if (to.layer.getFd() < 0) {
        bool isAny = false;
        for (uint64 i = 0; i < n && !isAny; ++i)
            isAny = !to.map.get(first + i).isNothing();
        if (!isAny) return 0;
        if (to.zqf.isReplaced()) return refuseReplaced();
    }
    return to.layer.discard(first, n);
}
