#pragma once

#include "SxMutex.h"
#include "ZqImageFigures.h"

/// What was moved of an image so far. Safe from any thread.
class ZqImageCounts {
public:
    /// `figure` grows by `n` bytes.
    void add(uint64 ZqImageFigures::*figure, uint64 n) {
        SxMutexBlock lock(&mutex);
        figures.*figure += n;
    }
    ZqImageFigures get() const {
        SxMutexBlock lock(&mutex);
        return figures;
    }

private:
    mutable SxMutex mutex;
    ZqImageFigures figures SX_GUARDED_BY(mutex);
};
