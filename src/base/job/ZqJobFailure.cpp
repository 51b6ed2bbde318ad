#include "ZqJobFailure.h"

#include "SxEventBus.h"
#include "SxSystemThread.h"
#include "ZqLog.h"

void ZqJobFailure::report(SxSystemThread* job, const SxString& prefix, const SxString& path,
                          const SxException& e, const SxString& unit, int line) {
    job->keepFailure(e);
    const SxString text = e.toString(3, "\n");
    zqLogMsg("base", prefix + text);
    SxEventBus::pub<SX_APP_ERROR, SxString, SxString>(path, text, SxEventBus::location(unit, line, "main"),
                                                      "APP_ERROR");
}
