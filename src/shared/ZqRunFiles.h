#pragma once

#include "SxException.h"
#include "SxList.h"
#include "SxString.h"

#include <vector>

/// The files that runs leave in the folder `runs/` of their image, by their names. Such a name begins with a
/// moment in UTC, as "2026-11-27T12-35-01Z.log" does, and the order of the names is that of the runs. Links,
/// and what has another name, are somebody else's. A value type.
class ZqRunFiles {
public:
    enum Kind {
        Record, ///< what one run was like: TIME-ID.json, with eight digits of the run's id
        Log     ///< what its application has said: TIME.log
    };

    ZqRunFiles(const SxString& image, Kind kind_);

    /// That of the image, with a slash at the end; it may be absent.
    const SxString& getFolder() const noexcept { return folder; }
    /// The names of those that are there, in order of time.
    std::vector<SxString> list() const;
    /// The path for a file of a run that began at `timeMs`, milliseconds since 1970 UTC. Its moment comes
    /// after that of the newest one, so that the newest stays so where the machine's clock was set back.
    /// `id`: of the run, for a record.
    SxString next(int64 timeMs, const SxString& id = SxString()) const;
    /// Removes all but the newest `nKept`, and what runs have left that were killed while they wrote one.
    /// Gives what has failed.
    SxList<SxException> removeOld(size_t nKept) const;

    /// Whether a name in a folder `runs/` is that of a record of the run `id`.
    static bool isRecordOf(const SxString& name, const SxString& id);
    /// The image folder that the file of a run lies in, with a slash at the end.
    static SxString imageOf(const SxString& file);
    /// Whether a name in a folder `runs/` is that of an image's own file: of either kind, or the note of
    /// preparations, or what such a file is called while it is written.
    static bool isOwn(const SxString& name);

private:
    SxString folder;
    Kind kind;
};
