#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// A squashfs drive, compressed. Its tables are packed, so its inodes can't be followed to the blocks of
/// files as those of the other file systems can. Instead the tool itself puts early files first, and their
/// sizes bound where they end.
class ZqSquashfsMaker : public ZqDriveMaker {
protected:
    void format(const Job& job) const override;
    void survey(const Job& job, Drive* drive) const override;

private:
    const ZqTool mkfs{"mksquashfs", "squashfs-tools"};
};
