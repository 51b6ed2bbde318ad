#include "Counted.h"
#include "SxClock.h"
#include "SxException.h"
#include "VirtualDisk.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/driver/VirtualDiskWrite";

} // namespace

VirtualDisk::Result VirtualDisk::write(uint64 offset, uint32 size, const char* buffer, uint64 token,
                                       bool retry, int* error) {
    if (cfg.readOnly) {
        *error = EROFS;
        return Result::Failed;
    }
    // Before admit(): whoever closes the gate waits for those that it didn't hold.
    const Counted counted(&nWriting);
    if (const auto verdict = admit(offset, size, token, true, retry, error)) return *verdict;
    for (;;) {
        // Looked at first, so that a write that is held for missing blocks has done nothing yet.
        Obstacle obstacle;
        obstacle.isMissing = isEdgeMissing(offset, size);
        *error = obstacle.isMissing ? 0 : writeNow(offset, size, buffer, &obstacle);
        if (obstacle.shortage.error != 0) return holdShort(token, obstacle.shortage, error);
        if (*error || !obstacle.isMissing) shortReads.settle(token);
        if (*error) return Result::Failed;
        if (!obstacle.isMissing) return Result::Done;
        if (const auto verdict = hold(offset, size, token, true, error)) return *verdict;
    }
}

/// Whether the first or the last block is missing, and only a part of it written.
bool VirtualDisk::isEdgeMissing(uint64 offset, uint32 size) const {
    for (const uint64 at : {offset, offset + size - 1}) {
        const RawIdx rawIdx{at / ZqBlocks::SIZE};
        const BlockMap::Place place = map.get(rawIdx);
        if (isPartWritten(rawIdx, offset, size) && place.isStored() && isMissing(place.zqfIdx())) return true;
    }
    return false;
}

/// Gives 0 or an errno value. Where a block can't be had of which a part is written, only some of it is done.
int VirtualDisk::writeNow(uint64 offset, uint32 size, const char* buffer, Obstacle* obstacle) {
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

uint64 VirtualDisk::validBytes(RawIdx rawIdx) const {
    return std::min(ZqBlocks::SIZE, cfg.sizeRaw - rawIdx.value * ZqBlocks::SIZE);
}

bool VirtualDisk::isPartWritten(RawIdx rawIdx, uint64 offset, uint64 size) const {
    const uint64 begin = rawIdx.value * ZqBlocks::SIZE;
    return offset > begin || offset + size < begin + validBytes(rawIdx);
}

int VirtualDisk::writePart(RawIdx rawIdx, uint64 from, uint64 n, const char* data, Obstacle* obstacle) {
    const SxMutexBlock turn(&partialWrites);
    char block[ZqBlocks::SIZE] = {};
    const uint64 begin = rawIdx.value * ZqBlocks::SIZE;
    if (isPartWritten(rawIdx, begin + from, n)) {
        const Outcome outcome =
            readPresent(begin, static_cast<uint32>(validBytes(rawIdx)), block, &obstacle->shortage);
        if (outcome == Outcome::Failed) return EIO;
        obstacle->isMissing = outcome == Outcome::Missing;
        if (obstacle->isAny()) return 0;
    }
    std::memcpy(block + from, data, n);
    return writeBlocks(rawIdx, 1, block);
}

bool VirtualDisk::isInPlace(RawIdx rawIdx) const {
    if (cfg.writeLayer) return false;
    const BlockMap::Place place = map.get(rawIdx);
    // A short last block isn't lengthened: the file's size is part of the image's records.
    return place.isStored() && static_cast<uint64>(place.zqfIdx().byte()) + validBytes(rawIdx) <= zqfSize;
}

int VirtualDisk::writeBlocks(RawIdx first, uint64 n, const char* data) {
    for (uint64 i = 0; i < n;) {
        const bool inPlace = isInPlace(first + i);
        uint64 end = i + 1;
        while (end < n && isInPlace(first + end) == inPlace)
            ++end;
        const char* from = data + i * ZqBlocks::SIZE;
        int error = 0;
        if (inPlace) {
            error = writeInPlace(first + i, end - i, from);
        } else if (layer.getFd() < 0 && isReplaced()) {
            // The layer's files would be made in the other image, in the place of those that it has.
            fail(replacedText());
            error = EIO;
        } else {
            error = layer.write(first + i, end - i, from);
        }
        if (error) return error;
        i = end;
    }
    return 0;
}

int VirtualDisk::writeInPlace(RawIdx first, uint64 n, const char* data) {
    for (uint64 i = 0; i < n;) {
        if (zqfError.load() != 0) return EIO;
        const ZqfIdx zqfIdx = map.get(first + i).zqfIdx();
        uint64 end = i + 1;
        while (end < n && map.get(first + end).getBits() == (zqfIdx + (end - i)).value)
            ++end;
        const uint64 size = (end - i - 1) * ZqBlocks::SIZE + validBytes(first + (end - 1));
        const int error = zqf.writeAt(data + i * ZqBlocks::SIZE, size, static_cast<uint64>(zqfIdx.byte()));
        zqfDirty = true;
        // A full disk refuses this write, and nothing that was taken before is lost; a later one may find
        // room. After any other error nobody knows what the file holds.
        if (error) return error == ENOSPC ? error : failZqf("Cannot write", error);
        i = end;
    }
    return 0;
}

VirtualDisk::Result VirtualDisk::discard(uint64 offset, uint64 size, uint64 token, bool /*retry*/,
                                         int* error) {
    *error = 0;
    const bool isInside = offset <= cfg.sizeRaw && size <= cfg.sizeRaw - offset;
    const bool isWhole =
        offset % ZqBlocks::SIZE == 0 && (size % ZqBlocks::SIZE == 0 || offset + size == cfg.sizeRaw);
    if (cfg.readOnly) {
        *error = EROFS;
    } else if (!isInside) {
        *error = EINVAL;
    } else if (!isWhole) {
        *error = EOPNOTSUPP;
    }
    if (*error) return Result::Failed;
    const Counted counted(&nWriting);
    if (held.isRestricted()) {
        if (const auto verdict = resultOf(held.admit(token, true), error)) return *verdict;
    }
    *error = discardBlocks({offset / ZqBlocks::SIZE}, blocksFor(size));
    return *error ? Result::Failed : Result::Done;
}

int VirtualDisk::discardBlocks(RawIdx first, uint64 n) {
    for (uint64 i = 0; i < n;) {
        const RawIdx rawIdx = first + i;
        uint64 end = i + 1;
        int error = 0;
        if (isInPlace(rawIdx)) {
            error = zeroInPlace(rawIdx);
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
int VirtualDisk::discardInLayer(RawIdx first, uint64 n) {
    if (layer.getFd() < 0) {
        bool isAny = false;
        for (uint64 i = 0; i < n && !isAny; ++i)
            isAny = !map.get(first + i).isNothing();
        if (!isAny) return 0;
        if (isReplaced()) {
            fail(replacedText());
            return EIO;
        }
    }
    return layer.discard(first, n);
}

int VirtualDisk::zeroInPlace(RawIdx rawIdx) {
    static constexpr char ZEROS[ZqBlocks::SIZE] = {};
    if (zqfError.load() != 0) return EIO;
    const int64 at = map.get(rawIdx).zqfIdx().byte();
    if (SxOs::get().punchHole(zqf.getFd(), at, static_cast<int64>(validBytes(rawIdx))) == 0) {
        // Set after the hole is made: a sync in between would clear the flag and might miss the hole.
        zqfDirty = true;
        return 0;
    }
    // A file system without holes.
    return writeInPlace(rawIdx, 1, ZEROS);
}

int VirtualDisk::failZqf(const SxString& what, int error) {
    zqfError = error;
    fail(what + " '" + zqf.getPath() + "': " + SxOs::errorText(error));
    return error;
}

int VirtualDisk::sync() {
    if (zqfError.load() != 0) return EIO;
    if (zqfDirty.exchange(false)) {
        if (const int error = zqf.sync()) return failZqf("Cannot bring to the disk", error);
    }
    return layer.sync();
}

SxString VirtualDisk::replacedText() const {
    return "The image '" + cfg.folder + "' was removed, or replaced by another one, since it was mounted";
}

void VirtualDisk::flushLayer() {
    if (cfg.readOnly) {
        throw SxException("The image '" + cfg.folder + "' is mounted read-only", UNIT, __LINE__);
    }
    const SxMutexBlock turn(&flushing);
    held.closeGate();
    while (nWriting.load() > 0)
        SxClock::get().sleepNs(1'000'000);
    try {
        DriveFile target;
        if (isReplaced()) throw SxException(replacedText(), UNIT, __LINE__);
        target.open(zqf.getPath(), SxOs::Read | SxOs::Write | SxOs::NoFollow);
        // Asked once more: the file that is open now may be that of another image.
        if (isReplaced()) throw SxException(replacedText(), UNIT, __LINE__);
        // What was written in place counts as flushed, too.
        if (sync() != 0) throw SxException(getFailure(), UNIT, __LINE__);
        layer.flush({&target, std::min(getCursor(), nIncluded()), target.getSize(), cfg.sizeRaw});
    } catch (const SxException&) {
        wakeAll(held.openGate());
        throw;
    }
    wakeAll(held.openGate());
}
