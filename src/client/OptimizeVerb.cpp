#include "App.h"
#include "Job.h"
#include "NetOptions.h"
#include "OrderText.h"
#include "PrivateFolder.h"
#include "Verbs.h"

#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageOptimize.h>
#include <tavrin/ZqImageOrder.h>
#include <tavrin/ZqIndexFetch.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqUrlText.h>

namespace {
constexpr const char* UNIT = "src/client/OptimizeVerb";

struct OptimizeOptions {
    SxString image, index;
    NetOptions net;
    bool consume = false, dryRun = false, resume = false, byTraces = false;
};

const char* modeText(ZqImageOptimize::Mode mode) {
    switch (mode) {
    case ZqImageOptimize::InPlace:
        return "inPlace";
    case ZqImageOptimize::Copy:
        return "copy";
    default:
        return "none";
    }
}

using LeftTraces = std::vector<ZqLeftTrace>;

/// What the job has come to, or would come to; `left` are the runs that the order doesn't come from.
SxParserKit::SxSymbol describe(const ZqImageOptimize::Result& result, double seconds,
                               const LeftTraces& left) {
    SxParserKit::SxSymbol object;
    object.setType(SxParserAst::Object);
    object.append("mode", modeText(result.mode));
    SxParserKit::SxSymbol blocks = object.append("blocks", SxParserAst::Object);
    blocks.append("total", result.nTotal);
    blocks.append("moved", result.nMoved);
    blocks.append("kept", result.nKept);
    if (result.mode == ZqImageOptimize::Copy) {
        blocks.append("beyond", result.nBeyond);
        blocks.append("lost", result.nLost);
    }
    object.append("bytes", result.bytes);
    object.append("bytesExtra", result.bytesExtra);
    object.append("seconds", seconds);
    object.append("bytesPerSecond", seconds > 0 ? static_cast<double>(result.bytes) / seconds : 0.0);
    object.append("resumed", result.isResumed);
    if (!result.indexLeft.isEmpty()) object.append("indexLeft", result.indexLeft);
    appendLeft(&object, left);
    return object;
}

void tell(const ZqImageOptimize::Result& result, double seconds, bool isForecast, Output* out) {
    const SxString rest = SxString::sprintf(" in %s%.1f s.", isForecast ? "about " : "", seconds);
    const auto does = [&](uint64 n) { return isForecast ? "would be" : n == 1 ? "was" : "were"; };
    const auto blocks = [](uint64 n) {
        return ZqReadable::counted(static_cast<int64>(n), "block", "blocks");
    };
    if (result.isResumed && result.nTotal == 0) {
        out->text("All blocks were there before; only the records were left to be replaced.");
    } else if (result.mode == ZqImageOptimize::None) {
        out->text(SxString("All ") + result.nKept + " blocks are in their place; only the records " +
                  (isForecast ? "would be replaced." : "were replaced."));
    } else if (result.mode == ZqImageOptimize::Copy) {
        const uint64 n = result.nMoved + result.nKept;
        out->text(blocks(n) + " " + does(n) + " copied, " + exactBytes(result.bytes) + rest);
        if (result.nBeyond > 0) {
            out->text(SxString(result.nBeyond) + " more " + (isForecast ? "would be" : "are") +
                      " kept beyond the end of img.zqf.");
        }
        if (result.nLost > 0) {
            out->text(SxString(result.nLost) + " blocks that were there " +
                      (isForecast ? "would be" : "are") + " no longer there, and are downloaded again.");
        }
    } else {
        out->text(blocks(result.nMoved) + " " + does(result.nMoved) + " moved, " + result.nKept + " stay; " +
                  exactBytes(result.bytes) + " " + does(result.bytes) + " written" + rest);
    }
    if (isForecast)
        out->text("It would take " + exactBytes(result.bytesExtra) + " more of the disk for a time.");
}

/// What is wrong with the options together; empty where nothing is.
SxString findConflict(const OptimizeOptions& options) {
    const bool hasIndex = !options.index.isEmpty();
    if (hasIndex + options.resume + options.byTraces != 1) {
        return "Give one of the three: INDEX, --traces or --resume";
    }
    if (options.resume && (options.consume || options.dryRun)) {
        return "--resume goes on as it was begun, and takes no other option";
    }
    if (options.consume && (options.byTraces || ZqUrlText::isAddress(options.index))) {
        return "--consume is for an INDEX that is a folder";
    }
    const char* given = options.net.findGiven();
    if (given && !ZqUrlText::isAddress(options.index)) {
        return SxString(given) + " is for an INDEX that is an address";
    }
    return {};
}

/// Makes the index folder where there is none yet, in `place`; gives it. Its name for texts goes to `name`,
/// runs that it doesn't come from to `left`.
SxString makeIndex(const OptimizeOptions& options, const PrivateFolder& place, SxString* name,
                   LeftTraces* left, Output* out) {
    if (options.byTraces) {
        *name = ZqImageFolder::prefix(options.image) + "traces/";
        const SxList<SxString> traces = ZqImageOrder::findTraces(options.image);
        if (traces.isEmpty()) {
            throw SxException("'" + *name + "' holds no trace of a run that the order could come from", UNIT,
                              __LINE__);
        }
        SxString index = place.path + "index/";
        ZqImageOrder order(options.image, traces, index);
        runJob(&order, "order", *out);
        if (!order.isComplete()) throw SxException("stopped", UNIT, __LINE__);
        *left = order.getLeft();
        tellLeft(*left, out);
        out->text(basisText(*order.getBasis()));
        return index;
    }
    *name = ZqImageFolder::prefix(options.index);
    if (!ZqUrlText::isAddress(options.index)) return options.index;
    ZqIndexFetch fetch(place.path, options.index, SxArray<SxString>(options.net.headers),
                       options.net.resolve(options.image));
    *name = ZqImageFolder::prefix(fetch.getName());
    runJob(&fetch, "fetch", *out);
    if (!options.dryRun) options.net.note(options.image);
    return place.path;
}

int finish(ZqImageOptimize* job, bool isForecast, const LeftTraces& left, Output* out) {
    const double seconds = runJob(job, "optimize", *out);
    if (job->hasFailure()) throw job->getFailure();
    const ZqImageOptimize::Result& result = job->getResult();
    if (!isForecast && !job->isComplete()) {
        throw SxException(job->isBegun() ? "stopped; go on with: tavrin image optimize IMAGE --resume"
                                         : "stopped before anything was begun",
                          UNIT, __LINE__);
    }
    const double told = isForecast ? result.forecastSeconds : seconds;
    if (out->getMode().json) out->object(describe(result, told, left));
    tell(result, told, isForecast, out);
    if (!result.indexLeft.isEmpty()) out->finding(result.indexLeft);
    return ExitSuccess;
}

int optimize(const OptimizeOptions& options, Output& out) {
    const SxString conflict = findConflict(options);
    if (!conflict.isEmpty()) {
        Output::failure(conflict);
        return ExitUsage;
    }
    if (options.resume) {
        ZqImageOptimize job(options.image);
        return finish(&job, false, {}, &out);
    }
    const PrivateFolder place;
    SxString name;
    LeftTraces left;
    const SxString index = makeIndex(options, place, &name, &left, &out);
    ZqImageOptimize job(options.image, index);
    if (!options.consume) job.keepIndex(name);
    if (options.dryRun) job.setForecastOnly();
    return finish(&job, options.dryRun, left, &out);
}
} // namespace

void registerOptimizeVerb(Family* image) {
    auto options = SxPtr<OptimizeOptions>::create();
    image
        ->verb("optimize", "Bring an installed image to a better order of its blocks, in place",
               "tavrin image order games/alpha merged orders/alpha\n"
               "  tavrin image optimize games/alpha orders/alpha")
        .argument("IMAGE", &options->image, "Image folder")
        .optionalArgument("INDEX", &options->index,
                          "Folder with the new order, or the address of a published one")
        .network(&options->net, "Send this line with each request to the address")
        .flag("--consume", &options->consume, "Remove INDEX at the end; else it stays as it is")
        .flag("--dry-run", &options->dryRun, "Tell what would be done and how long it would take")
        .flag("--traces", &options->byTraces, "Take the order from the traces of the image's own runs")
        .flag("--resume", &options->resume, "Go on with what was stopped or cut off; takes no INDEX")
        .action([options](Output& out) { return optimize(*options, out); });
}
