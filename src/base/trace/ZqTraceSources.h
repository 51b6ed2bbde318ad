#pragma once

#include "SxList.h"
#include "SxString.h"

#include <optional>
#include <vector>

/// The note `sources.json` in a trace that was joined of others: which folders are to go now that it has
/// what they held, so that they go by whoever comes next where that was cut off. It is there only while
/// traces are joined; what a trace was joined of for good stands in its record (ZqTraceParams::sources). Not
/// locked.
///
/// Nothing is removed before the result is safe. The result is written into a folder of its own: the items,
/// then this note, and `trace.json` last, each synced; without its record nobody takes a folder for a trace.
/// A former result is then moved aside, and the new one is renamed into its place. Now the folders are
/// removed, and the note last. Whoever finds a complete trace with a note goes on from there. In a note of a
/// former version all runs that were joined are to go: its record doesn't name them, so they would be joined
/// again.
///
/// A folder is told by its name, by the digest of its record and by the size of its items, so a run that was
/// recorded under the same name since isn't touched. All names in the note are plain ones, so that none can
/// lead out of the folder of traces.
///
/// JSON: an object with the texts `target` and `aside` and the list `folders`, each with `name`, `record`
/// (MD5 text of trace.json) and `size` (bytes of img.trc, -1 where there is none).
class ZqTraceSources {
public:
    /// `target_`: the folder that the joined trace is to have; all are plain names in one folder of traces.
    explicit ZqTraceSources(const SxString& target_) : target(target_) {}

    /// Notes the folder `name` of `tracesPath` as one that goes.
    void add(const SxString& tracesPath, const SxString& name);
    /// What has the result's name stays, and gets another name, which is given: with `mark`, letters
    /// and digits that tell it, where that is free.
    SxString keepAside(const SxString& tracesPath, const SxString& mark);
    /// Writes the note into the trace folder `path`.
    void write(const SxString& path) const;
    /// The note of a complete trace; none where there is none, or what stands there is none. Raises where it
    /// can't be read.
    static std::optional<ZqTraceSources> read(const SxString& path);

    /// Names of folders.
    struct Gone {
        SxList<SxString> removed; ///< gone, but for a former result
        SxList<SxString> emptied; ///< only their trace is gone, since they held something else, too
    };
    /// Puts the complete trace in the folder `name` of `tracesPath` in its place, removes what was noted, and
    /// then the note. After a cut at any point it goes on when it is called again.
    Gone finish(const SxString& tracesPath, const SxString& name) const;

    /// Removes the traces that were noted, with their folders where those hold nothing else.
    Gone removeAll(const SxString& tracesPath) const;

    /// A new name for a folder in `tracesPath`.
    static SxString newName(const SxString& tracesPath);
    static bool isPlainName(const SxString& name);
    /// Whether the folder `path` holds a trace, or what a cut left of one, or nothing.
    static bool isTraceFolder(const SxString& path);
    /// Whether it holds nothing beside that.
    static bool holdsTraceAlone(const SxString& path);

private:
    struct Folder {
        SxString name, record;
        int64 size = -1;
    };

    static Folder look(const SxString& tracesPath, const SxString& name);
    void putInPlace(const SxString& tracesPath, const SxString& name) const;
    static bool isAsNoted(const SxString& tracesPath, const Folder& noted);
    static void removeTrace(const SxString& path);

    SxString target;
    SxString aside; ///< the name that a former result takes until it goes; empty where there was none
    std::vector<Folder> folders;
};
