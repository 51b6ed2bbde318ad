#pragma once

#include "SxFileIO.h"
#include "ZqTaskMon.h"

/// Job that writes `img.zqf.zst`, the packed form for delivery, beside the `img.zqf` of a complete image. One
/// that stood there is replaced when the new one is complete. Works with all cores and some megabytes of
/// memory. Progress in bytes of `img.zqf`. Takes the image's lock, shared, and that for growth, so that there
/// is one at a time. Raises where the image isn't complete, or `img.zqf` isn't what `app.json` says.
class ZqImagePack : public ZqTaskMon {
public:
    static constexpr int64 DEFAULT_LEVEL = 17;
    static int64 getMaxLevel();

    /// `image` is the image folder, `level` one of zstd's.
    explicit ZqImagePack(const SxString& image, int64 level = DEFAULT_LEVEL);

    // After the end.
    uint64 getNFrames() const { return nFrames; }
    uint64 getSizeZqf() const { return sizeZqf; }       ///< bytes
    uint64 getSizePacked() const { return sizePacked; } ///< bytes of `img.zqf.zst`

protected:
    void main() override;

private:
    class Writer;

    /// Gives the digest.
    SxString writeFrames(Writer* writer);

    const SxString image; ///< with a trailing slash
    const int64 level;
    uint64 nFrames = 0, sizeZqf = 0, sizePacked = 0;
};
