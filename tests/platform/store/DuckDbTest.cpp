#include "DuckDbHere.h"
#include "Failure.h"
#include "TempDir.h"
#include "ZqDuckDb.h"

#include <atomic>
#include <gmock/gmock.h>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;

namespace {

ZqDuckDb::Settings settingsIn(const TempDir& dir) {
    ZqDuckDb::Settings settings;
    dir.write("scratch/here", "");
    settings.scratch = SxString(dir.path("scratch"));
    settings.file = settings.scratch + "/a.duckdb";
    return settings;
}

} // namespace

TEST_F(DuckDbTest, ReachesNoFileThatWasNotNamed) {
    const TempDir dir;
    const std::string secret = dir.write("secret.csv", "a\n1\n");
    ZqDuckDb database(settingsIn(dir));
    const std::string file = "'" + secret + "'";
    const std::string other = "'" + dir.path("new") + "'";
    for (const std::string& statement : std::initializer_list<std::string>{
             "SELECT * FROM read_csv(" + file + ")", "SELECT * FROM " + file,
             "SELECT * FROM read_text(" + file + ")", "SELECT * FROM glob('/*')",
             "COPY (SELECT 1) TO " + other, "ATTACH " + other, "EXPORT DATABASE " + other,
             "SELECT * FROM 'https://127.0.0.1/a.parquet'", "INSTALL httpfs", "LOAD httpfs",
             "SET enable_external_access = true", "SET allowed_directories = ['/']",
             "SET allowed_paths = [" + file + "]", "SET temp_directory = " + other,
             "RESET lock_configuration"}) {
        EXPECT_NE(failureOf([&] { database.run(SxString(statement)); }), "") << statement;
    }
    EXPECT_FALSE(dir.exists("new"));
    // One statement at a time.
    EXPECT_THAT(failureOf([&] { database.run("SELECT 1; SELECT 2"); }), HasSubstr("multiple statements"));
    database.run("COPY (SELECT 1 AS a) TO '" + SxString(dir.path("scratch/a.parquet")) +
                 "' (FORMAT parquet)");
    EXPECT_TRUE(dir.exists("scratch/a.parquet"));
}

TEST_F(DuckDbTest, KeepsWhatItIsGiven) {
    const TempDir dir;
    const std::string hostile = std::string("'); DROP TABLE t; --") + '\0' + "\"\n\xF0\x9F\x98\x80";
    const std::string longText(1024, 'x');
    {
        ZqDuckDb database(settingsIn(dir));
        database.run("CREATE TABLE t (a VARCHAR, b BIGINT, c DOUBLE, d BOOLEAN)");
        ZqDuckDb::Appender rows(
            &database, "t",
            {{"a", ZqColumn::Text}, {"b", ZqColumn::Whole}, {"c", ZqColumn::Real}, {"d", ZqColumn::Flag}});
        ZqDuckDb::Appender lost(
            &database, "t",
            {{"a", ZqColumn::Text}, {"b", ZqColumn::Whole}, {"c", ZqColumn::Real}, {"d", ZqColumn::Flag}});
        rows.add({{true, 0, 0, hostile}, {true, INT64_MAX, 0, {}}, {true, 0, 0.1, {}}, {true, 1, 0, {}}});
        // Beyond a chunk, with none where there was a value before.
        for (int64 i = 0; i < 5000; ++i)
            rows.add({{i % 2 == 0, 0, 0, longText}, {i % 3 == 0, i, 0, {}}, {}, {}});
        lost.add({{}, {}, {}, {}});
        rows.finish();
    }
    ZqDuckDb database(settingsIn(dir));
    const auto first = database.query("SELECT * FROM t WHERE a = $1", {SxString(hostile)});
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0][0].text.str(), hostile);
    EXPECT_EQ(first[0][1].whole, INT64_MAX);
    EXPECT_EQ(first[0][2].real, 0.1);
    EXPECT_EQ(first[0][3].whole, 1);
    const auto counts = database.query("SELECT count(*), count(a), count(b), count(c), sum(b)::BIGINT, "
                                       "max(length(a)) FROM t WHERE b IS DISTINCT FROM 9223372036854775807");
    ASSERT_EQ(counts.size(), 1u);
    const int64 expected[] = {5000, 2500, 1667, 0, 1667 * 2499, 1024};
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(counts[0][i].whole, expected[i]) << i;
    EXPECT_EQ(database.query("SELECT b FROM t").size(), 5001u);
}

TEST_F(DuckDbTest, RefusesWhatIsNoDatabase) {
    const TempDir dir;
    ZqDuckDb::Settings settings = settingsIn(dir);
    settings.other =
        SxString(dir.write("other", "no database, but of some length: " + std::string(9000, 'x')));
    EXPECT_THAT(
        failureOf([&] { ZqDuckDb database(settings); }),
        AllOf(HasSubstr("Database '" + dir.path("other") + "' can't be opened"), HasSubstr("not a valid")));
    EXPECT_EQ(dir.read("other").size(), 9033u);
}

TEST_F(DuckDbTest, AStopEndsAStatement) {
    const TempDir dir;
    ZqDuckDb database(settingsIn(dir));
    std::atomic<bool> isDone = false;
    std::thread stopper([&] {
        while (!isDone)
            database.stop();
    });
    const SxException failure = exceptionOf([&] {
        database.run("SELECT count(*) FROM range(1000000) a, range(1000000) b WHERE a.range < b.range");
    });
    isDone = true;
    stopper.join();
    EXPECT_TRUE(failure.hasTag(SxException::STOPPED)) << failure.what();
    EXPECT_TRUE(exceptionOf([&] { database.run("SELECT 1"); }).hasTag(SxException::STOPPED));
}

TEST_F(DuckDbTest, SaysWhatIsMissing) {
    const TempDir dir;
    ZqSysEnv::setRTERootDir(SxString(dir.path("tools")));
    const auto open = [&] { ZqDuckDb database(settingsIn(dir)); };
    EXPECT_THAT(failureOf(open),
                AllOf(HasSubstr("Statistics of a fleet need DuckDB's library, which can't be loaded: '" +
                                dir.path("tools/libduckdb.so") + "' isn't there; scripts/fetch-duckdb.sh")));
    dir.write("tools/libduckdb.so", "no library");
    EXPECT_THAT(failureOf(open), HasSubstr("which can't be loaded: "));
}
