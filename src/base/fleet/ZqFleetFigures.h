#pragma once

#include "SxString.h"
#include "SxTypes.h"

#include <vector>

/// How runs are put into groups.
enum class ZqFleetBy {
    BuildAndOrder,
    Build,
    Order,
    Link,  ///< by classes of how fast the image grew
    System ///< by the text of the operating system
};

/// What a figure of many runs is like. A plain value.
struct ZqFleetSpread {
    int64 n = 0; ///< runs that have the figure; 0 leaves the others without a meaning
    /// The smallest value that at least so many of the runs don't exceed: half of them, 90 %, 99 %.
    double median = 0, ninety = 0, ninetyNine = 0;
};

/// Runs that have something in common, and what they were like. A plain value.
struct ZqFleetGroup {
    /// What they have in common; what groups aren't made by is empty, and so is what isn't known.
    SxString build, order, link, system;
    int64 nRuns = 0;

    ZqFleetSpread start;      ///< ms from the begin of a run to the application's start
    ZqFleetSpread frame;      ///< ms to its first frame
    ZqFleetSpread underflows; ///< their number
    ZqFleetSpread speed;      ///< of the growth of `img.zqf`, unpacked: mean, megabits per second
    ZqFleetSpread prefix;     ///< bytes that the start needed

    int64 nJudged = 0; ///< runs whose order was judged; the following are bytes of all of them together
    double brought = 0, earlyUsed = 0, earlyUnused = 0, read = 0, late = 0;

    int64 nExits = 0;     ///< runs whose exit code is known
    int64 nNonZero = 0;   ///< of these, with another one than 0
    int64 nStartErr = 0;  ///< failed before the application ran
    int64 nEndErr = 0;    ///< failed after that
    int64 nStopped = 0;   ///< ended by the player
    int64 nStopKnown = 0; ///< of which it is known whether that was so
};

/// How a figure grows over the runs of a group: at place i, what i % of them don't exceed. Empty where no run
/// has the figure.
struct ZqFleetCourse {
    size_t group = 0;                 ///< index into the groups
    std::vector<double> start, frame; ///< ms
};

/// A record that wasn't taken. A plain value.
struct ZqFleetFault {
    SxString file;
    int64 line = 0; ///< from 1; 0 for the whole file
    SxString text;
};

/// What was found in the documents of a fleet. A plain value.
struct ZqFleetFigures {
    /// Of more groups than these, or faults, only the number is told.
    static constexpr size_t MOST_GROUPS = 200, MOST_FAULTS = 10, MOST_COURSES = 4;

    ZqFleetBy by = ZqFleetBy::BuildAndOrder;
    int64 nFiles = 0;
    int64 nRecords = 0;               ///< that were taken now
    int64 nBad = 0;                   ///< that were not
    std::vector<ZqFleetFault> faults; ///< the first ones, in the order of the files
    int64 firstMs = 0, lastMs = 0; ///< when the first run and the last one began, since 1970; 0 if not known
    ZqFleetGroup all;              ///< all runs, former ones of a store, too
    std::vector<ZqFleetGroup> groups;   ///< the largest ones first; links in their order
    int64 nGroups = 0;                  ///< of all, those that are left out, too
    std::vector<ZqFleetCourse> courses; ///< of the first groups
    double loadSec = 0, countSec = 0;   ///< what it took to read the records, and to make the figures

    /// What a group's runs have in common, for people: "build 1a2b3c4d, order 5e6f7a8b". Digests are cut, of
    /// which the begin tells enough where the whole is long.
    SxString nameOf(const ZqFleetGroup& group, bool isShort = true) const;
};
