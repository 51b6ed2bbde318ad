#include "VirtualDisk.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/driver/VirtualDisk";

} // namespace

VirtualDisk::VirtualDisk(const Config& config, Wake wake_)
    : cfg(config),
      wake(std::move(wake_)),
      cursor(cfg.cursor),
      map(cfg.folder.str(), cfg.sizeRaw, !cfg.readOnly),
      store(cfg.folder.str(), map.nIncluded(), cfg.cacheSize, cursor),
      layer(cfg.folder.str(), &map, cfg.readOnly),
      held([this](const HeldRequest& request, std::vector<ZqfIdx>* missing) {
          findMissing(request, missing);
      }) {
    const bool inPlace = !cfg.readOnly && !cfg.writeLayer;
    if (inPlace) requireComplete(cfg.cursor);
    zqf.open(cfg.folder.str() + ZqImageFiles::ZQF,
             inPlace ? SxOs::Read | SxOs::Write | SxOs::NoFollow : SxOs::Read);
    zqfSize = zqf.getSize();
    noteEnd(cfg.cursor);
    if (cfg.readOnly) return;
    if (inPlace) {
        // What a killed service has written may not be on the disk yet, and programs rely on it after a sync.
        zqf.noteWritten(0, zqfSize);
        zqfDirty = true;
    }
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

/// Once all blocks are there the file's size is the image's. It is noted before the cursor is set, since the
/// last block is read from then on.
void VirtualDisk::noteEnd(uint64 present) {
    SxStat info;
    if (present < nIncluded() || endOfZqf.load() != 0) return;
    if (SxOs::get().statFd(zqf.getFd(), &info) == 0) endOfZqf = static_cast<uint64>(info.size);
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
        shortReads.settle(token);
        arrived(offset, size, isWrite);
    }
    if (!held.isRestricted()) return {};
    return resultOf(held.admit(token, isWrite), error);
}

VirtualDisk::Verdict VirtualDisk::hold(uint64 offset, uint32 size, uint64 token, bool isWrite, int* error) {
    return resultOf(held.hold(token, offset, size, isWrite), error);
}

VirtualDisk::Result VirtualDisk::holdShort(uint64 token, const Fault& fault, int* error) {
    if (shortReads.hold(token)) return Result::Held;
    fail(fault.text());
    *error = EIO;
    return Result::Failed;
}

VirtualDisk::Verdict VirtualDisk::resultOf(HeldRequests::Verdict verdict, int* error) {
    if (verdict == HeldRequests::Verdict::Go) return {};
    if (verdict == HeldRequests::Verdict::Held) return Result::Held;
    *error = EIO;
    return Result::Failed;
}

void VirtualDisk::arrived(uint64 offset, uint32 size, bool isWrite) {
    const RawIdx first{offset / ZqBlocks::SIZE};
    const uint64 n = blocksFor(offset % ZqBlocks::SIZE + size);
    if (trace.isOn()) trace.record(first, n, isWrite);
    if (isWrite) return;
    reads.fetch_add(1, std::memory_order_relaxed);
    const uint64 qa = qaCursor.load(std::memory_order_relaxed);
    if (qa >= nIncluded()) return;
    for (uint64 i = 0; i < n; ++i) {
        const BlockMap::Place place = map.get(first + i);
        if (!place.isStored() || place.zqfIdx().value < qa) continue;
        ++beyondQA;
        return;
    }
}

void VirtualDisk::wakeAll(const HeldRequests::Tokens& tokens) const {
    for (const uint64 token : tokens)
        wake(token);
}

bool VirtualDisk::forget(uint64 token) {
    const bool wasShort = shortReads.forget(token);
    return held.forget(token) || wasShort;
}

void VirtualDisk::setCursor(uint64 zqfIdx) {
    if (!cfg.readOnly && !cfg.writeLayer) requireComplete(zqfIdx);
    noteEnd(zqfIdx);
    if (zqfIdx > getCursor()) shortReads.revive();
    wakeAll(held.moveCursor(&cursor, zqfIdx));
    store.dropPassed();
}

void VirtualDisk::suspend() {
    held.suspend();
}

void VirtualDisk::resume() {
    wakeAll(held.resume());
}

bool VirtualDisk::isSuspended() const {
    return held.isSuspended();
}

void VirtualDisk::setFailOnUnderflow() {
    wakeAll(held.failMissing());
    wakeAll(shortReads.fail());
}

bool VirtualDisk::isUnderflow() const {
    return held.isUnderflow();
}

uint64 VirtualDisk::queueLength() {
    return held.queueLength();
}

std::vector<uint64> VirtualDisk::popMissing(uint64 max) {
    return held.popMissing(max);
}

bool VirtualDisk::oldestRequest(uint64* offset, uint64* length) const {
    return held.oldest(offset, length);
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
            if (!isMissing({i})) wakeAll(held.arrive({i}, {i + 1}));
        }
        throw SxException(e, "Cannot take ZqF block " + SxString(zqfIdx), UNIT, __LINE__);
    }
    wakeAll(held.arrive({zqfIdx}, {zqfIdx + n}));
}

void VirtualDisk::setCacheSize(uint64 bytes) {
    store.setCacheSize(bytes);
}

void VirtualDisk::monitorOn(const SxString& folder) {
    trace.start(folder);
}

void VirtualDisk::monitorOff() {
    trace.stop();
}

void VirtualDisk::tick() {
    trace.flush();
    wakeAll(shortReads.release());
}

int VirtualDisk::close() {
    wakeAll(held.close());
    wakeAll(shortReads.fail());
    const int error = cfg.readOnly ? 0 : sync();
    layer.stopGivingBack();
    trace.stop();
    return error;
}

uint64 VirtualDisk::nHeld() const {
    return held.nHeld() + shortReads.nHeld();
}

void VirtualDisk::fail(const SxString& text) {
    const SxMutexBlock lock(&failureMutex);
    if (failure.isEmpty()) failure = text;
}

SxString VirtualDisk::getFailure() const {
    {
        const SxMutexBlock lock(&failureMutex);
        if (!failure.isEmpty()) return failure;
    }
    return layer.getFailure();
}
