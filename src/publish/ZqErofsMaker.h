#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// An EROFS drive, not compressed. Each file has blocks of its own, and no content stands between the inodes
/// (`noinline_data`): otherwise the ends of all files would be part of what a mount waits for, several
/// megabytes for a large game. The price is that files are filled up to whole blocks.
class ZqErofsMaker : public ZqDriveMaker {
protected:
    void format(const Job& job) const override;
    void survey(const Job& job, Drive* drive) const override;

private:
    const ZqTool mkfs{"mkfs.erofs", "erofs-utils"};
};
