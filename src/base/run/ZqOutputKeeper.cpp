#include "ZqOutputKeeper.h"

#include "SxTime.h"
#include "ZqGameOutput.h"
#include "ZqLog.h"

namespace {
/// From one look at the file to the next.
constexpr int64 LOOK_MS = 50;
} // namespace

ZqOutputKeeper::ZqOutputKeeper(const std::shared_ptr<ZqGameOutput>& output)
    : work(std::make_shared<Work>()),
      job("output", [output, shared = work] {
          output->tidy();
          while (shared->state == Running) {
              output->trim();
              SxTime::msleep(LOOK_MS);
          }
          if (shared->state == Left) return;
          shared->lastLines = output->getLastLines();
          output->end();
      }) {
}

ZqOutputKeeper::~ZqOutputKeeper() {
    State running = Running;
    work->state.compare_exchange_strong(running, Left);
}

SxList<SxString> ZqOutputKeeper::finish() const {
    if (work->state != Ended) return {};
    if (job.endsWithin(LIMIT_MS)) return work->lastLines;
    zqLogMsg("base", "ZqOutputKeeper: the disk is slow; the next run puts what the application has said in "
                     "order");
    return {};
}
