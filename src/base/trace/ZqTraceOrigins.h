#pragma once

#include "ZqTraceParams.h"

#include <set>
#include <utility>
#include <vector>

/// The traces that went into others (ZqTraceParams::sources), so that none goes in twice. Runs stay where
/// they are once they were joined, and each sweep meets them again.
///
/// A trace is told by the digest of its record and the size of its items, under whatever name it lies there:
/// so a copy of it is the same trace, and what was recorded anew under its name is another one. A patch, and
/// commands that change a trace, give it another record. But they leave its start alone, and no two
/// recordings start in the same millisecond; the one that moves the start leaves the items alone. So each of
/// these tells, too. Not locked.
class ZqTraceOrigins {
public:
    using Source = ZqTraceParams::Source;

    /// So many are kept, the latest; with long names of folders a record with more could no longer be read.
    static constexpr size_t MOST = 30'000;

    /// The trace in the folder `path`, whose record is given, as something that goes into another. Raises
    /// where its files can't be read.
    static Source self(const SxString& path, const ZqTraceParams& record);
    /// What the trace holds: its sources, or itself where it names none.
    static std::vector<Source> of(const SxString& path, const ZqTraceParams& record);

    /// Adds those that aren't there yet.
    void add(const std::vector<Source>& sources);
    /// Whether this very trace is there.
    bool holds(const Source& source) const;
    /// Whether one is there that may have become this one: of the same start, or with the same items.
    bool holdsFormer(const Source& source) const;
    /// In the order in which they were added, without the first ones beyond MOST.
    std::vector<Source> getLatest() const;

private:
    std::vector<Source> all;
    std::set<std::pair<SxString, int64>> records; ///< digests and sizes
    std::set<int64> starts;
    std::set<SxString> items; ///< digests
};
