#include "ZqFleetFigures.h"

namespace {

/// Builds and orders go by digests, of which people compare the begin.
constexpr size_t DIGEST = 32, SHOWN = 8;

SxString known(const SxString& text, bool isShort) {
    if (text.isEmpty()) return "not known";
    if (!isShort) return text;
    const std::string_view all = text;
    const bool isDigest =
        all.size() == DIGEST && all.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
    return isDigest ? SxString(all.substr(0, SHOWN)) : text;
}

} // namespace

SxString ZqFleetFigures::nameOf(const ZqFleetGroup& group, bool isShort) const {
    switch (by) {
    case ZqFleetBy::BuildAndOrder:
        break;
    case ZqFleetBy::Build:
        return "build " + known(group.build, isShort);
    case ZqFleetBy::Order:
        return "order " + known(group.order, isShort);
    case ZqFleetBy::Link:
        return group.link.isEmpty() ? SxString("speed not known") : group.link;
    case ZqFleetBy::System:
        return group.system.isEmpty() ? SxString("system not known") : group.system;
    }
    return "build " + known(group.build, isShort) + ", order " + known(group.order, isShort);
}
