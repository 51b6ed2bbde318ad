#include "App.h"
#include "Verbs.h"

#include <tavrin/SxException.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqTrace.h>

namespace {

constexpr const char* UNIT = "src/client/TraceVerbs";
/// A disk's size in bytes is a signed 64-bit number, and a block has 4096.
constexpr uint64 MAX_BLOCKS = uint64{1} << 51;

using SxParserKit::SxSymbol;

// --- info

struct TraceInfo {
    /// `folder` ends in a slash.
    explicit TraceInfo(const SxString& folder) : params(folder) {
        const ZqTrace trace(folder);
        nUnique = trace.getNItems(true);
        const auto all = trace.getItems(false, true, true);
        nItems = all->getSize();
        for (const ZqTraceItem& item : *all) {
            nFlagged += item.flag;
            if (item.block < MAX_BLOCKS) continue;
            throw SxException("The trace in '" + folder + "' is damaged or is none: it names block " +
                                  item.block + ", which no disk has",
                              UNIT, __LINE__);
        }
    }

    ZqTraceParams params;
    int64 nItems = 0, nUnique = 0, nFlagged = 0;
};

SxSymbol describeJson(const TraceInfo& info) {
    SxSymbol result;
    result.setType(SxParserAst::Object);
    result.append("items", info.nItems);
    result.append("unique", info.nUnique);
    result.append("flagged", info.nFlagged);
    result.append("duration", info.params.duration);
    result.append("method", ZqTraceParams::methodToString(info.params.method));
    return result;
}

void describeText(const TraceInfo& info, Output* out) {
    const auto field = [&](const char* name, const SxString& value) {
        out->text(SxString::sprintf("%-13s ", name) + (value.isEmpty() ? SxString("(none)") : value));
    };
    const ZqTraceParams& params = info.params;
    field("Method", ZqTraceParams::methodToString(params.method));
    field("Application", params.guid);
    field("Build", params.checksumMnt);
    field("Items", SxString(info.nItems) + ", " + info.nFlagged + " flagged");
    field("Unique", SxString(info.nUnique) + (info.nUnique == 1 ? " block" : " blocks"));
    field("Duration", SxString::sprintf("%.3f s", static_cast<double>(params.duration) / 1000));
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

} // namespace

void registerTraceVerbs(App* app) {
    Family family = app->family("trace", "Traces: which blocks a run touched, and when");

    auto trace = SxPtr<SxString>::create();
    family
        .verb("info", "Show items, blocks, duration and method",
              "tavrin trace info games/alpha/traces/run1 --json")
        .argument("TRACE", trace.getPtr(), "Trace folder")
        .action([trace](Output& out) { return showInfo(*trace, out); });
}
