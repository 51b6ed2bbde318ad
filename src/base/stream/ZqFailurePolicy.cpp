#include "ZqFailurePolicy.h"

#include "ZqNetLink.h"
#include "ZqVolume.h"

#include <algorithm>
#include <array>

namespace {

bool hasAny(const SxException& why, std::initializer_list<const char*> tags) {
    return std::any_of(tags.begin(), tags.end(), [&](const char* tag) { return why.hasTag(tag); });
}

/// The level that says what happened: the one that carries a tag, else the innermost.
const SxException& originOf(const SxException& why) {
    const SxException* level = &why;
    while (level->getTag().isEmpty() && level->getCause())
        level = level->getCause();
    return *level;
}

} // namespace

ZqFailurePolicy::Verdict ZqFailurePolicy::decide(const SxException& why, bool hasDrive) {
    // Silence is no failure: the service may be stopped, or its machine be busy or asleep. One that is there
    // answers at some time, and its end is noticed by whoever looks after the drive.
    if (why.hasTag(ZqVolume::SILENT)) return Wait;
    if (why.hasTag(OTHER_VERSION)) return End;
    const bool isOfFiles = hasAny(why, {ZqNetLink::CHANGED, ZqNetLink::NOT_FOUND, ZqNetLink::WRONG});
    const bool isOfServer = hasAny(why, {ZqNetLink::REFUSED, ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN});
    if (!hasDrive) return End;
    if (isOfFiles) return Restart;
    return isOfServer || why.hasTag(DISK) ? Wait : End;
}

SxString ZqFailurePolicy::waitingLine(const SxException& why) {
    const SxString text = originOf(why).getMessage();
    if (why.hasTag(ZqVolume::SILENT)) return "waiting for the drive service: " + text;
    if (why.hasTag(DISK)) return "waiting for the disk: " + text;
    return "waiting for the server: " + text;
}
