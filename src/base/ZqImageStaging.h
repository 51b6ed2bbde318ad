#pragma once

#include "ZqImageLock.h"
#include "ZqNewFolder.h"

/// A new image on its way into an image folder. It is made in a folder `image.new` in there, beside what the
/// image folder holds, which it replaces when it is complete: until commit() everything can be taken back,
/// and is, by the destructor. Not locked.
class ZqImageStaging {
public:
    /// Makes the image folder `target` (with its trailing slash) where it is missing, and takes its lock for
    /// `job`. `target` and the folders above it that are made here go again unless commit() comes.
    ZqImageStaging(const SxString& target, const SxString& job);
    ~ZqImageStaging();
    ZqImageStaging(const ZqImageStaging&) = delete;
    ZqImageStaging& operator=(const ZqImageStaging&) = delete;

    /// Makes the folder for the new image, empty, and gives its path with a trailing slash. Raises where
    /// fewer than `need` bytes are free.
    SxString begin(uint64 need) const;
    /// Puts `img.zqf`, `img.idx`, `img.json` and `app.json`, which are synced, from there in the place of all
    /// that the image folder holds.
    void commit();

    /// Whether the folder `inner` is `outer` or lies in it, with all links resolved. They need not exist.
    static bool liesIn(const SxString& inner, const SxString& outer);
    /// Raises where one of the two folders lies in the other, or they are the same. They need not exist.
    static void refuseOverlap(const SxString& a, const SxString& b);
    /// Raises where fewer than `need` bytes are free on the file system of the folder `path`.
    static void requireSpace(const SxString& path, uint64 need);

private:
    void replace();
    void discard() const;

    const SxString target, staging;
    ZqNewFolder folder;
    SxPtr<ZqImageLock> lock;
    bool replacing = false; ///< the old image is gone
    bool complete = false;
};
