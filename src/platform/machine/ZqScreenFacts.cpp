#include "ZqScreenFacts.h"

#include "SxException.h"
#include "SxLooseJob.h"
#include "SxTime.h"
#include "ZqDesktop.h"
#include "ZqFactFiles.h"

#include <atomic>
#include <memory>

namespace {

/// Whether a display is being asked.
std::atomic<bool> isAsking{false};

/// Asks on a thread of its own, since nothing ends a question to a display that has stopped.
ZqDesktop::Size askDesktop() {
    if (!SxWait::pass(ZqScreenFacts::LIMIT_MS, [] { return !isAsking.exchange(true); })) return {};
    const auto size = std::make_shared<ZqDesktop::Size>();
    try {
        const SxLooseJob job("screen", [size, desktop = &ZqDesktop::get()] {
            *size = desktop->getScreenSize();
            isAsking = false;
        });
        return job.endsWithin(ZqScreenFacts::LIMIT_MS) ? *size : ZqDesktop::Size{};
    } catch (const SxException&) {
        // No thread to be had: then the display isn't asked.
        isAsking = false;
        return {};
    }
}

SxString toText(int64 width, int64 height) {
    return SxString(width) + " x " + SxString(height);
}

/// The mode that a connector prefers, such as "1920x1080i"; empty where it has none.
SxString modeOf(const ZqFactFiles& files, const std::string& folder) {
    const std::string mode = files.line(folder + "modes");
    const size_t x = mode.find('x');
    if (x == std::string::npos) return SxString();
    const size_t end = mode.find_first_not_of("0123456789", x + 1);
    const auto width = ZqFactFiles::toNumber(mode.substr(0, x));
    const auto height =
        ZqFactFiles::toNumber(mode.substr(x + 1, end == std::string::npos ? end : end - x - 1));
    return width && height ? toText(*width, *height) : SxString();
}

} // namespace

SxString ZqScreenFacts::read(const SxString& root) {
    const ZqDesktop::Size size = askDesktop();
    if (size.width > 0 && size.height > 0) return toText(size.width, size.height);
    const ZqFactFiles files(root);
    const std::string all = "sys/class/drm/";
    SxString dark;
    for (const std::string& name : files.names(all)) {
        const std::string folder = all + name + "/";
        if (!name.starts_with("card") || files.line(folder + "status") != "connected") continue;
        SxString mode = modeOf(files, folder);
        if (mode.isEmpty()) continue;
        if (files.line(folder + "enabled") == "enabled") return mode;
        if (dark.isEmpty()) dark = mode;
    }
    // A screen that is off at the moment is still the machine's.
    return dark.isEmpty() ? SxString("Unknown") : dark;
}
