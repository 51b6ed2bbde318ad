#include "App.h"
#include "Job.h"
#include "PrivateFolder.h"
#include "Verbs.h"

#include <tavrin/ZqPatchBuilder.h>
#include <tavrin/ZqPatchCheck.h>
#include <tavrin/ZqReadable.h>

namespace {
constexpr const char* UNIT = "src/client/PatchVerbs";

struct CreateOptions {
    SxString older, newer, patch, compression = "LZMA";
    int64 level = -1;
};

SxString blocks(uint64 n) {
    return ZqReadable::counted(static_cast<int64>(n), "block", "blocks");
}

const char* PATCH_HELP = "Patch folder";

int verify(const SxString& patch, Output& out) {
    const PrivateFolder scratch;
    ZqPatchCheck job(patch, scratch.path);
    const double seconds = runJob(&job, "verify", out);
    const ZqPatchParams& params = job.getParams();
    const bool isRight = job.getFaults().isEmpty();
    if (out.getMode().json) {
        SxParserKit::SxSymbol object;
        object.setType(SxParserAst::Object);
        object.append("ok", isRight);
        object.append("from", params.fromGUID);
        object.append("to", params.toGUID);
        object.append("parts", job.getNParts());
        SxParserKit::SxSymbol faults = object.append("faults", SxParserAst::Array);
        for (const SxString& fault : job.getFaults())
            faults.append(fault);
        object.append("seconds", seconds);
        out.object(object);
    }
    for (const SxString& fault : job.getFaults())
        out.finding("FAULT: " + fault);
    if (!isRight) return ExitFailure;
    out.text("The patch is whole: " + blocks(job.getNChanged()) + " in " +
             ZqReadable::counted(static_cast<int64>(job.getNParts()), "part", "parts") + ", " +
             job.getNKept() + " are in both versions.");
    return ExitSuccess;
}

int create(const CreateOptions& options, Output& out) {
    ZqPatchBuilder::Options what;
    what.compression = ZqPatchCompression::toEnum(options.compression);
    what.level = static_cast<int>(options.level);
    ZqPatchBuilder job(options.older, options.newer, options.patch, what);
    const double seconds = runJob(&job, "patch", out);
    if (!job.isComplete()) throw SxException("stopped", UNIT, __LINE__);
    const ZqPatchBuilder::Result& result = job.getResult();
    if (out.getMode().json) {
        SxParserKit::SxSymbol object;
        object.setType(SxParserAst::Object);
        object.append("from", result.from);
        object.append("to", result.to);
        object.append("parts", result.nParts);
        object.append("bytes", result.bytes);
        SxParserKit::SxSymbol counts = object.append("blocks", SxParserAst::Object);
        counts.append("kept", result.nKept);
        counts.append("changed", result.nChanged);
        counts.append("read", result.nOldBlocks);
        object.append("seconds", seconds);
        out.object(object);
    }
    out.text("Made a patch of " + exactBytes(result.bytes) + " in " +
             ZqReadable::counted(static_cast<int64>(result.nParts), "part", "parts") +
             SxString::sprintf(", in %.1f s.", seconds));
    out.text(blocks(result.nChanged) + " of the new version " + (result.nChanged == 1 ? "is" : "are") +
             " made anew, from " + blocks(result.nOldBlocks) + " of the old one; " + result.nKept +
             " are in both versions.");
    return ExitSuccess;
}
} // namespace

void registerPatchVerbs(App* app) {
    Family patch =
        app->family("patch", "Make the next version of an installed image from the one that is there");
    auto options = SxPtr<CreateOptions>::create();
    patch
        .verb("create", "Make the patch from one version of an image to the next",
              "tavrin patch create games/alpha-1 games/alpha-2 patches/alpha-2")
        .argument("OLD", &options->older, "Image folder of the old version")
        .argument("NEW", &options->newer, "Image folder of the new version")
        .argument("PATCH", &options->patch, "Patch folder to make")
        .choice("--compression", &options->compression,
                {"LZMA", "ZLIB", "BZIP2", "LZ4HC", "ZSTD", "RAW", "REPLACE"},
                "How the changes are packed; REPLACE takes the new blocks as they are")
        .integer("--level", &options->level, 0, 22, "Level of the compression; else the one that packs best")
        .action([options](Output& out) { return create(*options, out); });

    auto verified = SxPtr<SxString>::create();
    patch
        .verb("verify", "Check a patch's records, sizes, digests and lists, and the stream of each part",
              "tavrin patch verify patches/alpha-2")
        .argument("PATCH", &*verified, PATCH_HELP)
        .action([verified](Output& out) { return verify(*verified, out); });
}
