#pragma once

#include "SxString.h"

#include <optional>

/// Who plays an image. A value type.
struct ZqImagePlay {
    /// What the lock of an image says of whoever plays it.
    static constexpr const char* JOB = "run";

    SxString application; ///< as `app.json` names it: the process, or the program of the command
    int64 process = -1;   ///< the oldest one of the application that lives; -1 where none does
    SxString run;         ///< the run that plays it, such as "process 12 (run)"; empty where it was killed

    /// What plays the image in that folder: a run, or the application that one has left which was killed. A
    /// mount that is fed and a download are none. Raises where that can't be told.
    static std::optional<ZqImagePlay> find(const SxString& image);
    /// For a sentence on the image: "is played by ..." and which application runs.
    SxString describe() const;
};
