#pragma once

#include "SxString.h"

/// An index folder that goes once an image has its order. No more goes than what such a folder holds, so that
/// who names another folder by mistake loses nothing.
class ZqConsumedIndex {
public:
    /// `folder` as realPath() gives it.
    explicit ZqConsumedIndex(const SxString& folder);

    /// Where a path leads, with one trailing slash: a link stays a link, whatever becomes of its target.
    static SxString realPath(const SxString& folder);
    /// Raises where the folder is an image that is used or published, too; failures call it `name`.
    void requireNoImage(const SxString& name) const;
    /// Removes it, where its `app.json` is that of the image folder `image`, which has its order by now. Can
    /// be repeated. Gives a sentence where it stays, and raises nothing: the image mustn't be held up by
    /// that.
    SxString remove(const SxString& image) const;

private:
    /// What tells that it is an image, too; empty for nothing.
    SxString findImageMark() const;
    void removeFiles(const SxString& image) const;

    const SxString path;
};
