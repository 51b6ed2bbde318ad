#include "OrderText.h"

#include <tavrin/ZqReadable.h>

namespace {

SxString counted(uint64 n, const char* one, const char* several) {
    return ZqReadable::counted(static_cast<int64>(n), one, several);
}

} // namespace

SxString basisText(const ZqOrderBasis& order) {
    const uint64 nRead = order.nCore + order.nTail;
    const double share =
        nRead > 0 ? 100. * static_cast<double>(order.nCore) / static_cast<double>(nRead) : 0.;
    SxString text = "The order comes from " + counted(order.nRuns, "run", "runs") + " of " +
                    counted(order.nSessions, "session", "sessions");
    if (order.nTail > 0) {
        text += SxString::sprintf("; %.0f %% of what they read is the core, ", share) + "the rest lies in " +
                counted(order.nGroups, "group", "groups");
    }
    return text + ".";
}

void appendOrder(SxParserKit::SxSymbol* result, const std::optional<ZqOrderBasis>& order) {
    if (!order) {
        result->append("order", SxParserAst::Null);
        return;
    }
    SxParserKit::SxSymbol object = result->append("order", SxParserAst::Object);
    order->append(&object);
}

void tellLeft(const std::vector<ZqLeftTrace>& left, Output* out) {
    for (const ZqLeftTrace& one : left)
        out->text("Left out: '" + one.trace + "' " + one.why);
}

void appendLeft(SxParserKit::SxSymbol* result, const std::vector<ZqLeftTrace>& left) {
    if (left.empty()) return;
    SxParserKit::SxSymbol list = result->append("leftOut", SxParserAst::Array);
    for (const ZqLeftTrace& one : left) {
        SxParserKit::SxSymbol each = list.append(SxParserAst::Object);
        each.append("name", one.trace.validUtf8());
        each.append("why", one.why.validUtf8());
    }
}
