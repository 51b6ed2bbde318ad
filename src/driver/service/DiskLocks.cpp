#include "DiskLocks.h"

namespace {

constexpr const char* HOLDER = "drive service";

} // namespace

DiskLocks::DiskLocks(const SxString& image, bool writesInPlace)
    : drive(ZqImageLock::take(image, ZqImageLock::Drive, ZqImageLock::Exclusive, HOLDER)),
      shape(ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, HOLDER)),
      blocks(writesInPlace ? takeBlocks(image) : SxPtr<ZqImageLock>()) {
}

SxPtr<ZqImageLock> DiskLocks::takeBlocks(const SxString& image) {
    return ZqImageLock::take(image, ZqImageLock::Blocks, ZqImageLock::Shared, HOLDER);
}

void DiskLocks::release() {
    drive = SxPtr<ZqImageLock>();
    shape = SxPtr<ZqImageLock>();
    blocks = SxPtr<ZqImageLock>();
}

void KernelNote::make() {
    ZqImageLock::noteKernel(image);
    isMade = true;
}

KernelNote::~KernelNote() {
    if (isMade) ZqImageLock::dropKernelNote(image);
}
