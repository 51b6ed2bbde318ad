#include "App.h"
#include "Job.h"
#include "Verbs.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/ZqBlocks.h>
#include <tavrin/ZqCreateContent.h>
#include <tavrin/ZqExtractContent.h>
#include <tavrin/ZqImage.h>
#include <tavrin/ZqReadable.h>

namespace {
constexpr const char* UNIT = "src/client/ContentVerbs";

struct CreateOptions {
    SxString source, image;
    bool discard = false;
};

int create(const CreateOptions& options, Output& out) {
    // The job itself only logs it.
    if (!SxFSAction::test_d(options.source)) {
        throw SxException(options.source + " is not a directory.", UNIT, __LINE__);
    }
    refuseForeignFolder(options.image);
    ZqCreateContent job(options.image, options.source, options.discard);
    const double seconds = runJob(&job, "create", out);
    if (!job.isComplete()) throw SxException("stopped", UNIT, __LINE__);

    const auto bytes = static_cast<uint64>(job.runtimeInfo->createStats.bytes);
    const uint64 nBlocks = bytes / ZqBlocks::SIZE;
    const double rate = static_cast<double>(bytes) / std::max(seconds, 1e-3);
    if (out.getMode().json) {
        SxParserKit::SxSymbol result;
        result.setType(SxParserAst::Object);
        result.append("files", job.getNFiles());
        result.append("skipped", job.getNSkipped());
        result.append("blocks", nBlocks);
        result.append("bytes", bytes);
        result.append("seconds", seconds);
        result.append("bytesPerSecond", static_cast<int64>(rate));
        out.object(result);
    }
    out.text("Packed " + SxString(job.getNFiles()) + " files in " + nBlocks + " blocks, " +
             exactBytes(bytes) + SxString::sprintf(", in %.1f s (", seconds) + readableBytes(rate) + "/s).");
    if (job.getNSkipped() > 0) {
        out.text("Passed over " + SxString(job.getNSkipped()) +
                 " links or other things that are no plain files; the log names them.");
    }
    return ExitSuccess;
}

struct ExtractOptions {
    SxString image, destination;
    bool isKept = false;
};

int extract(const ExtractOptions& options, Output& out) {
    ZqExtractContent job(options.image, options.destination, options.isKept);
    const double seconds = runJob(&job, "extract", out);
    if (job.hasFailure()) throw job.getFailure();
    if (!job.isComplete()) throw SxException("stopped", UNIT, __LINE__);

    const double rate = static_cast<double>(job.getNBytes()) / std::max(seconds, 1e-3);
    if (out.getMode().json) {
        SxParserKit::SxSymbol result;
        result.setType(SxParserAst::Object);
        result.append("files", job.getNFiles());
        result.append("skipped", job.getNSkipped());
        result.append("bytes", job.getNBytes());
        result.append("kept", options.isKept);
        result.append("resumed", job.isResumed());
        result.append("left", job.getLeft());
        result.append("seconds", seconds);
        result.append("bytesPerSecond", static_cast<int64>(rate));
        out.object(result);
    }
    if (job.isResumed()) {
        out.text("The files were there already; what was left to do is done.");
    } else {
        out.text("Extracted " + ZqReadable::counted(job.getNFiles(), "file", "files") + ", " +
                 exactBytes(job.getNBytes()) + SxString::sprintf(", in %.1f s (", seconds) +
                 readableBytes(rate) + "/s).");
    }
    if (!options.isKept) out.text("The image is removed.");
    if (job.getNSkipped() > 0) {
        out.text("Passed over " + ZqReadable::counted(job.getNSkipped(), "thing", "things") +
                 ", neither file nor folder nor link; the log names them.");
    }
    if (!job.getLeft().isEmpty()) {
        out.finding(
            "What programs have written beside redirected files isn't in the installation; it stays in " +
            job.getLeft());
    }
    return ExitSuccess;
}
} // namespace

void registerContentVerbs(App* app) {
    Family family = app->family("content", "Folders of files as images without a file system");

    auto options = SxPtr<CreateOptions>::create();
    family
        .verb("create", "Pack a folder of files into an image folder",
              "tavrin content create build/alpha games/alpha")
        .argument("SRC", &options->source, "Folder to pack")
        .argument("IMAGE", &options->image, "Image folder to write; what it held is replaced")
        .flag("--discard", &options->discard, "Also where traces of runs, or what drives have written, go")
        .action([options](Output& out) { return create(*options, out); });

    auto extractOptions = SxPtr<ExtractOptions>::create();
    family
        .verb("extract", "Turn a complete image into a plain installation",
              "tavrin content extract games/alpha C:/Games/alpha")
        .argument("IMAGE", &extractOptions->image, "Complete image folder; it is removed at the end")
        .argument("DEST", &extractOptions->destination, "Folder to create")
        .flag("--keep", &extractOptions->isKept, "The image and the private files stay")
        .action([extractOptions](Output& out) { return extract(*extractOptions, out); });
}
