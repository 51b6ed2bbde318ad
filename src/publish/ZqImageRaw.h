#pragma once

#include "SxArray.h"
#include "SxString.h"
#include "ZqTaskMon.h"

/// Job that writes the RAW image of a complete image folder as `img.raw` into a folder. Blocks that aren't
/// included become holes of the file. `img.raw` is replaced when the new one is complete. Progress in bytes.
/// Takes the image's lock, shared.
class ZqImageRaw : public ZqTaskMon {
public:
    /// `image` is the image folder, `dir` the folder for `img.raw`, which is made.
    ZqImageRaw(const SxString& image, const SxString& dir);

    // After the end: bytes of the RAW image, and of those the bytes that were written.
    uint64 getSizeRaw() const { return sizeRaw; }
    uint64 getSizeWritten() const { return sizeWritten; }

protected:
    void main() override;

private:
    SxArray<uint64> readMap();
    void write(const SxArray<uint64>& map, const SxString& path);

    const SxString image, dir; ///< with trailing slashes
    uint64 sizeRaw = 0, sizeWritten = 0;
};
