#pragma once

#include "SxString.h"
#include "ZqDiskStatus.h"

/// The status of the control library's functions, turned into failures that say why. A status alone only says
/// that something failed; so what the service has to say of it (ZqVolume::getLastException()) becomes the
/// innermost cause, below the words of the operation and, where it is shown, below the bare DRIVER_ERROR.
class ZqDriveStatus {
public:
    /// The bare failure, which the words of an operation stand above.
    static constexpr const char* DRIVER_ERROR = "TAVRIN Driver Error";

    /// Raises `words` unless `status` is that of success. The service's own reason, where it gives one, is
    /// the cause. The control library keeps that for each thread, until the thread's next call. So this must
    /// be the first call after the one that gave the status, on the same thread.
    static void require(int status, const SxString& words, int line);

    /// All that the service says of the disk of an image, in one look; false where the image isn't mounted.
    /// Raises "Cannot query mount state for image ..." where the service can't tell.
    static bool findDisk(const SxString& image, ZqDiskStatus* disk);
};
