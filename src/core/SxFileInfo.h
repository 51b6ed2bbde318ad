#pragma once

#include "SxList.h"
#include "SxOs.h"

/// A path and what the system says of it, asked for on first use and kept until setDirty(). Not locked.
class SxFileInfo {
public:
    SxFileInfo() = default;
    SxFileInfo(const SxString& path_) : path(path_) {}

    /// The path as given.
    const SxString& getOrig() const noexcept { return path; }
    /// The part after the last slash.
    SxString getName() const;
    /// The folder that holds it, absolute, without a trailing slash (but for the root).
    SxString getPath() const;
    /// The absolute path without ".", ".." and repeated slashes. A ".." after a link means the folder above
    /// what the link leads to, as for the system. A drive letter stays ("E:/x" is an absolute path of the
    /// library); below one, ".." goes by text.
    SxString getAbsPath() const;
    /// The path relative to the folder `base`; raises where it doesn't lie below it.
    SxString getRelPath(const SxString& base) const;

    /// Whether something has that name; false for a link that leads nowhere.
    bool exists() const { return target() != nullptr; }
    /// A file, or a link to one.
    bool isFile() const;
    /// A folder, or a link to one.
    bool isDir() const;
    /// A link, whatever it leads to.
    bool isLink() const;
    /// Bytes; raises where the file can't be asked.
    int64 getSize() const;
    /// Forgets what is kept.
    void setDirty() { asked = false; }

private:
    const SxStat* target() const;

    SxString path;
    mutable SxStat info, linkInfo;
    mutable bool asked = false;
    mutable int64 status = 0, linkStatus = 0;
};

/// A file by its path.
class SxFile : public SxFileInfo {
public:
    using SxFileInfo::SxFileInfo;
};

/// A folder by its path.
class SxDir : public SxFileInfo {
public:
    using SxFileInfo::SxFileInfo;
};
