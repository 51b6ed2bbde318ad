#pragma once

#include "DiskFolder.h"
#include "SxMutex.h"

#include <atomic>

/// Whether what programs wrote to a drive may still lie in the kernel's memory, which goes with the
/// connection, and why it was lost. Noted in the disk's folder, too, for whoever tidies up after a service
/// that was killed. Safe from any thread.
class LostWrites {
public:
    /// `folder_` must outlive the object.
    LostWrites(const SxString& image_, const DiskFolder& folder_) : image(image_), folder(folder_) {}

    /// A volume that may be written to is there, or no longer. Raises.
    void setHolds(bool holds_);
    /// What isn't on the disk by now is lost, for this reason. The first reason stays; does nothing where
    /// nothing may be lost.
    void note(const SxString& why);
    /// As a sentence; empty for nothing.
    SxString get() const;

private:
    const SxString image;
    const DiskFolder& folder;
    std::atomic<bool> holds{false};
    mutable SxMutex mutex;
    SxString lost SX_GUARDED_BY(mutex);
};
