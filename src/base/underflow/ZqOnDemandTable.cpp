#include "ZqOnDemandTable.h"

#include "SxClock.h"
#include "SxException.h"
#include "ZqLog.h"

namespace {

constexpr const char* MAIN = "ZqCoreUnderflowMgr::main: ";
constexpr int64 ROW_MS = 60000;

} // namespace

void ZqOnDemandTable::open(const SxString& path) {
    nRowFetches = 0;
    const SxString name = path + "/onDemand.dat";
    try {
        if (startMs != NEVER) {
            file.open(name, "ab", 0600);
            return;
        }
        file.create(name, 0600);
        file.write(SxString::sprintf("#%10s %20s %20s %20s %20s\n", "minutes", "nOnDemandFetches",
                                     "nOnDemandBytes", "nOnDemandRate", "nOnDemandQueue"));
        startMs = SxClock::get().steadyMs();
        rowMs = NEVER;
    } catch (const SxException&) {
        close();
        zqLogMsg("base", MAIN + ("Cannot create " + name) + ".");
    }
}

void ZqOnDemandTable::update(const ZqRuntimeInfo& info) {
    const int64 nowMs = SxClock::get().steadyMs();
    if (rowMs != NEVER && nowMs - rowMs <= ROW_MS) return;
    rowMs = nowMs;
    using Number = unsigned long long;
    const SxString row = SxString::sprintf(
        " %10llu %20llu %20llu %20llu %20llu\n", static_cast<Number>((rowMs - startMs) / ROW_MS),
        static_cast<Number>(info.nOnDemandFetches), static_cast<Number>(info.sumOnDemandSize),
        static_cast<Number>((info.nOnDemandFetches - nRowFetches + 59) / 60),
        static_cast<Number>(info.avgOnDemandQueue));
    nRowFetches = info.nOnDemandFetches;
    if (!file.isOpen()) return;
    try {
        file.write(row);
    } catch (const SxException& e) {
        // A full disk must not keep the job from watching.
        zqLogMsg("base", MAIN + e.toString(SxException::ShowMessage, ": "));
        close();
    }
}
