#pragma once

#include "SxString.h"

#include <functional>

/// One thing that something else needs, of this machine or of a server, as its user is told of it. A value.
struct ZqMeans {
    SxString name; ///< a word by which scripts know it, such as "fuse"
    bool isThere = false;
    bool isNeeded = true; ///< else all works without it but for what `text` says
    SxString text;        ///< what there is, or what is missing, a sentence without its full stop
    SxString remedy;      ///< what the user can do; empty where it is there

    /// `there`, or where `require` raises, `missing` with the reason at the end of its text. A stop that was
    /// asked for is raised.
    static ZqMeans tried(const ZqMeans& there, ZqMeans missing, const std::function<void()>& require);
};
