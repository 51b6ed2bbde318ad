#include "App.h"
#include "Job.h"
#include "PrivateFolder.h"
#include "Verbs.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/ZqArchive.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqRecordFile.h>
#include <tavrin/ZqTrace.h>
#include <tavrin/ZqTraceBuilder.h>
#include <tavrin/ZqTraceFiles.h>
#include <tavrin/ZqTracePlot.h>
#include <tavrin/ZqTraceRecords.h>
#include <tavrin/ZqTraceSources.h>

#include <limits>

namespace {

constexpr const char* UNIT = "src/client/TraceVerbs";
/// A disk's size in bytes is a signed 64-bit number, and a block has 4096.
constexpr uint64 MAX_BLOCKS = uint64{1} << 51;

using SxParserKit::SxSymbol;

SxSymbol newObject() {
    SxSymbol result;
    result.setType(SxParserAst::Object);
    return result;
}

/// What a walk over the items of a trace tells.
struct Items {
    /// Raises where they can be none. `folder` ends in a slash.
    explicit Items(const SxString& folder) {
        ZqTraceRecords::Reader reader(folder);
        n = reader.getN();
        ZqTraceItem item;
        while (reader.next(&item)) {
            nFlagged += item.flag;
            if (item.block < MAX_BLOCKS) continue;
            throw SxException("The trace in '" + folder + "' is damaged or is none: it names block " +
                                  item.block + ", which no disk has",
                              UNIT, __LINE__);
        }
    }

    int64 n = 0, nFlagged = 0;
};

/// The folder of a trace that is read, with its slash. Raises where its items can be no trace.
SxString requireTrace(const SxString& trace) {
    SxString folder = ZqImageFolder::prefix(trace);
    const Items items(folder);
    return folder;
}

/// The folder of a trace that is written, with its slash. A mistyped path must not cost anything but a trace.
SxString requirePlace(const SxString& trace) {
    SxString folder = ZqImageFolder::prefix(trace);
    if (ZqImageFolder::isFree(trace)) return folder;
    const bool isTrace = SxFSAction::test_d(trace) && !ZqImageFolder::holdsImage(trace) &&
                         ZqTraceSources::isTraceFolder(folder);
    if (isTrace) return folder;
    throw SxException("'" + trace + "' holds something else than a trace; name another folder", UNIT,
                      __LINE__);
}

/// Tells what a trace that was written holds; `result` may have more to say.
int reportWritten(const SxString& folder, SxSymbol result, const SxString& did, Output* out) {
    const ZqTraceParams params(folder);
    const int64 nItems = SxFileInfo(folder + ZqTraceFiles::ITEMS).getSize() / ZqTraceFormat::SIZE;
    if (out->getMode().json) {
        result.append("items", nItems);
        result.append("duration", params.duration);
        result.append("method", ZqTraceParams::methodToString(params.method));
        out->object(result);
    }
    out->text(did + ": " + ZqReadable::counted(nItems, "item", "items") +
              SxString::sprintf(", %.3f s.", static_cast<double>(params.duration) / 1000));
    return ExitSuccess;
}

// --- info

struct TraceInfo {
    /// `folder` ends in a slash.
    explicit TraceInfo(const SxString& folder) : params(folder) {
        const Items items(folder);
        nItems = items.n;
        nFlagged = items.nFlagged;
        nUnique = ZqTrace(folder).getNItems(true);
        mismatch = ZqTraceRecords::findMismatch(folder, params);
    }

    ZqTraceParams params;
    int64 nItems = 0, nUnique = 0, nFlagged = 0;
    SxString mismatch; ///< why the two files don't belong together; empty where they do
};

SxSymbol describeJson(const TraceInfo& info) {
    SxSymbol result = newObject();
    result.append("items", info.nItems);
    result.append("unique", info.nUnique);
    result.append("flagged", info.nFlagged);
    result.append("duration", info.params.duration);
    result.append("method", ZqTraceParams::methodToString(info.params.method));
    result.append("sources", static_cast<int64>(info.params.sources.size()));
    result.append("matches", info.mismatch.isEmpty());
    return result;
}

void describeText(const TraceInfo& info, Output* out) {
    const auto field = [&](const char* name, const SxString& value) {
        out->text(SxString::sprintf("%-13s ", name) + (value.isEmpty() ? SxString("(none)") : value));
    };
    const ZqTraceParams& params = info.params;
    field("Method", ZqTraceParams::methodToString(params.method));
    if (!params.sources.empty()) {
        const auto n = static_cast<int64>(params.sources.size());
        field("Joined of", ZqReadable::counted(n, "trace", "traces"));
    }
    field("Application", params.guid);
    field("Build", params.checksumMnt);
    field("Items", SxString(info.nItems) + ", " + info.nFlagged + " flagged");
    field("Unique", ZqReadable::counted(info.nUnique, "block", "blocks"));
    field("Duration", SxString::sprintf("%.3f s", static_cast<double>(params.duration) / 1000));
    if (!info.mismatch.isEmpty()) field("Cut off", info.mismatch);
}

int showInfo(const SxString& trace, Output& out) {
    const TraceInfo info(ZqImageFolder::prefix(trace));
    if (out.getMode().json) {
        out.object(describeJson(info));
    } else {
        describeText(info, &out);
    }
    return ExitSuccess;
}

// --- one trace

struct EditOptions {
    SxString trace, other, out;
    int64 from = 0, to = 0, seconds = 0;
};

int trim(const EditOptions& options, Output& out) {
    const SxString folder = requireTrace(options.trace), place = requirePlace(options.out);
    ZqTrace(folder).trim(place);
    return reportWritten(place, newObject(), "Trimmed", &out);
}

int keep(const EditOptions& options, Output& out) {
    const SxString folder = requireTrace(options.trace);
    ZqTrace(folder).dropTime(options.from, options.to);
    return reportWritten(folder, newObject(), "Kept", &out);
}

int shift(const EditOptions& options, Output& out) {
    const SxString folder = requireTrace(options.trace);
    ZqTrace(folder).shift(static_cast<int>(options.seconds));
    SxSymbol result = newObject();
    result.append("time0", ZqTraceParams(folder).time0);
    return reportWritten(folder, result, "Shifted", &out);
}

int align(const EditOptions& options, Output& out) {
    const SxString folder = requireTrace(options.trace), reference = requireTrace(options.other);
    ZqTrace(folder).align(reference);
    return reportWritten(folder, newObject(), "Aligned", &out);
}

int append(const EditOptions& options, Output& out) {
    const SxString folder = requireTrace(options.trace), other = requireTrace(options.other);
    const SxString place = requirePlace(options.out);
    ZqTrace(folder).append(other, place, static_cast<int>(options.seconds));
    return reportWritten(place, newObject(), "Appended", &out);
}

int mend(const EditOptions& options, Output& out) {
    const SxString folder = ZqImageFolder::prefix(options.trace);
    const Items items(folder);
    const int64 nHoles = ZqTrace(folder).mend();
    SxSymbol result = newObject();
    result.append("lost", nHoles);
    const SxString did =
        nHoles == 0 ? SxString("Mended") : "Mended, without " + SxString(nHoles) + " records of zeros";
    return reportWritten(folder, result, did, &out);
}

SxSymbol describeJson(const ZqSequence& run) {
    SxSymbol result = newObject();
    result.append("block", run.block);
    result.append("time", run.time);
    result.append("index", run.index);
    result.append("nFollowing", run.nFollowing);
    result.append("jump", run.jump);
    result.append("jumpTime", run.jumpTime);
    result.append("flag", static_cast<int64>(run.flag));
    return result;
}

int listRuns(const SxString& trace, Output& out) {
    const SxList<ZqSequence> runs = ZqTrace(requireTrace(trace)).traceToSequence();
    for (const ZqSequence& run : runs) {
        if (out.isClosed()) break;
        if (out.getMode().json) {
            out.listing(describeJson(run).toJson().str() + "\n");
            continue;
        }
        SxString line = SxString::sprintf("%10lld ms  %llu", static_cast<long long>(run.time),
                                          static_cast<unsigned long long>(run.block));
        if (run.nFollowing > 0) line += " + " + SxString(run.nFollowing);
        if (run.flag != 0) line += ", flagged";
        if (run.jump != 0) line += SxString::sprintf(", goes on at %+lld", static_cast<long long>(run.jump));
        out.text(line);
    }
    return ExitSuccess;
}

struct PlotOptions {
    SxString trace, file, image;
};

int plot(const PlotOptions& options, Output& out) {
    SxList<SxString> read = {options.trace};
    if (!options.image.isEmpty()) read << options.image;
    requirePlainFile(options.file, "picture", read);
    ZqTracePlot::Settings settings;
    settings.trace = requireTrace(options.trace);
    if (!options.image.isEmpty()) settings.image = ZqImageFolder::prefix(options.image);
    const ZqTracePlot picture(settings);
    ZqRecordFile::writeText(picture.toSvg(), options.file);
    if (out.getMode().json) {
        SxSymbol result = newObject();
        result.append("items", picture.getNItems());
        result.append("flagged", picture.getNWrites());
        result.append("unique", picture.getNBlocks());
        result.append("elsewhere", picture.getNElsewhere());
        out.object(result);
    }
    out.text(picture.describe() + ".");
    return ExitSuccess;
}

// --- several traces

struct MergeOptions {
    SxString out;
    SxList<SxString> traces;
};

int merge(const MergeOptions& options, Output& out) {
    const SxString place = requirePlace(options.out);
    auto traces = SxPtr<SxArray<ZqTrace>>::create();
    for (const SxString& trace : options.traces)
        traces->append(ZqTrace(requireTrace(trace)));
    ZqTrace::merge(place, traces);
    SxSymbol result = newObject();
    result.append("traces", traces->getSize());
    return reportWritten(place, result, "Merged " + SxString(traces->getSize()) + " traces", &out);
}

int showDifference(const SxString& trace, const SxString& other, Output& out) {
    const ZqTrace reference(requireTrace(trace));
    const ZqTrace::Difference difference = reference.compare(requireTrace(other));
    if (out.getMode().json) {
        SxSymbol result = newObject();
        result.append("reference", difference.nReference);
        result.append("other", difference.nOther);
        result.append("identified", difference.nIdentified);
        result.append("inserted", difference.nInserted);
        result.append("appended", difference.nAppended);
        out.object(result);
    }
    for (const SxString& line : difference.toLines())
        out.text(line);
    return ExitSuccess;
}

// --- another build

int mapTo(const EditOptions& options, Output& out) {
    constexpr const char *MAP = "map.idx", *PACKED_MAP = "map.7z";
    const SxString folder = requireTrace(options.trace), place = requirePlace(options.out);
    SxString patch = ZqImageFolder::prefix(options.other);
    const int64 nItems = SxFileInfo(folder + ZqTraceFiles::ITEMS).getSize() / ZqTraceFormat::SIZE;
    const PrivateFolder unpacked;
    if (!SxFSAction::test_f(patch + MAP) && SxFSAction::test_f(patch + PACKED_MAP)) {
        ZqArchive::extract7z(patch + PACKED_MAP, unpacked.path);
        SxFSAction::cp(patch + ZqImageFiles::APP_JSON, unpacked.path + ZqImageFiles::APP_JSON);
        patch = unpacked.path;
    }
    ZqTrace(folder).mapToImage(patch, place);
    const int64 nMapped = SxFileInfo(place + ZqTraceFiles::ITEMS).getSize() / ZqTraceFormat::SIZE;
    SxSymbol result = newObject();
    result.append("lost", nItems - nMapped);
    return reportWritten(place, result, "Mapped, with " + SxString(nItems - nMapped) + " lost", &out);
}

// --- the runs of an image

struct BuildOptions {
    SxString image, name = "merged";
};

int build(const BuildOptions& options, Output& out) {
    if (!ZqImageFolder::holdsImage(options.image)) {
        throw SxException("Folder '" + options.image + "' holds no image", UNIT, __LINE__);
    }
    const SxString traces = ZqImageFolder::prefix(options.image) + ZqImageFiles::TRACES;
    ZqTraceBuilder builder(options.image, traces, options.name);
    builder.start();
    builder.wait();
    if (builder.hasException()) throw SxException(builder.getException());
    if (!builder.getRefusal().isEmpty()) throw SxException(builder.getRefusal(), UNIT, __LINE__);
    SxSymbol result = newObject();
    result.append("joined", builder.getNJoined());
    result.append("held", builder.getNHeld());
    result.append("corrupted", builder.getNCorrupted());
    SxSymbol removed = result.append("removed", SxParserAst::Array);
    for (const SxString& name : builder.getRemoved())
        removed.append(name.validUtf8());
    SxSymbol left = result.append("left", SxParserAst::Array);
    for (const ZqTraceBuilder::Left& one : builder.getLeft()) {
        SxSymbol entry = left.append(SxParserAst::Object);
        entry.append("name", one.name.validUtf8());
        entry.append("why", one.why.validUtf8());
        out.text("Left '" + one.name + "': " + one.why);
    }
    if (builder.getNHeld() > 0) {
        out.text("Joined before: " + ZqReadable::counted(builder.getNHeld(), "trace", "traces") + ".");
    }
    if (!builder.getRemoved().isEmpty()) {
        const SxString damaged = builder.getNCorrupted() == 0
                                     ? SxString()
                                     : ", " + SxString(builder.getNCorrupted()) + " of them damaged";
        out.text("Removed '" + SxString::join(builder.getRemoved(), "', '") + "'" + damaged + ".");
    }
    if (builder.getNJoined() > 0) {
        return reportWritten(traces + options.name + "/", result,
                             "Joined " + ZqReadable::counted(builder.getNJoined(), "trace", "traces") +
                                 " in '" + traces + options.name + "'",
                             &out);
    }
    if (out.getMode().json) out.object(result);
    out.text("Nothing to merge.");
    return ExitSuccess;
}

void registerEditVerbs(Family* family) {
    constexpr int64 MOST = std::numeric_limits<int64>::max(), LEAST = std::numeric_limits<int64>::min();
    constexpr int64 MOST_SECONDS = std::numeric_limits<int>::max();
    constexpr const char* TRACE_HELP = "Trace folder";
    auto edit = SxPtr<EditOptions>::create();
    family->verb("trim", "Copy a trace without repeats of blocks", "tavrin trace trim traces/run1 once")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .argument("OUT", &edit->out, "Trace folder to write")
        .action([edit](Output& out) { return trim(*edit, out); });
    family
        ->verb("keep", "Keep only what happened in a span of time, in place",
               "tavrin trace keep traces/run1 -500 60000")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .integerArgument("FROM_MS", &edit->from, LEAST, MOST, "First millisecond, from the trace's time0")
        .integerArgument("TO_MS", &edit->to, LEAST, MOST, "Last millisecond, included")
        .action([edit](Output& out) { return keep(*edit, out); });
    family
        ->verb("shift", "Move a trace later in time, or earlier by a negative number, in place",
               "tavrin trace shift traces/run1 -3")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .integerArgument("SECONDS", &edit->seconds, -MOST_SECONDS, MOST_SECONDS, "By how much")
        .action([edit](Output& out) { return shift(*edit, out); });
    family
        ->verb("align", "Bring a trace to the time of a reference, in place",
               "tavrin trace align traces/run2 traces/run1")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .argument("REFERENCE", &edit->other, "Trace that gives the time")
        .action([edit](Output& out) { return align(*edit, out); });
    family
        ->verb("mend", "Take size, digest and duration of a trace anew from its items, in place",
               "tavrin trace mend traces/run1")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .action([edit](Output& out) { return mend(*edit, out); });
    family
        ->verb("append", "Put one trace after another",
               "tavrin trace append traces/run1 traces/run2 both --gap 5")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .argument("OTHER", &edit->other, "Trace that follows")
        .argument("OUT", &edit->out, "Trace folder to write")
        .integer("--gap", &edit->seconds, -MOST_SECONDS, MOST_SECONDS, "Seconds between them; 0 if not given")
        .action([edit](Output& out) { return append(*edit, out); });
    family
        ->verb("map", "Carry a trace over to the image that a patch makes",
               "tavrin trace map traces/merged patch mapped")
        .argument("TRACE", &edit->trace, TRACE_HELP)
        .argument("PATCH", &edit->other, "Folder with the new app.json and map.idx, or map.7z")
        .argument("OUT", &edit->out, "Trace folder to write")
        .action([edit](Output& out) { return mapTo(*edit, out); });
}

void registerPlotVerb(Family* family) {
    auto options = SxPtr<PlotOptions>::create();
    family
        ->verb("plot", "Draw a trace as SVG: blocks over time, and data needed over time",
               "tavrin trace plot traces/run1 run1.svg --image games/alpha")
        .argument("TRACE", &options->trace, "Trace folder")
        .argument("FILE", &options->file, "SVG file to write")
        .text("--image", &options->image, "IMAGE",
              "Image or index folder: blocks are drawn where they stand in its img.zqf")
        .action([options](Output& out) { return plot(*options, out); });
}

void registerJoinVerbs(Family* family) {
    auto mergeOptions = SxPtr<MergeOptions>::create();
    family
        ->verb("merge", "Make one trace of many: each block at its earliest time",
               "tavrin trace merge merged traces/run1 traces/run2 traces/run3")
        .argument("OUT", &mergeOptions->out, "Trace folder to write")
        .arguments("TRACE", &mergeOptions->traces, "Trace folders")
        .action([mergeOptions](Output& out) { return merge(*mergeOptions, out); });

    auto pair = SxPtr<EditOptions>::create();
    family
        ->verb("diff", "Show what a trace would change in another one",
               "tavrin trace diff merged traces/run4")
        .argument("TRACE", &pair->trace, "Trace folder, the reference")
        .argument("OTHER", &pair->other, "Trace folder to compare")
        .action([pair](Output& out) { return showDifference(pair->trace, pair->other, out); });
    family
        ->verb("runs", "List a trace as runs of neighbouring blocks", "tavrin trace runs traces/run1 --json")
        .argument("TRACE", &pair->trace, "Trace folder")
        .action([pair](Output& out) { return listRuns(pair->trace, out); });

    auto buildOptions = SxPtr<BuildOptions>::create();
    family
        ->verb("build", "Join the traces of an image's runs, which stay",
               "tavrin trace build games/alpha --name merged")
        .argument("IMAGE", &buildOptions->image, "Image folder that isn't mounted")
        .text("--name", &buildOptions->name, "NAME",
              "Folder of the result among the image's traces; \"merged\" if not given")
        .action([buildOptions](Output& out) { return build(*buildOptions, out); });
}

} // namespace

void registerTraceVerbs(App* app) {
    Family family = app->family("trace", "Traces: which blocks a run touched, and when");

    auto trace = SxPtr<SxString>::create();
    family
        .verb("info", "Show items, blocks, duration and method",
              "tavrin trace info games/alpha/traces/run1 --json")
        .argument("TRACE", trace.getPtr(), "Trace folder")
        .action([trace](Output& out) { return showInfo(*trace, out); });
    registerPlotVerb(&family);
    registerEditVerbs(&family);
    registerJoinVerbs(&family);
}
