#include "ZqUnderflowDrive.h"

#include "SxException.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqLog.h"
#include "ZqVolume.h"

#include <algorithm>

ZqUnderflowDrive::ZqUnderflowDrive(const SxString& path_, uint64 sizeZqf_,
                                   const std::atomic<bool>& isStopped_)
    : path(path_),
      sizeZqf(sizeZqf_),
      isStopped(isStopped_) {
}

template<class Call>
auto ZqUnderflowDrive::patiently(Call&& call) const {
    for (bool isTold = false;; isTold = true) {
        try {
            return call();
        } catch (const SxException& e) {
            if (!bearsSilence(e, isTold)) throw;
        }
    }
}

bool ZqUnderflowDrive::bearsSilence(const SxException& why, bool isTold) const {
    if (isStopped || !why.hasTag(ZqVolume::SILENT)) return false;
    if (!isTold)
        zqLogMsg("base", "ZqCoreUnderflowMgr::main: " + why.toString(SxException::ShowMessage, ": "));
    SxTime::msleep(POLL_MS);
    return true;
}

bool ZqUnderflowDrive::isThere() const {
    return patiently([this] { return mountMgr.isMounted(path); });
}

bool ZqUnderflowDrive::isReadHeld() const {
    return patiently([this] { return mountMgr.isUnderflow(path); });
}

uint64 ZqUnderflowDrive::getQueueLength() const {
    return patiently([this] { return mountMgr.getUnderflowQueueLen(path); });
}

SxArray<uint64> ZqUnderflowDrive::pop(uint64 count) const {
    SxArray<uint64> indices = patiently([&] { return mountMgr.popUnderflowZqFBlocks(path, count); });
    for (uint64& index : indices)
        index = byteIdxOf(ZqfIdx{index});
    return indices;
}

void ZqUnderflowDrive::deliver(const SxArray<char>& data, ZqfIdx first) const {
    patiently([&] { mountMgr.sendBlockToUFLayer(path, data, first.value); });
}

void ZqUnderflowDrive::suspend() {
    hasSuspended = true;
    patiently([this] { mountMgr.suspend(path); });
}

bool ZqUnderflowDrive::isSuspended() const {
    return patiently([this] { return mountMgr.isSuspended(path); });
}

void ZqUnderflowDrive::resume() {
    if (!hasSuspended) return;
    patiently([this] { mountMgr.resume(path); });
    hasSuspended = false;
}

uint64 ZqUnderflowDrive::popHeld() const {
    return mountMgr.isUnderflow(path) ? byteIdxOf(ZqfIdx{mountMgr.popUnderflowZqFBlock(path)}) : 0;
}

SxArray<uint64> ZqUnderflowDrive::popHeld(uint64 count) const {
    return mountMgr.isUnderflow(path) ? pop(count) : SxArray<uint64>();
}

uint64 ZqUnderflowDrive::byteIdxOf(ZqfIdx block) const {
    if (block.value == ZqImage::NO_ENTRY) return 0;
    // The image's last block may be a part of one.
    return block.value <= sizeZqf / ZqBlocks::SIZE ? block.value * ZqBlocks::SIZE : sizeZqf;
}
