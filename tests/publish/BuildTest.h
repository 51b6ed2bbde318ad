#pragma once

#include "../base/BaseTest.h"
#include "ZqImageBuild.h"

/// Builds the folder `source` of `dir`; gives the failure, empty for none.
inline std::string build(const TempDir& dir, const ZqImageBuild::Options& options = {},
                         const std::string& source = "source", const std::string& target = "image") {
    ZqImageBuild job(dir.path(target), dir.path(source), options);
    const std::string failure = failureOf(job);
    EXPECT_EQ(job.isComplete(), failure.empty());
    return failure;
}
