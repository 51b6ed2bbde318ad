#include "App.h"
#include "Job.h"
#include "NetOptions.h"
#include "PrivateFolder.h"
#include "Verbs.h"

#include <tavrin/ZqPatchApply.h>
#include <tavrin/ZqPatchBuilder.h>
#include <tavrin/ZqPatchCheck.h>
#include <tavrin/ZqPatchFetch.h>
#include <tavrin/ZqPatchStatus.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqUrlText.h>

namespace {
constexpr const char* UNIT = "src/client/PatchVerbs";

struct CreateOptions {
    SxString older, newer, patch, compression = "LZMA";
    int64 level = -1;
};

SxParserKit::SxSymbol newObject() {
    SxParserKit::SxSymbol object;
    object.setType(SxParserAst::Object);
    return object;
}

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
        SxParserKit::SxSymbol object = newObject();
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
    if (!isRight) {
        throw SxException(patch + ": " + ZqReadable::counted(job.getFaults().getSize(), "fault", "faults"),
                          UNIT, __LINE__);
    }
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
        SxParserKit::SxSymbol object = newObject();
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

struct ApplyOptions {
    SxString image, patch;
    NetOptions net;
    bool consume = false, fetch = false, resume = false;
};

/// What is wrong with the options together; empty where nothing is.
SxString findConflict(const ApplyOptions& options) {
    if (options.patch.isEmpty() != options.resume) return "Give one of both: PATCH or --resume";
    if (options.fetch && !ZqUrlText::isAddress(options.patch))
        return "--fetch is for a PATCH that is an address";
    if (options.consume && (options.resume || ZqUrlText::isAddress(options.patch)))
        return "--consume is for a PATCH that is a folder";
    const char* given = options.net.findGiven();
    if (given && !options.resume && !ZqUrlText::isAddress(options.patch))
        return SxString(given) + " is for a PATCH that is an address";
    return {};
}

int fetch(const ApplyOptions& options, Output& out) {
    ZqPatchFetch job(options.image, options.patch, SxArray<SxString>(options.net.headers),
                     options.net.resolve(options.image));
    const double seconds = runJob(&job, "fetch", out);
    options.net.note(options.image);
    if (!job.isComplete() && !job.isAlreadyNew())
        throw SxException("stopped; the same command goes on", UNIT, __LINE__);
    if (out.getMode().json) {
        SxParserKit::SxSymbol object = newObject();
        object.append("from", job.getFrom());
        object.append("to", job.getTo());
        object.append("parts", job.getNParts());
        object.append("bytesDownload", job.getNFetched());
        object.append("seconds", seconds);
        object.append("alreadyNew", job.isAlreadyNew());
        out.object(object);
    }
    out.text(job.isAlreadyNew() ? SxString("The image is the new version already.")
                                : "The patch is there; apply it with: tavrin patch apply IMAGE --resume");
    return ExitSuccess;
}

/// Without an address on the command line, one that was noted may be gone on with.
ZqNetAccess accessOf(const ApplyOptions& options) {
    const bool needsNone = !options.resume && !ZqUrlText::isAddress(options.patch);
    return needsNone ? ZqNetAccess() : options.net.resolve(options.image);
}

void tell(const ZqPatchApply::Result& result, double seconds, Output* out) {
    if (result.isAlreadyNew) return out->text("The image is the new version already.");
    out->text("The image is the new version: " + exactBytes(result.bytesWritten) + " of new blocks in " +
              ZqReadable::counted(static_cast<int64>(result.nParts), "part", "parts") +
              SxString::sprintf(", in %.1f s.", seconds));
    if (result.bytesLayer > 0) {
        out->text("The write layer of the old version has gone with it: " + exactBytes(result.bytesLayer) +
                  ".");
    }
}

int apply(const ApplyOptions& options, Output& out) {
    const SxString conflict = findConflict(options);
    if (!conflict.isEmpty()) {
        Output::failure(conflict);
        return ExitUsage;
    }
    if (options.fetch) return fetch(options, out);
    ZqPatchApply job(options.image, {options.patch, SxArray<SxString>(options.net.headers), options.consume,
                                     accessOf(options)});
    const double seconds = runJob(&job, "patch", out);
    if (job.hasFailure()) throw job.getFailure();
    options.net.note(options.image);
    if (!job.isComplete()) {
        throw SxException(job.isBegun() ? "stopped; go on with: tavrin patch apply IMAGE --resume"
                                        : "stopped before anything was begun",
                          UNIT, __LINE__);
    }
    const ZqPatchApply::Result& result = job.getResult();
    if (out.getMode().json) {
        SxParserKit::SxSymbol object = newObject();
        object.append("from", result.from);
        object.append("to", result.to);
        object.append("parts", result.nParts);
        object.append("bytesDownload", result.bytesDownload);
        object.append("bytesWritten", result.bytesWritten);
        object.append("bytesExtra", result.bytesExtra);
        object.append("bytesLayer", result.bytesLayer);
        object.append("seconds", seconds);
        object.append("stage", uint64{result.stage});
        object.append("part", uint64{result.part});
        if (!result.patchLeft.isEmpty()) object.append("patchLeft", result.patchLeft);
        object.append("resumed", result.isResumed);
        object.append("alreadyNew", result.isAlreadyNew);
        out.object(object);
    }
    tell(result, seconds, &out);
    if (!result.patchLeft.isEmpty()) out.finding(result.patchLeft);
    return ExitSuccess;
}

struct StatusOptions {
    SxString image, patch;
    NetOptions net;
};

SxString describe(const ZqPatchStatus::Result& result) {
    if (result.isOther)
        return "In the middle of another patch than that; go on with: tavrin patch apply IMAGE --resume";
    const SxString to = "the patch to '" + result.to + "' from '" + result.source + "'";
    switch (result.state) {
    case ZqPatchStatus::Begun:
        if (result.stage >= 5) return "At the end of a patch; go on with: tavrin patch apply IMAGE --resume";
        return "In the middle of a patch, stage " + SxString(uint64{result.stage}) + ", part " +
               SxString(uint64{result.part} + 1) + " of " + result.nParts +
               "; go on with: tavrin patch apply IMAGE --resume";
    case ZqPatchStatus::Committing:
        return "At the end of a patch; go on with: tavrin patch apply IMAGE --resume";
    case ZqPatchStatus::Fetched:
        return "No patch was begun; " + to + " is there, as a whole or in part.";
    default:
        return "No patch was begun.";
    }
}

int status(const StatusOptions& options, Output& out) {
    const PrivateFolder scratch;
    const bool asks = ZqUrlText::isAddress(options.patch);
    ZqPatchStatus job(options.image, options.patch, SxArray<SxString>(options.net.headers), scratch.path,
                      asks ? options.net.resolve(options.image) : ZqNetAccess());
    runJob(&job, "status", out);
    const ZqPatchStatus::Result& result = job.getResult();
    if (out.getMode().json) {
        SxParserKit::SxSymbol object = newObject();
        object.append("state", ZqPatchStatus::toText(result.state));
        object.append("from", result.from);
        object.append("to", result.to);
        object.append("source", result.source);
        object.append("fits", result.isFor);
        object.append("other", result.isOther);
        object.append("alreadyNew", result.isMade);
        object.append("parts", result.nParts);
        object.append("bytesDownload", result.bytesDownload);
        object.append("bytesWritten", result.bytesWritten);
        object.append("bytesExtra", result.bytesExtra);
        object.append("bytesLayer", result.bytesLayer);
        object.append("seconds", result.seconds);
        object.append("stage", uint64{result.stage});
        object.append("part", uint64{result.part});
        out.object(object);
    }
    out.text(describe(result));
    if (!result.hasPatch || result.isOther) return ExitSuccess;
    if (result.isMade && result.state < ZqPatchStatus::Begun) {
        out.text("The image is the version that the patch makes.");
        return ExitSuccess;
    }
    if (!result.isFor && result.state < ZqPatchStatus::Begun) {
        out.text("The patch is for another version than the image's.");
        return ExitSuccess;
    }
    out.text("Still to come: " + exactBytes(result.bytesDownload) + " to download, " +
             exactBytes(result.bytesWritten) + " of new blocks, " +
             SxString::sprintf("about %.1f s of work, ", result.seconds) + exactBytes(result.bytesExtra) +
             " of the disk at most.");
    if (result.bytesLayer > 0)
        out.text("What was written to the drive goes: " + exactBytes(result.bytesLayer) + ".");
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

    auto applied = SxPtr<ApplyOptions>::create();
    patch
        .verb("apply", "Bring an installed image to its next version, in place",
              "tavrin patch apply games/alpha https://example.org/patches/alpha-2")
        .argument("IMAGE", &applied->image, "Image folder")
        .optionalArgument("PATCH", &applied->patch, "Patch folder, or the address of one")
        .network(&applied->net, "Send this line with each request to the address")
        .flag("--consume", &applied->consume, "Remove PATCH at the end; else it stays as it is")
        .flag("--fetch", &applied->fetch, "Only download the patch, also while the image is played")
        .flag("--resume", &applied->resume, "Go on with what was fetched, stopped or cut off; takes no PATCH")
        .action([applied](Output& out) { return apply(*applied, out); });

    auto asked = SxPtr<StatusOptions>::create();
    patch
        .verb("status", "Tell how far an image is with a patch, and what that will still take",
              "tavrin patch status games/alpha https://example.org/patches/alpha-2")
        .argument("IMAGE", &asked->image, "Image folder")
        .optionalArgument("PATCH", &asked->patch, "Patch folder, or the address of one; else what was begun")
        .network(&asked->net, "Send this line with each request to the address")
        .action([asked](Output& out) { return status(*asked, out); });

    auto verified = SxPtr<SxString>::create();
    patch
        .verb("verify", "Check a patch's records, sizes, digests and lists, and the stream of each part",
              "tavrin patch verify patches/alpha-2")
        .argument("PATCH", &*verified, PATCH_HELP)
        .action([verified](Output& out) { return verify(*verified, out); });
}
