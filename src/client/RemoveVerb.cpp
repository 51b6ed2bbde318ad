#include "App.h"
#include "Job.h"
#include "Verbs.h"

#include <tavrin/ZqImageRemoval.h>
#include <tavrin/ZqReadable.h>

#include <cstdio>
#include <iostream>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int LOOK_MS = 200;

struct RemoveOptions {
    SxString image;
    bool isWithSaves = false, isConfirmed = false;
};

/// What would go and what would stay, a line each.
SxList<SxString> describe(const ZqImageRemoval& removal, bool isWithSaves) {
    const ZqImageContent& content = removal.getContent();
    SxList<SxString> lines;
    lines << "The image '" + removal.getImage().makeVisible() +
                 "' goes: " + ZqReadable::counted(content.getNFiles(), "file", "files") + ", " +
                 readableBytes(static_cast<double>(content.getNBytes()));
    if (const auto& saves = removal.getSaves()) {
        lines << SxString("What its application has saved ") + (isWithSaves ? "goes, too: " : "stays: ") +
                     saves->path.makeVisible() + ", " + readableBytes(static_cast<double>(saves->nBytes)) +
                     (isWithSaves ? "" : "; --saves removes it, too");
    }
    if (content.getNForeign() > 0) {
        lines << ZqReadable::counted(content.getNForeign(), "file or folder that isn't the image's stays",
                                     "files or folders that aren't the image's stay") +
                     ", and so does the folder";
    }
    return lines;
}

/// A signal that wants the command to end is a no.
bool isYes() {
    const StopSignals signals;
    std::fputs("Remove it? [y/N] ", stderr);
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (!signals.isAsked() && ::poll(&input, 1, LOOK_MS) <= 0)
        continue;
    if (signals.isAsked()) {
        std::fputs("\n", stderr);
        return false;
    }
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

int remove(const RemoveOptions& options, Output& out) {
    ZqImageRemoval removal(options.image);
    const SxList<SxString> lines = describe(removal, options.isWithSaves);
    if (!options.isConfirmed) {
        if (::isatty(STDIN_FILENO) == 0) {
            Output::failure(
                "remove: nobody can be asked here whether the image may go; give --yes where it may");
            return ExitUsage;
        }
        // The question needs them, whatever the mode.
        for (const SxString& line : lines)
            std::fputs((line + ".\n").ascii(), stderr);
        if (!isYes()) {
            Output::failure("Nothing is removed");
            return ExitFailure;
        }
    } else {
        for (const SxString& line : lines)
            out.text(line + ".");
    }
    const ZqImageRemoval::Folder left = removal.remove(options.isWithSaves);
    const ZqImageContent& content = removal.getContent();
    if (out.getMode().json) {
        SxParserKit::SxSymbol result;
        result.setType(SxParserAst::Object);
        result.append("image", removal.getImage().validUtf8());
        result.append("files", content.getNFiles());
        result.append("bytes", content.getNBytes());
        result.append("left", content.getNForeign());
        result.append("folderGone", left == ZqImageRemoval::Gone);
        if (const auto& saves = removal.getSaves()) {
            result.append("saves", saves->path.validUtf8());
        } else {
            result.append("saves", SxParserAst::Null);
        }
        result.append("savesGone", options.isWithSaves && removal.getSaves().has_value());
        out.object(result);
    }
    if (left == ZqImageRemoval::InPlace)
        out.finding("The empty folder stays, since it can't be removed: it is the place of a file system");
    out.text("Removed.");
    return ExitSuccess;
}

} // namespace

void registerRemoveVerb(App* app) {
    static RemoveOptions options;
    app->verb("remove", "Remove an image from this machine", "tavrin remove games/alpha")
        .argument("IMAGE", &options.image, "Image folder; what others have put there stays")
        .flag("--saves", &options.isWithSaves, "What its application has saved goes, too")
        .flag("--yes", &options.isConfirmed, "Don't ask")
        .action([](Output& out) { return remove(options, out); });
}
