#pragma once

#include "SxString.h"

#include <functional>

/// Carries the traces of an image over to its next version, so that runs of the old one still order the new.
/// A trace is mapped aside; then the names of old and new are noted, the new one is renamed into its place,
/// and the old one goes. So a kill neither loses a trace nor leaves it twice. One thread.
class ZqPatchTraces {
public:
    using Log = std::function<void(const SxString& text)>;

    /// All folders with trailing slashes. `patch_` has the new version's `app.json` and `map.idx`; `work_`
    /// takes what is under way. `buildId_`: `checksums.mnt` of the old version.
    ZqPatchTraces(const SxString& image_, const SxString& patch_, const SxString& work_,
                  const SxString& buildId_);

    /// Maps all of them. One that can't be mapped stays as it is, and `log` is told why. One with an empty or
    /// missing file goes; a folder that holds neither file, or others, too, stays, and so does a trace
    /// of another build, since the map isn't for it. Ends between two of them where `isStopped` says so.
    /// Raises where the folders can't be listed or changed.
    void map(const Log& log, const std::function<bool()>& isStopped) const;

private:
    bool mapAside(const SxString& path, const Log& log) const;
    void finishPending() const;
    SxString newName() const;

    const SxString image, patch, work, buildId;
};
