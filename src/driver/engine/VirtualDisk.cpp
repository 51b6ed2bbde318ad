#include "VirtualDisk.h"

#include "Counted.h"
#include "SxClock.h"
#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* UNIT = "src/driver/VirtualDisk";

} // namespace

VirtualDisk::VirtualDisk(const Config& config, Wake wake)
    : cfg(config),
      cursor(cfg.cursor),
      map(cfg.folder.str(), cfg.sizeRaw, !cfg.readOnly),
      store(cfg.folder.str(), map.nIncluded(), cfg.cacheSize, cursor),
      layer(cfg.folder.str(), &map, cfg.readOnly),
      zqf(cfg.folder, map.nIncluded(), &failure),
      reader({map, cursor, zqf, store, layer}, cfg.sizeRaw, &failure, &reads),
      writer(cfg, {map, zqf, layer, reader}, &failure),
      requests(
          [this](const HeldRequest& request, std::vector<ZqfIdx>* missing) { findMissing(request, missing); },
          std::move(wake)) {
    if (cfg.writesInPlace()) requireComplete(cfg.cursor);
    zqf.open(cfg.writesInPlace());
    if (isComplete()) zqf.noteEnd();
    if (cfg.readOnly) return;
    if (cfg.writeLayer) {
        layer.create();
    } else {
        layer.tryToCreate();
    }
}

VirtualDisk::~VirtualDisk() {
    close();
}

void VirtualDisk::requireComplete(uint64 present) const {
    if (present >= nIncluded()) return;
    throw SxException("The image '" + cfg.folder + "' has " + present + " of " + nIncluded() +
                          " blocks; only a complete one can be written in place",
                      UNIT, __LINE__);
}

/// What ends a request before it begins, if anything.
VirtualDisk::Verdict VirtualDisk::admit(uint64 offset, uint32 size, uint64 token, bool isWrite, bool retry,
                                        int* error) {
    if (size > MAX_REQUEST || offset > cfg.sizeRaw || size > cfg.sizeRaw - offset) {
        *error = EINVAL;
        return Result::Failed;
    }
    if (size == 0) return Result::Done;
    if (!retry) {
        requests.settle(token);
        const RawIdx first{offset / ZqBlocks::SIZE};
        const uint64 n = blocksFor(offset % ZqBlocks::SIZE + size);
        if (trace.isOn()) trace.record(first, n, isWrite);
        if (!isWrite) reads.add(map, first, n);
    }
    return resultOf(requests.admit(token, isWrite), error);
}

VirtualDisk::Verdict VirtualDisk::resultOf(HeldRequests::Verdict verdict, int* error) {
    if (verdict == HeldRequests::Verdict::Go) return {};
    if (verdict == HeldRequests::Verdict::Held) return Result::Held;
    *error = EIO;
    return Result::Failed;
}

VirtualDisk::Result VirtualDisk::holdShort(uint64 token, const DiskReader::Fault& fault, int* error) {
    if (requests.holdShort(token)) return Result::Held;
    failure.note(fault.text());
    *error = EIO;
    return Result::Failed;
}

VirtualDisk::Result VirtualDisk::read(uint64 offset, uint32 size, char* buffer, uint64 token, bool retry,
                                      int* error) {
    const Result result = tryRead(offset, size, buffer, token, retry, error);
    if (result == Result::Held && !retry) reads.addWait();
    return result;
}

VirtualDisk::Result VirtualDisk::tryRead(uint64 offset, uint32 size, char* buffer, uint64 token, bool retry,
                                         int* error) {
    if (const auto verdict = admit(offset, size, token, false, retry, error)) return *verdict;
    for (;;) {
        DiskReader::Fault shortage;
        switch (reader.read(offset, size, buffer, &shortage)) {
        case DiskReader::Outcome::Done:
            requests.settle(token);
            return Result::Done;
        case DiskReader::Outcome::Short:
            return holdShort(token, shortage, error);
        case DiskReader::Outcome::Failed:
            requests.settle(token);
            *error = EIO;
            return Result::Failed;
        case DiskReader::Outcome::Missing:
            if (const auto verdict = resultOf(requests.hold(token, offset, size, false), error))
                return *verdict;
        }
    }
}

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
        DiskWriter::Obstacle obstacle;
        obstacle.isMissing = writer.isEdgeMissing(offset, size);
        *error = obstacle.isMissing ? 0 : writer.write(offset, size, buffer, &obstacle);
        if (obstacle.shortage.error != 0) return holdShort(token, obstacle.shortage, error);
        if (*error || !obstacle.isMissing) requests.settle(token);
        if (*error) return Result::Failed;
        if (!obstacle.isMissing) return Result::Done;
        if (const auto verdict = resultOf(requests.hold(token, offset, size, true), error)) return *verdict;
    }
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
    if (const auto verdict = resultOf(requests.admit(token, true), error)) return *verdict;
    *error = writer.discard({offset / ZqBlocks::SIZE}, blocksFor(size));
    return *error ? Result::Failed : Result::Done;
}

int VirtualDisk::sync() {
    if (const int error = zqf.sync()) return error;
    return layer.sync();
}

/// Lists what a request waits for: a write only for blocks of which it writes a part.
void VirtualDisk::findMissing(const HeldRequest& request, std::vector<ZqfIdx>* missing) const {
    const uint64 first = request.offset / ZqBlocks::SIZE,
                 last = (request.offset + request.size - 1) / ZqBlocks::SIZE;
    for (RawIdx rawIdx{first}; rawIdx.value <= last; rawIdx = rawIdx + 1) {
        const bool isEdge = rawIdx.value == first || rawIdx.value == last;
        if (request.write && !(isEdge && writer.isPartWritten(rawIdx, request.offset, request.size)))
            continue;
        const BlockMap::Place place = map.get(rawIdx);
        if (place.isStored() && reader.isMissing(place.zqfIdx())) missing->push_back(place.zqfIdx());
    }
    std::sort(missing->begin(), missing->end());
    missing->erase(std::unique(missing->begin(), missing->end()), missing->end());
}

void VirtualDisk::setCursor(uint64 zqfIdx) {
    if (cfg.writesInPlace()) requireComplete(zqfIdx);
    // Before the cursor is set, since the last block is read from then on.
    if (zqfIdx >= nIncluded()) zqf.noteEnd();
    requests.moveCursor(&cursor, zqfIdx);
    store.dropPassed();
}

void VirtualDisk::deliver(uint64 zqfIdx, const char* data, uint64 length) {
    const auto refuse = [&](const SxString& fault) {
        throw SxException("The delivery of " + SxString(length) + " bytes for ZqF block " + zqfIdx + " " +
                              fault,
                          UNIT, __LINE__);
    };
    const uint64 n = blocksFor(length);
    if (length == 0) refuse("is empty");
    if (length > UnderflowStore::LONGEST_DELIVERY) refuse("is too long");
    if (zqfIdx >= nIncluded() || n > nIncluded() - zqfIdx) {
        refuse("goes beyond the image of " + SxString(nIncluded()) + " blocks");
    }
    if (length % ZqBlocks::SIZE != 0 && zqfIdx + n < nIncluded()) refuse("ends inside a block");
    try {
        store.add({zqfIdx}, data, length);
    } catch (const SxException& e) {
        for (uint64 i = zqfIdx; i < zqfIdx + n; ++i) {
            if (!reader.isMissing({i})) requests.arrive({i}, {i + 1});
        }
        throw SxException(e, "Cannot take ZqF block " + SxString(zqfIdx), UNIT, __LINE__);
    }
    requests.arrive({zqfIdx}, {zqfIdx + n});
}

void VirtualDisk::flushLayer() {
    if (cfg.readOnly) {
        throw SxException("The image '" + cfg.folder + "' is mounted read-only", UNIT, __LINE__);
    }
    const SxMutexBlock turn(&flushing);
    requests.closeGate();
    while (nWriting.load() > 0)
        SxClock::get().sleepNs(1'000'000);
    try {
        DriveFile target;
        if (isReplaced()) throw SxException(zqf.replacedText(), UNIT, __LINE__);
        target.open(zqf.getPath(), SxOs::Read | SxOs::Write | SxOs::NoFollow);
        // Asked once more: the file that is open now may be that of another image.
        if (isReplaced()) throw SxException(zqf.replacedText(), UNIT, __LINE__);
        // What was written in place counts as flushed, too.
        if (sync() != 0) throw SxException(getFailure(), UNIT, __LINE__);
        layer.flush({&target, std::min(getCursor(), nIncluded()), target.getSize(), cfg.sizeRaw});
    } catch (...) {
        requests.openGate();
        throw;
    }
    requests.openGate();
}

void VirtualDisk::tick() {
    trace.flush();
    requests.retryShort();
}

int VirtualDisk::close() {
    requests.close();
    const int error = cfg.readOnly ? 0 : sync();
    layer.stopGivingBack();
    trace.stop();
    return error;
}

SxString VirtualDisk::getFailure() const {
    const SxString text = failure.getText();
    return text.isEmpty() ? layer.getFailure() : text;
}
