#pragma once

#include "SxList.h"
#include "SxString.h"

/// The replacement of all that an image folder holds by the new image in its folder `image.new`. The step
/// that decides is the note `ready` in there: until it stands, the old image is the one; from then on the new
/// one is, and whoever comes next goes on where a replacement was cut off. Whoever calls holds
/// ZqImageLock::Shape exclusively; nothing is locked here.
///
/// Note: the names in the image folder that stay, one a line.
class ZqImageReplacement {
public:
    /// Replaces. The files of the new image are synced. What is named in `kept`, and the lock file, stay.
    static void begin(const SxString& folder, const SxList<SxString>& kept);
    /// Whether one was begun in the image folder and not ended.
    static bool isPending(const SxString& folder);
    /// Brings one to its end that was begun, from wherever it was cut off.
    static void finish(const SxString& folder);
    /// Takes one back that was begun in a folder where no image stood.
    static void takeBack(const SxString& folder);
};
