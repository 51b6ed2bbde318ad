#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// An ext4 drive, for applications that write to it. It has a journal, since a drive that is written to must
/// survive a kill. It has free room, which is zeros and so costs nothing in the image.
class ZqExt4Maker : public ZqDriveMaker {
protected:
    uint64 getOverhead(const ZqSourceTree& source, uint64 freeBytes) const override;
    void format(const Job& job) const override;
    void survey(const Job& job, Drive* drive) const override;

private:
    /// Gives all inodes the fixed time and owner by debugfs, since `mke2fs -d` takes them from the tree.
    void fixInodes(const Job& job) const;

    const ZqTool mkfs{"mke2fs", "e2fsprogs"}, debugfs{"debugfs", "e2fsprogs"};
};
