#include "ZqJobFailure.h"

#include "SxEventBus.h"
#include "SxSystemThread.h"
#include "ZqLog.h"

void ZqJobFailure::report(SxSystemThread* job, const SxString& prefix, const SxString& path,
                          const SxException& e, const SxString& unit, int line) {
    zqLogMsg("base", prefix + e.toString(3, "\n"));
    publish(job, path, e, unit, line);
}

void ZqJobFailure::publish(SxSystemThread* job, const SxString& path, const SxException& e,
                           const SxString& unit, int line) {
    job->keepFailure(e);
    const SxString text = e.toString(3, "\n");
    SxEventBus::pub<SX_APP_ERROR, SxString, SxString>(path, text, SxEventBus::location(unit, line, "main"),
                                                      "APP_ERROR");
}
