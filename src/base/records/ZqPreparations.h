#pragma once

#include "ZqRuntimeInfo.h"

/// What jobs did to an image since its last run: patching it, and bringing it to another order. The note
/// `runs/preparations.json` of the image folder keeps that for the record of the next run, since the jobs end
/// before there is one.
struct ZqPreparations {
    ZqRuntimeInfo::Stats patch, defrag;
    bool isNoted = false; ///< there is a note, and it could be read

    /// Adds what a job has done, which has ended: seconds and bytes of several of them are summed up. Where
    /// that can't be noted, the log says so: no job fails for it. Of several threads and processes one goes
    /// after the other.
    static void add(const SxString& image, const ZqRuntimeInfo& info);
    /// What is noted of the image folder; nothing where there is no note. A note that can't be read counts as
    /// none, and the log says so.
    static ZqPreparations read(const SxString& image);
    /// Forgets what is noted. Where that fails, the log says so, and the next run tells it again.
    static void clear(const SxString& image);

    static SxParserKit::SxSymbol toJson(const ZqRuntimeInfo::Stats& stats);
    static ZqRuntimeInfo::Stats fromJson(const SxParserKit::SxSymbol& object);
};
