#include "NetLab.h"
#include "ScriptedDriver.h"
#include "StatsHome.h"
#include "ZqStatsReporter.h"
#include "ZqSysEnv.h"

// Which versions a first report has, and whom it asks for them.
TEST(StatsVersions, AreThoseOfTheLibraryAndOfAServiceThatIsThere) {
    struct Case {
        bool hasStarted, answers;
        const char* versions;
    };
    for (const Case& c : {Case{true, true, R"("zqddVer":"2.7","zqfmVer":"2.7"})"},
                          Case{true, false, R"("zqddVer":"","zqfmVer":""})"},
                          Case{false, true, R"("zqddVer":"","zqfmVer":""})"}}) {
        SCOPED_TRACE(c.versions);
        const StatsHome home;
        const ScriptedServer server(
            [](const std::string&) { return "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"; });
        ScriptedDriver driver(home.dir.path("volume"));
        driver.version = "2.7";
        if (!c.answers) driver.fail("DriveGetVersion");
        ZqStatsWish wish;
        wish.url = SxString(server.url());
        ZqStatsReporter reporter;
        reporter.open(wish, "APP");
        ZqRuntimeInfo info;
        if (c.hasStarted) {
            reporter.applicationStarts(info);
        } else {
            reporter.hasFailed(info);
        }
        reporter.end(info, [] { return false; });
        EXPECT_EQ(reporter.getFailure(), "");
        ASSERT_EQ(server.requests().size(), 1U);
        EXPECT_THAT(server.requests()[0],
                    HasSubstr("\"rteVer\":\"" + ZqSysEnv::getRTEVersion().str() + " 3.4.10\","));
        EXPECT_THAT(server.requests()[0], testing::EndsWith(c.versions));
        EXPECT_EQ(driver.nCalls > 0, c.hasStarted);
    }
}
