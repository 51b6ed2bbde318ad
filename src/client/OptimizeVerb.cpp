#include "App.h"
#include "Job.h"
#include "Verbs.h"

#include <tavrin/ZqBlocks.h>
#include <tavrin/ZqImageOptimize.h>

namespace {
constexpr const char* UNIT = "src/client/OptimizeVerb";

struct OptimizeOptions {
    SxString image, index;
    bool consume = false, dryRun = false, resume = false;
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

/// What the job has come to, or, with `rate`, would come to.
SxParserKit::SxSymbol describe(const ZqImageOptimize::Result& result, double seconds) {
    SxParserKit::SxSymbol object;
    object.setType(SxParserAst::Object);
    object.append("mode", modeText(result.mode));
    SxParserKit::SxSymbol blocks = object.append("blocks", SxParserAst::Object);
    blocks.append("total", result.nTotal);
    blocks.append("moved", result.nMoved);
    blocks.append("kept", result.nKept);
    if (result.mode == ZqImageOptimize::Copy) blocks.append("lost", result.nLost);
    object.append("bytes", result.bytes);
    object.append("bytesExtra", result.bytesExtra);
    object.append("seconds", seconds);
    object.append("bytesPerSecond", seconds > 0 ? static_cast<double>(result.bytes) / seconds : 0.0);
    object.append("resumed", result.isResumed);
    return object;
}

void tell(const ZqImageOptimize::Result& result, double seconds, bool isForecast, Output* out) {
    const SxString rest = SxString::sprintf(" in %s%.1f s.", isForecast ? "about " : "", seconds);
    const char* does = isForecast ? "would be" : "were";
    if (result.mode == ZqImageOptimize::None && !result.isResumed) {
        out->text(SxString("All ") + result.nKept + " blocks are in their place; only the records " +
                  (isForecast ? "would be replaced." : "were replaced."));
    } else if (result.mode == ZqImageOptimize::Copy) {
        out->text(SxString(result.nMoved + result.nKept) + " blocks " + does + " copied, " +
                  exactBytes(result.bytes) + rest);
        if (result.nLost > 0) {
            out->text(SxString(result.nLost) + " blocks that were there " +
                      (isForecast ? "would be" : "are") + " no longer there, and are downloaded again.");
        }
    } else {
        out->text(SxString(result.nMoved) + " blocks " + does + " moved, " + result.nKept + " stay; " +
                  exactBytes(result.bytes) + " " + does + " written" + rest);
    }
    if (isForecast)
        out->text("It would take " + exactBytes(result.bytesExtra) + " more of the disk for a time.");
}

int optimize(const OptimizeOptions& options, Output& out) {
    if (options.resume != options.index.isEmpty()) {
        Output::failure(options.resume
                            ? "--resume takes no INDEX: it goes on with the one that was begun with"
                            : "INDEX is missing; or go on with --resume");
        return ExitUsage;
    }
    if (options.resume && (options.consume || options.dryRun)) {
        Output::failure("--resume goes on as it was begun, and takes no other option");
        return ExitUsage;
    }
    const auto job = options.resume ? SxPtr<ZqImageOptimize>::create(options.image)
                                    : SxPtr<ZqImageOptimize>::create(options.image, options.index);
    if (!options.consume) job->keepIndex();
    if (options.dryRun) job->setForecastOnly();
    const double seconds = runJob(job.getPtr(), "optimize", out);
    if (job->hasFailure()) throw job->getFailure();
    const ZqImageOptimize::Result& result = job->getResult();
    if (!options.dryRun && !job->isComplete()) {
        throw SxException("stopped; go on with: tavrin image optimize IMAGE --resume", UNIT, __LINE__);
    }
    const double forecast = result.rate > 0 ? static_cast<double>(result.bytes) / result.rate : 0;
    const double told = options.dryRun ? forecast : seconds;
    if (out.getMode().json) out.object(describe(result, told));
    tell(result, told, options.dryRun, &out);
    return ExitSuccess;
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
                          "Folder with the new order: img.idx or img.idx.7z, img.json and app.json")
        .flag("--consume", &options->consume, "Remove INDEX at the end; else it stays as it is")
        .flag("--dry-run", &options->dryRun, "Tell what would be done and how long it would take")
        .flag("--resume", &options->resume, "Go on with what was stopped or cut off; takes no INDEX")
        .action([options](Output& out) { return optimize(*options, out); });
}
