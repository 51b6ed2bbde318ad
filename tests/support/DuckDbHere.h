#pragma once

#include "Instrumented.h"
#include "ZqSysEnv.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

/// A test that needs DuckDB's library, which lies beside the built client.
class DuckDbTest : public testing::Test {
protected:
    void SetUp() override {
        const char* bin = std::getenv("TAVRIN_BIN");
        if (IS_THREAD_INSTRUMENTED)
            GTEST_SKIP() << "ThreadSanitizer sees only half of how the library's threads keep apart";
        ASSERT_NE(bin, nullptr) << "TAVRIN_BIN must name the client";
        const std::filesystem::path folder = std::filesystem::path(bin).parent_path();
        if (!std::filesystem::exists(folder / "libduckdb.so"))
            GTEST_SKIP() << "scripts/fetch-duckdb.sh has fetched no library";
        ZqSysEnv::setRTERootDir(SxString(folder.string()));
    }
    void TearDown() override { ZqSysEnv::setRTERootDir(""); }
};
