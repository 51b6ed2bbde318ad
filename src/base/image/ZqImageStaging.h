#pragma once

#include "ZqImageLock.h"
#include "ZqNewFolder.h"

/// A new image on its way into an image folder. It is made in a folder `image.new` in there, beside what the
/// image folder holds, which it replaces when it is complete: until commit() everything can be taken back,
/// and is, by the destructor. From then on the new image is the one, wherever its files lie. A cut or a
/// failure loses neither image, since each step can be repeated: the next command that writes there goes on
/// (see ZqImageReplacement). Not locked.
///
/// What the image folder has gathered since it was made are traces of runs, and what drives have written.
/// Both name RAW blocks, and so belong to one build of the disk, which `checksums.mnt` names. They stay where
/// the new image is of the same build. Otherwise they would be lost, which somebody has to ask for.
class ZqImageStaging {
public:
    /// Makes the image folder `target` (with its trailing slash) where it is missing, and takes its lock for
    /// `job`. `target` and the folders above it that are made here go again unless commit() comes.
    /// `mayDiscard`: traces and written data may be lost. Raises where they would be, as far as that is known
    /// already.
    ZqImageStaging(const SxString& target, const SxString& job, bool mayDiscard);
    ~ZqImageStaging();
    ZqImageStaging(const ZqImageStaging&) = delete;
    ZqImageStaging& operator=(const ZqImageStaging&) = delete;

    /// Makes the folder for the new image, empty, and gives its path with a trailing slash. Raises where
    /// fewer than `need` bytes are free.
    SxString begin(uint64 need) const;
    /// Puts `img.zqf`, `img.idx`, `img.json`, `app.json`, and `img.files` and `img.hints`, if any, which are
    /// synced, from there in the place of all that the image folder holds but what stays. `buildId`:
    /// `checksums.mnt` of the new image. Raises, with nothing changed, where something would be lost that
    /// mustn't be.
    void commit(const SxString& buildId);

    /// Whether the folder `inner` is `outer` or lies in it, with all links resolved. They need not exist.
    static bool liesIn(const SxString& inner, const SxString& outer);
    /// Raises where one of the two folders lies in the other, or they are the same: emptying the one that is
    /// written would remove the one that is read. They need not exist.
    static void refuseOverlap(const SxString& a, const SxString& b);

private:
    SxList<SxString> findKept(const SxString& buildId) const;
    void discard() const;

    const SxString target, staging;
    ZqNewFolder folder;
    SxPtr<ZqImageLock> lock;
    const bool mayDiscard;
    bool begun = false; ///< the new image is the one, wherever its files are
    bool complete = false;
};
