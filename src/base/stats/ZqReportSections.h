#pragma once

#include "SxList.h"
#include "SxString.h"

/// The sections that a report to a statistics service may have, by name. Safe from any thread.
class ZqReportSections {
public:
    static constexpr const char* ENV = "env";   ///< processors, graphics, drives, memory, system, screen
    static constexpr const char* APPS = "apps"; ///< programs that ran when the run began
    static constexpr const char* HOST = "host"; ///< identifier of the machine
    static constexpr const char* RUN = "rt";    ///< times and exit code
    static constexpr const char* DOWNLOAD = "dl";
    static constexpr const char* ON_DEMAND = "odr";
    static constexpr const char* TRACE = "trc";        ///< coverage of the image by its trace
    static constexpr const char* PREPARATION = "prep"; ///< patches and optimisations

    /// All of them, in the order of a report.
    static const SxList<SxString>& all();
    /// Those that tell nothing of machine and player.
    static const SxList<SxString>& usual();
    /// What was wished for, each once and in that order; the usual ones where nothing was. Raises on a name
    /// that is none.
    static SxList<SxString> of(const SxList<SxString>& wished);
};
