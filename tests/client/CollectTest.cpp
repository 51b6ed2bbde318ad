#include "DuckDbHere.h"
#include "SxJSONParser.h"
#include "SxProcess.h"
#include "TempDir.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class CollectTest : public DuckDbTest {
protected:
    /// Runs the client in the test's folder, and gives its exit code.
    int run(const std::string& arguments) {
        const std::string line = "cd '" + dir.path() + "' && '" + std::getenv("TAVRIN_BIN") +
                                 "' stats collect " + arguments + " >out 2>err";
        ::setenv("XDG_STATE_HOME", dir.path("state").c_str(), 1);
        const int code = SxProcess("/bin/sh", {"-c", SxString(line)}).run();
        out = dir.read("out");
        err = dir.read("err");
        return code;
    }

    const TempDir dir;
    std::string out, err;
};

} // namespace

TEST_F(CollectTest, TellsWhatWasFoundAndWhatWasNotTaken) {
    dir.write("in/a.jsonl", R"({"id":"A","build":"b\u001b[31m\u202e","startMs":1500,"exitCode":1})"
                            "\n{\"id\":\n");
    EXPECT_EQ(run("in --page page.html"), 0);
    EXPECT_THAT(out, AllOf(StartsWith("1 run, of 1 record in 1 file"), HasSubstr("Time to start"),
                           HasSubstr("build b\\x1b[31m"), HasSubstr("1.50 s"), HasSubstr("100.0 %")));
    EXPECT_THAT(err, AllOf(StartsWith(
                         "tavrin: 1 record was not taken:\ntavrin: 'in/a.jsonl', line 2: it isn't JSON")));
    EXPECT_THAT(dir.read("page.html"), AllOf(StartsWith("<!DOCTYPE html>"), HasSubstr("build b\\x1b[31m")));

    EXPECT_EQ(run("in --json --quiet --by build"), 0);
    SxJSONParser parser;
    parser.readString(SxString(out), "output");
    const SxParserKit::SxSymbol group = parser.getRootSymbol();
    EXPECT_EQ(group.getElem("runs").toInt(), 1);
    EXPECT_EQ(group.getElem("startMs").getElem("p99").toInt(), 1500);
    EXPECT_EQ(group.getElem("exits").getElem("nonZero").toInt(), 1);
}

TEST_F(CollectTest, FailsWhereItCannotCount) {
    dir.write("in/a.json", "[]");
    EXPECT_EQ(run("in --page page.html --store store"), 1);
    EXPECT_EQ(out, "");
    EXPECT_THAT(err, AllOf(HasSubstr("'in/a.json': it isn't an object"),
                           HasSubstr("tavrin: No record of a run could be read")));
    EXPECT_FALSE(dir.exists("page.html"));
    EXPECT_FALSE(dir.exists("store"));
    EXPECT_EQ(run("in --page in/a.json"), 1);
    EXPECT_THAT(err, HasSubstr("can't be written, since it is one of the files to read"));
    EXPECT_EQ(run("in --page same --store ./same"), 1);
    EXPECT_THAT(err, HasSubstr("can't be the same file"));
    EXPECT_EQ(run("in --by age"), 2);
    EXPECT_EQ(run(""), 2);
}
