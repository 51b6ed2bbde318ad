#pragma once

#include "ZqImageContent.h"
#include "ZqSaves.h"

#include <memory>
#include <optional>

/// The end of an image that its player no longer wants: removes the image's own files, and what its mounts
/// have left elsewhere, and leaves what somebody else has put into its folder. What its application has saved
/// stays unless that is wished for. A removal that was cut off can be given again. One thread.
class ZqImageRemoval {
public:
    /// Looks at the image and changes nothing. Raises, in one sentence, where the path is no image folder of
    /// this user's own: a link, the root folder, the home folder or one above it, a folder of another user,
    /// one that holds no image; and where the image is mounted, or extracted but for the end of that.
    explicit ZqImageRemoval(const SxString& image_);

    /// The folder's host path, without a trailing slash.
    const SxString& getImage() const noexcept { return image; }
    const ZqImageContent& getContent() const { return *content; }
    /// Nothing where there are none.
    const std::optional<ZqSaves>& getSaves() const noexcept { return saves; }

    /// What has become of the image's folder.
    enum Folder {
        Gone,
        Filled, ///< it stays with what isn't the image's
        InPlace ///< it stays, since it is the place of a file system
    };
    /// Removes all that, and with `isWithSaves` what was saved. Raises, before anything is removed, naming
    /// who uses the image where it is mounted, played, downloaded or otherwise in use, and where something
    /// that a mount has changed can't be taken back.
    Folder remove(bool isWithSaves);

private:
    void requireImage();
    void requireUnused() const;
    void takeBack() const;

    SxString image;
    SxString guid;  ///< of the application; empty where that isn't known
    SxString fault; ///< why; empty where it is known, or there is no record
    std::unique_ptr<const ZqImageContent> content;
    std::optional<ZqSaves> saves;
};
