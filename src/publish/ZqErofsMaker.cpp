#include "ZqErofsMaker.h"

#include "ZqErofsWalk.h"

void ZqErofsMaker::format(const Job& job) const {
    mkfs.run({"--quiet", "-x-1", SxString("-T") + TIME, SxString("-U") + UUID, "--all-root",
              "-Enoinline_data", job.raw, job.tree},
             {}, job.scratch + "mkfs.log", *job.monitor, job.look);
}

void ZqErofsMaker::survey(const Job& job, Drive* drive) const {
    ZqRawReader raw(job.raw);
    ZqErofsWalk walk(&raw);
    followFiles(job, &walk, drive);
}
