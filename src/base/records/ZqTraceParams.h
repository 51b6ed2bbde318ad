#pragma once

#include "SxString.h"

#include <vector>

/// The record `trace.json`: what a trace is, apart from its items. Not locked.
class ZqTraceParams {
public:
    /// How a trace came to be; the texts are those of `method` in trace.json.
    enum Method : int {
        Monitoring = 0,    ///< "monitoring": a monitored drive
        MountScan = 1,     ///< "mountscan"
        FileScan = 2,      ///< "filescan": a plain list of blocks
        Merge = 3,         ///< "merge"
        Log0 = 4,          ///< "LOG0"
        IncMonitoring = 5, ///< "inc-monitoring": a run that was appended to others
        Align = 6,         ///< "align"
        Set = 7,           ///< "set"
        Patch = 8,         ///< "patch": carried over to another image
        Shift = 9          ///< "shift"
    };

    /// A trace that went into this one, as it was by then.
    struct Source {
        SxString name;   ///< of its folder
        SxString record; ///< MD5 text of its trace.json
        int64 size = 0;  ///< bytes of its `img.trc`
        int64 time0 = 0; ///< its start, milliseconds since 1970 UTC
        SxString trc;    ///< MD5 text of its `img.trc`; empty where its record stated none

        bool operator==(const Source&) const = default;
    };

    Method method = Monitoring;
    int64 version = 2;
    SxString guid;                    ///< the `guid` of the application's app.json
    int64 time0 = 0;                  ///< start of the trace, milliseconds since 1970 UTC
    int64 size = 0;                   ///< bytes of `img.trc`
    SxString checksumMnt;             ///< build id: `checksums.mnt` of the image that was traced
    SxString checksumIdx;             ///< `checksums.idx` of that image
    SxString checksumTrc;             ///< MD5 text of `img.trc`
    SxString pathPrefix;              ///< folder of the trace, with its trailing slash
    int64 duration = 0;               ///< last item's time minus the first one's, milliseconds
    int64 firstSessionBlockIndex = 0; ///< unique items before the run appended last; 0 where there is one
    /// Of a trace of several runs one after the other: these (see ZqTraceOrigins). Empty for others, and
    /// where a former version has joined them. It stands in the record and not in a file beside it, so that
    /// it changes together with the record, and goes along wherever the trace is edited, copied or mapped.
    std::vector<Source> sources;

    /// Defaults; `time0` is now.
    ZqTraceParams();
    /// Defaults, then read(). Raises as read() does.
    explicit ZqTraceParams(const SxString& path);

    /// Fills the record from `path` + "trace.json"; empty means the field `pathPrefix`. Where it has no
    /// duration, as while the trace is still being written, that of `img.trc` in `pathPrefix` is taken, or 0.
    /// Raises "Failed to read file ..." with the cause.
    void read(const SxString& path = SxString());
    /// Writes the record likewise, replacing the file as a whole, and makes its folder. Raises "Failed to
    /// write file..." with the cause.
    void write(const SxString& path = SxString()) const;

    /// Whether the folder `path` (with its trailing slash) has a record that can be read. Doesn't raise.
    static bool isValid(const SxString& path);
    /// Raises "Trace Method '...' unknown!" on any other text.
    static Method stringToMethod(const SxString& text);
    /// Raises on any other value.
    static SxString methodToString(Method value);

    /// Whether the trace holds runs one after the other, as trace building and appending make it. The method
    /// alone doesn't tell: later operations change that of a trace that was built.
    bool isSeries() const { return method == IncMonitoring || firstSessionBlockIndex > 0; }
    /// The method of the trace once an operation of that method has changed it: `operation`, unless the
    /// present method is all that tells of a series, as after appending. The series stays one whatever is
    /// done to its times and blocks, and merging and ordering go on refusing it.
    Method getMethodAfter(Method operation) const {
        return isSeries() && firstSessionBlockIndex == 0 ? method : operation;
    }
    /// Raises where it is a series, and says what to do: of such a trace neither an order nor a merge comes
    /// out right, since what every run needs at its start stands long after the start of the first one, or
    /// was dropped as a repeat.
    void refuseSeries() const;

    bool operator==(const ZqTraceParams&) const = default;

private:
    /// The duration by the items, or 0 where they can't be read.
    int64 findDuration() const;
};
