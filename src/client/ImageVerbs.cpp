#include "App.h"
#include "Forecast.h"
#include "Job.h"
#include "OrderAdvice.h"
#include "OrderText.h"
#include "Verbs.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/SxFileIO.h>
#include <tavrin/SxJSONParser.h>
#include <tavrin/ZqDriveFiles.h>
#include <tavrin/ZqFileTable.h>
#include <tavrin/ZqImage.h>
#include <tavrin/ZqImageCheck.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageInfo.h>
#include <tavrin/ZqImageLock.h>
#include <tavrin/ZqPatch.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqSaves.h>

#include <optional>

namespace {
constexpr const char* UNIT = "src/client/ImageVerbs";

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

struct InfoOptions {
    SxString image;
    double speed = 0; ///< megabit per second; 0 where not given
};

struct MapOptions {
    SxString image;
    uint64 first = 0, last = 0, step = 1;
    bool reverse = false;
};

struct VerifyOptions {
    SxString image, rawFolder;
};

struct SplitOptions {
    SxString image;
    uint64 partSize = 0;
    bool compress = false;
};

uint64 fileSize(const SxString& path) {
    return static_cast<uint64>(SxFileInfo(path).getSize());
}

// --- info

void appendRecord(SxSymbol* result, const SxString& key, const SxString& path) {
    SxJSONParser parser;
    parser.readFile(path);
    result->appendCopy(key, parser.getRootSymbol());
}

/// What an image's table of files holds.
struct FileInfo {
    std::optional<uint64> nFiles;
    SxString why;               ///< why that isn't known, as a clause
    bool hasNeighbours = false; ///< a new order goes by neighbours instead
};

FileInfo findFiles(const ZqImageInfo& info, const SxString& folder) {
    FileInfo found;
    if (ZqFileTable::exists(folder)) {
        try {
            found.nFiles = ZqFileTable::read(folder, info.app.checksumMnt, info.nRaw).getNFiles();
        } catch (const SxException& e) {
            found.why = SxString(e.what()) + "; remove it, and image order makes another one";
        }
        return found;
    }
    try {
        found.why = ZqDriveFiles::whyNot(folder, info);
        found.hasNeighbours = !found.why.isEmpty();
        if (!found.hasNeighbours) found.why = "there is no img.files yet, image order makes it";
    } catch (const SxException& e) {
        found.why = e.what();
    }
    return found;
}

SxString describeFiles(const FileInfo& files) {
    if (files.nFiles) return SxString(*files.nFiles) + " in img.files, which fits this build";
    return files.hasNeighbours ? files.why + "; an order goes by neighbours on the disk" : files.why;
}

/// What the application has saved; none where the record is one whose names can't be used.
std::optional<ZqSaves> findSaves(const ZqImageInfo& info) {
    try {
        return ZqSaves::of(info.app);
    } catch (const SxException&) {
        return std::nullopt;
    }
}

SxSymbol describeJson(const ZqImageInfo& info, const SxString& folder) {
    SxSymbol result;
    result.setType(Json::Object);
    SxSymbol blocks = result.append("blocks", Json::Object);
    blocks.append("raw", info.nRaw);
    blocks.append("included", info.nIncluded);
    blocks.append("present", info.nPresent);
    result.append("state", info.getStateText());
    result.append("sizeZqf", info.sizeZqf);
    result.append("runs", info.nRuns);
    if (info.hasHints) {
        SxSymbol hints = result.append("hints", Json::Object);
        hints.append("groups", info.nHintGroups);
        hints.append("hotStretches", info.nHotStretches);
    } else {
        result.append("hints", Json::Null);
    }
    appendOrder(&result, info.image.order);
    if (info.storage.split) {
        result.append("split", Json::Object).append("partSize", info.storage.partSize);
    } else {
        result.append("split", Json::Null);
    }
    result.append("joining", info.storage.joining);
    const FileInfo files = findFiles(info, folder);
    if (files.nFiles) {
        result.append("files", *files.nFiles);
    } else {
        result.append("files", Json::Null);
        result.append("filesWhy", files.why.validUtf8());
    }
    const SxString volume = ZqDriveFiles::volumeOf(folder, info);
    if (volume.isEmpty()) {
        result.append("volume", Json::Null);
    } else {
        result.append("volume", volume);
    }
    if (const auto saves = findSaves(info)) {
        SxSymbol object = result.append("saves", Json::Object);
        object.append("path", saves->path.validUtf8());
        object.append("bytes", saves->nBytes);
    } else {
        result.append("saves", Json::Null);
    }
    appendRecord(&result, "app", folder + ZqImageFiles::APP_JSON);
    appendRecord(&result, "image", folder + ZqImageFiles::IMAGE_JSON);
    return result;
}

SxString describeParts(const ZqImageInfo& info) {
    SxString text =
        info.storage.split ? "cut into parts of " + exactBytes(info.storage.partSize) : SxString("one file");
    if (info.storage.joining) text += ", a join was cut off: join again";
    return text;
}

/// `volume`: what lies in the RAW image; empty where that isn't known.
void describeText(const ZqImageInfo& info, const SxString& folder, const SxString& volume, Output* out) {
    const auto field = [&](const char* name, const SxString& value) {
        out->text(SxString::sprintf("%-13s ", name) + value);
    };
    const ZqAppParams& app = info.app;
    field("State", info.getStateText());
    try {
        ZqImageLock::refuseUnfinished(folder);
    } catch (const SxException& e) {
        field("Unfinished", e.what());
    }
    field("Application", app.guid);
    field("Command", app.cmd + (app.args.isEmpty() ? "" : " ") + SxString::join(app.args, " "));
    field("Mount mode", ZqDriveKinds::mountModeToString(app.mountMode));
    field("Image", info.image.guid);
    const SxString& stated = info.image.filesystem;
    field("File system", !volume.isEmpty() ? volume : stated == "none" ? "none that is known" : stated);
    field("RAW image", exactBytes(static_cast<uint64>(info.image.sizeRaw)));
    field("ZqF file", exactBytes(info.sizeZqf) + " present of " + exactBytes(info.sizeComplete));
    field("Map", exactBytes(app.sizeIdx));
    field("For a mount", exactBytes(app.sizeMnt));
    field("Blocks",
          SxString(info.nRaw) + " raw, " + info.nIncluded + " included, " + info.nPresent + " present");
    field("Order", ZqReadable::counted(static_cast<int64>(info.nRuns), "run", "runs") + " of neighbours");
    if (info.image.order) field("Rests on", basisText(*info.image.order));
    field("Files", describeFiles(findFiles(info, ZqImageFolder::prefix(folder))));
    if (info.hasHints) {
        field("Hints", ZqReadable::counted(static_cast<int64>(info.nHintGroups), "group", "groups") + ", " +
                           ZqReadable::counted(static_cast<int64>(info.nHotStretches), "hot stretch",
                                               "hot stretches"));
    }
    field("Storage", describeParts(info));
    if (const auto saves = findSaves(info))
        field("Saves", saves->path.makeVisible() + ", " + readableBytes(static_cast<double>(saves->nBytes)));
}

/// The forecast for the median of the runs that the order comes from.
ZqStartForecast medianOf(const ZqImageInfo& info, double speed) {
    ZqAppParams app = info.app;
    app.loadprofile = info.image.order->median;
    return {app, speed, info.sizeZqf};
}

int showInfo(const InfoOptions& options, Output& out) {
    const SxString& image = options.image;
    const auto lock = ZqImageLock::takeAnyState(image, ZqImageLock::Shape, ZqImageLock::Shared, "image info");
    const SxString folder = ZqImageFolder::prefix(image);
    const ZqImageInfo info(image);
    const double speed = options.speed;
    const ZqStartForecast forecast(info.app, speed, info.sizeZqf), fresh(info.app, speed, 0);
    if (out.getMode().json) {
        SxSymbol result = describeJson(info, folder);
        if (speed > 0) {
            appendForecast(&result, "forecast", forecast);
            appendForecast(&result, "forecastFresh", fresh);
            if (info.image.order) appendForecast(&result, "forecastMedian", medianOf(info, speed));
        }
        out.object(result);
        return ExitSuccess;
    }
    const SxString volume = ZqDriveFiles::volumeOf(image, info);
    describeText(info, image, volume, &out);
    // Of packed content nobody makes an order.
    if (!volume.isEmpty() && info.app.loadprofile.isEmpty()) tellWithoutOrder(image, info.app, &out);
    if (speed <= 0) return ExitSuccess;
    const bool isPacked = packingGain(image, info.sizeComplete) > 1;
    out.text(SxString::sprintf("At %.12g Mbit/s", speed) + (isPacked ? " of the unpacked image" : ""));
    const auto tell = [&](const char* name, const ZqStartForecast& what) {
        out.text(SxString::sprintf("  %-12s ", name) + safeStartText(what));
        out.text(SxString::sprintf("  %-12s ", "") + earlyStartText(what));
    };
    tell("From here", forecast);
    if (info.image.order && info.image.order->nRuns > 1) tell("Median run", medianOf(info, speed));
    if (info.sizeZqf > 0) tell("From nothing", fresh);
    return ExitSuccess;
}

// --- map

/// The line of one entry, with its line feed.
SxString formatMapLine(uint64 idx, uint64 entry, bool reverse, bool json) {
    const bool hole = entry == ZqImage::NO_ENTRY;
    if (json) {
        const char* key = reverse ? "zqf" : "raw";
        const char* value = reverse ? "raw" : "zqf";
        return SxString::sprintf("{\"%s\":%ju,\"%s\":", key, uintmax_t{idx}, value) +
               (hole ? SxString("null") : SxString(entry)) + "}\n";
    }
    if (!reverse) return ZqImage::formatEntry(idx, entry);
    if (hole) return SxString::sprintf("ZQF=%-9ju (hole)\n", uintmax_t{idx});
    return SxString::sprintf("ZQF=%-9ju RAW=%-9ju\n", uintmax_t{idx}, uintmax_t{entry});
}

int showMap(const MapOptions& options, Output& out) {
    const auto lock = ZqImageLock::take(options.image, ZqImageLock::Shape, ZqImageLock::Shared, "image map");
    const ZqImage image(ZqImageFolder::prefix(options.image));
    const SxArray<uint64> map = options.reverse ? image.getReverseMap() : image.getMap();

    const auto size = static_cast<uint64>(map.getSize());
    const uint64 last = options.last == 0 ? size : std::min(options.last, size);
    const uint64 first = std::min(options.first, last);
    // A wider stride lists the same, but could overflow.
    const uint64 step = std::min(options.step, size + 1);
    for (uint64 idx = (first + step - 1) / step * step; idx < last && !out.isClosed(); idx += step) {
        out.listing(formatMapLine(idx, map(static_cast<int64>(idx)), options.reverse, out.getMode().json));
    }
    return ExitSuccess;
}

// --- verify

void appendTexts(SxSymbol* result, const char* key, const SxList<SxString>& texts) {
    SxSymbol array = result->append(key, Json::Array);
    for (const SxString& text : texts)
        array.append(text.validUtf8());
}

/// What a check found.
struct Findings {
    SxList<SxString> faults, notes;
    bool partial = false;
    std::optional<ZqPatch::ImageCounters> raw;
};

/// Compares the image with the RAW image in a folder, as far as the image is there.
void compareWithRaw(const VerifyOptions& options, Findings* findings, const Output& out) {
    const SxString folder = ZqImageFolder::prefix(options.image);
    if (!SxFSAction::test_f(folder + ZqImageFiles::ZQF)) {
        findings->notes << SxString("img.raw: not compared, there is no img.zqf");
        return;
    }
    const auto lock =
        ZqImageLock::take(options.image, ZqImageLock::Shape, ZqImageLock::Shared, "image verify");
    ZqPatch::ImageCounters counters;
    FunctionJob job([&](ZqTaskMon* progress) {
        counters = ZqPatch::verifyImage(ZqImageFolder::prefix(options.rawFolder), folder, progress);
    });
    runJob(&job, "compare", out);
    findings->raw = counters;
    findings->notes << "img.raw: " + SxString(counters.nTotal) + " blocks, " + counters.nMapped +
                           " compared, digest " + counters.md5Raw;
    if (counters.nMissing > 0) {
        // A missing block is no difference, so the verb goes by the blocks that are there.
        findings->notes << "img.raw: blocks that aren't compared, since they lie beyond the present end of "
                           "img.zqf: " +
                               SxString(counters.nMissing);
    }
    if (counters.nWrong() == 0) return;
    findings->faults << "'" + folder + ZqImageFiles::ZQF + "': " +
                            ZqReadable::counted(static_cast<int64>(counters.nWrong()), "block differs",
                                                "blocks differ") +
                            " from '" + ZqImageFolder::prefix(options.rawFolder) +
                            "img.raw', first RAW block " + counters.firstWrongRawIdx;
}

SxSymbol findingsJson(const Findings& findings) {
    SxSymbol result;
    result.setType(Json::Object);
    result.append("ok", findings.faults.isEmpty());
    result.append("partial", findings.partial);
    appendTexts(&result, "faults", findings.faults);
    appendTexts(&result, "notes", findings.notes);
    if (!findings.raw) {
        result.append("raw", Json::Null);
        return result;
    }
    SxSymbol raw = result.append("raw", Json::Object);
    raw.append("total", findings.raw->nTotal);
    raw.append("mapped", findings.raw->nMapped);
    raw.append("unmapped", findings.raw->nUnmapped);
    raw.append("invalid", findings.raw->nInvalid);
    raw.append("missing", findings.raw->nMissing);
    raw.append("wrong", findings.raw->nWrong());
    raw.append("md5Raw", findings.raw->md5Raw);
    raw.append("md5Zqf", findings.raw->md5Zqf);
    return result;
}

int verify(const VerifyOptions& options, Output& out) {
    ZqImageCheck check(options.image);
    runJob(&check, "verify", out);
    Findings findings{check.getFaults(), check.getNotes(), check.isPartial(), std::nullopt};
    if (!options.rawFolder.isEmpty()) {
        try {
            compareWithRaw(options, &findings, out);
        } catch (const SxException& e) {
            // What was found before is told all the same.
            if (findings.faults.isEmpty()) throw;
            findings.faults << SxString(e.what());
        }
    }

    if (out.getMode().json) out.object(findingsJson(findings));
    for (const SxString& note : findings.notes)
        out.text(note);
    for (const SxString& fault : findings.faults)
        out.finding("FAULT: " + fault);
    if (findings.faults.isEmpty()) {
        out.text(findings.partial ? "No fault as far as the image is there." : "No fault.");
        return ExitSuccess;
    }
    throw SxException(options.image + ": " +
                          ZqReadable::counted(findings.faults.getSize(), "fault", "faults"),
                      UNIT, __LINE__);
}

// --- split and join

int split(const SplitOptions& options, Output& out) {
    const SxString folder = ZqImageFolder::prefix(options.image);
    bool done = false;
    FunctionJob job([&](ZqTaskMon* progress) {
        done = ZqImage(folder).split(options.partSize, options.compress, progress);
    });
    const double seconds = runJob(&job, "split", out);

    if (out.getMode().json) {
        SxSymbol result;
        result.setType(Json::Object);
        result.append("split", done);
        result.append("partSize", options.partSize);
        result.append("compressed", done && options.compress);
        result.append("seconds", seconds);
        out.object(result);
    } else if (done) {
        out.text(SxString("Cut into parts of ") + exactBytes(options.partSize) +
                 SxString::sprintf(" in %.1f s.", seconds));
    } else {
        out.text("Nothing to do: one part would hold the whole file.");
    }
    return ExitSuccess;
}

int join(const SxString& image, Output& out) {
    const SxString folder = ZqImageFolder::prefix(image);
    bool done = false;
    FunctionJob job([&](ZqTaskMon* progress) { done = ZqImage(folder).join(progress); });
    const double seconds = runJob(&job, "join", out);

    const uint64 bytes = done ? fileSize(folder + ZqImageFiles::ZQF) : 0;
    if (out.getMode().json) {
        SxSymbol result;
        result.setType(Json::Object);
        result.append("joined", done);
        result.append("sizeZqf", bytes);
        result.append("seconds", seconds);
        out.object(result);
    } else if (done) {
        out.text("Joined to " + exactBytes(bytes) + SxString::sprintf(" in %.1f s.", seconds));
    } else {
        out.text("Nothing to do: the record tells of a single part.");
    }
    return ExitSuccess;
}

constexpr const char* IMAGE_HELP = "Image folder";
} // namespace

void registerImageVerbs(App* app) {
    Family family = app->family("image", "Image folders: what they hold, checks, parts");

    const auto simple = [&](const char* name, const char* help, const char* example, auto function) {
        auto image = SxPtr<SxString>::create();
        family.verb(name, help, example)
            .argument("IMAGE", image.getPtr(), IMAGE_HELP)
            .action([image, function](Output& out) { return function(*image, out); });
    };
    auto showing = SxPtr<InfoOptions>::create();
    family
        .verb("info", "Show records, sizes, blocks, order and state",
              "tavrin image info games/alpha --speed 20")
        .argument("IMAGE", &showing->image, IMAGE_HELP)
        .speed("--speed", &showing->speed,
               "Forecast the start at this download speed; a plain number is Mbit/s")
        .action([showing](Output& out) { return showInfo(*showing, out); });

    auto map = SxPtr<MapOptions>::create();
    family
        .verb("map", "List the block map, one entry a line",
              "tavrin image map games/alpha --first 100 --last 200")
        .argument("IMAGE", &map->image, IMAGE_HELP)
        .number("--first", &map->first, 0, "Index of the first entry")
        .number("--last", &map->last, 0, "Index after that of the last entry; 0 is the end of the map")
        .number("--step", &map->step, 1, "Only entries whose index is a multiple of this")
        .flag("--reverse", &map->reverse, "List by ZqF index instead of RAW index")
        .action([map](Output& out) { return showMap(*map, out); });

    auto verifying = SxPtr<VerifyOptions>::create();
    family
        .verb("verify", "Check digests, map and sizes, as far as the image is there",
              "tavrin image verify games/alpha --raw build/alpha")
        .argument("IMAGE", &verifying->image, IMAGE_HELP)
        .text("--raw", &verifying->rawFolder, "DIR", "Compare with img.raw in DIR, block by block")
        .action([verifying](Output& out) { return verify(*verifying, out); });

    auto splitting = SxPtr<SplitOptions>::create();
    family
        .verb("split", "Cut the image's data into parts",
              "tavrin image split games/alpha --part-size 1GiB --compress")
        .argument("IMAGE", &splitting->image, IMAGE_HELP)
        .size("--part-size", &splitting->partSize, "Size of a part; a plain number is bytes", true)
        .flag("--compress", &splitting->compress,
              "Compress each part; such parts can't be joined as they are")
        .action([splitting](Output& out) { return split(*splitting, out); });

    simple("join", "Put the parts of a split image together again", "tavrin image join games/alpha", join);
    registerOptimizeVerb(&family);
    registerPublishVerbs(&family);
}
