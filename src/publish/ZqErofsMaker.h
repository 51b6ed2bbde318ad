#pragma once

#include "ZqDriveMaker.h"
#include "ZqTool.h"

/// An EROFS drive, not compressed; each file has blocks of its own, so that little stands between the inodes.
class ZqErofsMaker : public ZqDriveMaker {
protected:
    void format(const Job& job) const override;
    void mark(const Job& job, std::vector<ZqBlockKind>* kinds) const override;

private:
    const ZqTool mkfs{"mkfs.erofs", "erofs-utils"};
};
