#include "ZqRunWait.h"

#include "ZqFailurePolicy.h"
#include "ZqLog.h"

namespace {
constexpr const char* UNIT = "src/base/ZqRunWait";
}

SxException ZqRunWait::stopped() {
    return SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
}

void ZqRunWait::requireGoing() const {
    if (isStopping()) throw stopped();
}

void ZqRunWait::tell(const SxString& text) {
    const SxMutexBlock block(&mutex);
    if (line != text && !text.isEmpty()) zqLogMsg("base", "ZqRun: " + text);
    line = text;
}

SxString ZqRunWait::getLine() const {
    const SxMutexBlock block(&mutex);
    return line;
}

void ZqRunWait::patiently(const std::function<void()>& calls) {
    for (;;) {
        try {
            calls();
            tell("");
            return;
        } catch (const SxException& e) {
            if (isStopping() || ZqFailurePolicy::decide(e, true) != ZqFailurePolicy::Wait) throw;
            tell(ZqFailurePolicy::waitingLine(e));
        }
    }
}
