#include "App.h"
#include "Job.h"
#include "OrderAdvice.h"
#include "OrderText.h"
#include "Verbs.h"

#include <tavrin/ZqBlocks.h>
#include <tavrin/ZqImage.h>
#include <tavrin/ZqImageBuild.h>
#include <tavrin/ZqImageOrder.h>
#include <tavrin/ZqImagePack.h>
#include <tavrin/ZqImageRaw.h>
#include <tavrin/ZqReadable.h>

namespace {
constexpr const char* UNIT = "src/client/PublishVerbs";

struct BuildOptions {
    SxString source, image, fileSystem = "erofs";
    ZqImageBuild::Options build;
};

struct PackOptions {
    SxString image;
    int64 level = ZqImagePack::DEFAULT_LEVEL;
};

struct OrderOptions {
    SxString image;
    SxList<SxString> words; ///< traces, and the index folder after them
};

struct RawOptions {
    SxString image, dir;
};

SxParserKit::SxSymbol describe(const ZqImageBuild& job, double seconds) {
    SxParserKit::SxSymbol result;
    result.setType(SxParserAst::Object);
    result.append("files", job.getNFiles());
    result.append("folders", job.getNFolders());
    result.append("links", job.getNLinks());
    result.append("skipped", job.getNSkipped());
    result.append("followed", job.getNFollowed());
    SxParserKit::SxSymbol blocks = result.append("blocks", SxParserAst::Object);
    blocks.append("raw", job.getNRaw());
    blocks.append("included", job.getNIncluded());
    blocks.append("named", job.getNNamed());
    result.append("sizeMnt", job.getSizeMnt());
    appendLeft(&result, job.getLeft());
    result.append("seconds", seconds);
    return result;
}

int build(const BuildOptions& options, Output& out) {
    ZqImageBuild::Options what = options.build;
    what.fileSystem = ZqDriveMaker::stringToType(options.fileSystem);
    refuseForeignFolder(options.image);
    ZqImageBuild job(options.image, options.source, what);
    const double seconds = runJob(&job, "build", out);
    if (!job.isComplete()) throw SxException("stopped", UNIT, __LINE__);

    if (out.getMode().json) out.object(describe(job, seconds));
    const uint64 bytes = job.getNIncluded() * ZqBlocks::SIZE;
    out.text("Built a drive with " + options.fileSystem + " of " + job.getNFiles() +
             " files: " + job.getNIncluded() + " of " + job.getNRaw() + " blocks included, " +
             exactBytes(bytes) + SxString::sprintf(", in %.1f s.", seconds));
    out.text("A mount needs the first " + exactBytes(job.getSizeMnt()) + ".");
    tellLeft(job.getLeft(), &out);
    if (!options.build.traces.isEmpty()) {
        out.text("The traces give the place of the next " + SxString(job.getNNamed()) + " blocks.");
    }
    if (job.getNSkipped() > 0) {
        out.text("Passed over " + SxString(job.getNSkipped()) +
                 " sockets, pipes or devices; the log names them.");
    }
    if (job.getNFollowed() > 0) {
        out.text("Copied what " +
                 ZqReadable::counted(job.getNFollowed(), "symbolic link leads", "symbolic links lead") +
                 " to.");
    }
    if (!job.getCommandDoubt().isEmpty()) Output::failure(job.getCommandDoubt());
    if (job.getApp().loadprofile.isEmpty()) tellWithoutOrder(options.image, job.getApp(), &out);
    out.text(
        "For delivery pack it (tavrin image pack): only then can clients check each stretch as it comes.");
    return ExitSuccess;
}

SxParserKit::SxSymbol describe(const ZqImageOrder& job, double seconds) {
    const ZqAppParams& app = job.getApp();
    SxParserKit::SxSymbol result;
    result.setType(SxParserAst::Object);
    SxParserKit::SxSymbol blocks = result.append("blocks", SxParserAst::Object);
    blocks.append("raw", job.getNRaw());
    blocks.append("included", job.getNIncluded());
    blocks.append("front", job.getNFront());
    blocks.append("named", job.getNCore() + job.getNTail());
    blocks.append("core", job.getNCore());
    blocks.append("near", job.getNNear());
    result.append("sizeZqf", app.sizeZqf);
    result.append("sizeMnt", app.sizeMnt);
    result.append("digest", job.hasDigest());
    result.append("points", app.loadprofile.getSize());
    appendOrder(&result, job.getBasis());
    appendLeft(&result, job.getLeft());
    result.append("seconds", seconds);
    return result;
}

int order(const OrderOptions& options, Output& out) {
    SxList<SxString> traces = options.words;
    const SxString index = traces.last();
    traces.removeLast();
    if (traces.isEmpty()) {
        Output::failure("Give one TRACE or several, and INDEX after them");
        return ExitUsage;
    }
    ZqImageOrder job(options.image, traces, index);
    const double seconds = runJob(&job, "order", out);
    if (!job.isComplete()) throw SxException("stopped", UNIT, __LINE__);

    const ZqAppParams& app = job.getApp();
    if (out.getMode().json) out.object(describe(job, seconds));
    tellLeft(job.getLeft(), &out);
    const uint64 nRest = job.getNIncluded() - job.getNFront() - job.getNCore() - job.getNTail();
    out.text(SxString("Put ") + job.getNIncluded() + " blocks in order: " + job.getNFront() +
             " for a mount, " + job.getNCore() + " that a run most likely reads, " + job.getNTail() +
             " that some have read, " + nRest + " others" + SxString::sprintf(", in %.1f s.", seconds));
    if (job.getBasis()) out.text(basisText(*job.getBasis()));
    if (!job.getWhyNoFiles().isEmpty()) {
        out.text("Blocks that no run has read are put in order by how close they stand to others: " +
                 job.getWhyNoFiles() + ".");
    }
    out.text(SxString("The load profile has ") + app.loadprofile.getSize() + " points, from " +
             exactBytes(app.loadprofile.first().size) + " at the start to " +
             exactBytes(app.loadprofile.last().size) + " after " + app.loadprofile.last().time + " s.");
    if (!job.hasDigest()) {
        out.text("The image isn't complete, so app.json has no digest of the new img.zqf.");
    }
    return ExitSuccess;
}

int pack(const PackOptions& options, Output& out) {
    ZqImagePack job(options.image, options.level);
    const double seconds = runJob(&job, "pack", out);
    if (out.getMode().json) {
        SxParserKit::SxSymbol result;
        result.setType(SxParserAst::Object);
        result.append("frames", job.getNFrames());
        result.append("sizeZqf", job.getSizeZqf());
        result.append("sizePacked", job.getSizePacked());
        result.append("sizeIdx", job.getSizeIdx());
        result.append("sizeIdxPacked", job.getSizeIdxPacked());
        result.append("seconds", seconds);
        out.object(result);
    }
    out.text("Packed " + exactBytes(job.getSizeZqf()) + " to " + exactBytes(job.getSizePacked()) + " in " +
             job.getNFrames() + SxString::sprintf(" frames, in %.1f s.", seconds));
    out.text("Packed the map, " + exactBytes(job.getSizeIdx()) + " to " + exactBytes(job.getSizeIdxPacked()) +
             ".");
    return ExitSuccess;
}

int writeRaw(const RawOptions& options, Output& out) {
    ZqImageRaw job(options.image, options.dir);
    const double seconds = runJob(&job, "raw", out);
    if (out.getMode().json) {
        SxParserKit::SxSymbol result;
        result.setType(SxParserAst::Object);
        result.append("sizeRaw", job.getSizeRaw());
        result.append("written", job.getSizeWritten());
        result.append("seconds", seconds);
        out.object(result);
    }
    out.text("Wrote a RAW image of " + exactBytes(job.getSizeRaw()) + ", " +
             exactBytes(job.getSizeWritten()) + SxString::sprintf(" of them content, in %.1f s.", seconds));
    return ExitSuccess;
}
} // namespace

void registerPublishVerbs(Family* image) {
    auto building = SxPtr<BuildOptions>::create();
    ZqImageBuild::Options& what = building->build;
    image
        ->verb("build", "Make a drive of a folder, and an image of that; for delivery pack it then",
               "tavrin image build /usr/share/games/doom games/doom --cmd crispy-doom \\\n"
               "      --arg=-iwad --arg '{{ZQDRIVE}}/TAVRIN-protected/app/freedoom1.wad'")
        .argument("SRC", &building->source, "Folder of the application")
        .argument("IMAGE", &building->image, "Image folder to write; what it held is replaced")
        .choice("--fs", &building->fileSystem, {"erofs", "ext4", "squashfs"},
                "File system; erofs where not given")
        .number("--free", &what.freeBytes, 1,
                "Bytes free for what is written to the drive, with ext4; a tenth of its content and 16 MiB "
                "where not given or less")
        .text("--cmd", &what.cmd, "C", "Command to start: a file of SRC, or a program of the machine")
        .texts("--arg", &what.args, "A", "An argument of the command; may be given again")
        .text("--name", &what.name, "N", "Process to look for where the command is only a launcher")
        .text("--window", &what.window, "T", "Title of the application's window")
        .text("--app", &what.appTemplate, "FILE", "An app.json that gives all other fields")
        .text("--raw", &what.rawDir, "DIR", "Keep the drive as img.raw in this folder")
        .flag("--follow-links", &what.followsLinks, "Copy what symbolic links that lead out of SRC lead to")
        .flag("--discard", &what.mayDiscard,
              "Also where traces of runs, or what drives have written, go: with other files they do")
        .texts("--order", &what.traces, "TRACE",
               "Order the image by this trace of a run of an image of the same files; may be given again")
        .action([building](Output& out) { return build(*building, out); });

    auto ordering = SxPtr<OrderOptions>::create();
    image
        ->verb("order", "Work out a new order from traces of runs, as an index folder",
               "tavrin image order games/alpha games/alpha/traces/* orders/alpha")
        .argument("IMAGE", &ordering->image, "Image folder")
        .arguments(
            "TRACE... INDEX", &ordering->words,
            "Trace folders, each of a single run, and after them the folder to make. A merged trace "
            "counts as one run: it can't tell how many runs have read a block, nor which blocks are read "
            "together")
        .action([ordering](Output& out) { return order(*ordering, out); });

    auto packing = SxPtr<PackOptions>::create();
    image
        ->verb("pack", "Write img.zqf.zst and img.idx.zst, which clients download, and check each stretch by",
               "tavrin image pack games/alpha --level 19")
        .argument("IMAGE", &packing->image, "Image folder, complete")
        .integer("--level", &packing->level, 1, ZqImagePack::getMaxLevel(),
                 "Level of zstd, 1 to 22; 17 where not given")
        .action([packing](Output& out) { return pack(*packing, out); });

    auto raw = SxPtr<RawOptions>::create();
    image
        ->verb("raw", "Write the RAW image of a complete image, as img.raw",
               "tavrin image raw games/alpha disks/alpha")
        .argument("IMAGE", &raw->image, "Image folder")
        .argument("DIR", &raw->dir, "Folder for img.raw")
        .action([raw](Output& out) { return writeRaw(*raw, out); });
}
