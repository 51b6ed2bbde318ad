#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// A squashfs drive, compressed.
class ZqSquashfsMaker : public ZqDriveMaker {
protected:
    void format(const Job& job) const override;
    void mark(const Job& job, std::vector<ZqBlockKind>* kinds) const override;

private:
    const ZqTool mkfs{"mksquashfs", "squashfs-tools"};
};
