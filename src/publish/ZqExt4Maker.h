#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// An ext4 drive, for applications that write to it: a journal, and some free room.
class ZqExt4Maker : public ZqDriveMaker {
protected:
    uint64 getOverhead(const ZqSourceTree& source, uint64 freeBytes) const override;
    void format(const Job& job) const override;
    void mark(const Job& job, std::vector<ZqBlockKind>* kinds) const override;

private:
    /// Gives all inodes the fixed time and owner, which mke2fs takes from the tree.
    void fixInodes(const Job& job) const;

    const ZqTool mkfs{"mke2fs", "e2fsprogs"}, debugfs{"debugfs", "e2fsprogs"};
};
