#pragma once

#include "SxList.h"
#include "ZqMeans.h"

/// The programs by which publishers make images and patches.
class ZqPublishMeans {
public:
    /// None of them is needed to play. Safe from any thread; raises nothing.
    static SxList<ZqMeans> look();
};
