#pragma once

#include "ZqSysEnv.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

/// A test that needs DuckDB's library, which lies beside the built client.
class DuckDbTest : public testing::Test {
protected:
    void SetUp() override {
        const char* bin = std::getenv("TAVRIN_BIN");
        ASSERT_NE(bin, nullptr) << "TAVRIN_BIN must name the client";
        const std::filesystem::path folder = std::filesystem::path(bin).parent_path();
        if (!std::filesystem::exists(folder / "libduckdb.so"))
            GTEST_SKIP() << "scripts/fetch-duckdb.sh has fetched no library";
        ZqSysEnv::setRTERootDir(SxString(folder.string()));
    }
    void TearDown() override { ZqSysEnv::setRTERootDir(""); }
};
