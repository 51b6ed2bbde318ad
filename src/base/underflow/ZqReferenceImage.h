#pragma once

#include "SxArray.h"
#include "SxFileIO.h"
#include "ZqOnDemandPass.h"

/// The file `imgRef.zqf` in an image's folder, the same bytes as the finished `img.zqf`, for tests of an
/// order: what is fetched on demand is compared with it. Where it isn't there, or can't be read, nothing is
/// compared. Nothing is raised. On one thread.
class ZqReferenceImage {
public:
    /// Opens the one in the image folder `path`, if it has one.
    void open(const SxString& path);
    void close() { file = SxFileIO(); }

    /// The `length` bytes from `offset` on; none where nothing is to be compared.
    SxArray<char> read(const ZqOnDemandPass& pass, uint64 offset, uint64 length);
    /// Whether the bytes that were fetched from `offset` on are those that were read; says in the log where
    /// not.
    static bool matches(const ZqOnDemandPass& pass, uint64 offset, const SxArray<char>& data,
                        const SxArray<char>& expected);

private:
    SxFileIO file;
};
