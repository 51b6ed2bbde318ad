#include "ClientTest.h"
#include "NetLab.h"

namespace {

using testing::ElementsAre;
using testing::Not;

string accept(const string&) {
    return "HTTP/1.1 200 OK\r\nContent-Length: 21\r\n\r\n{\"clientToken\":\"T 1\"}";
}

class StatsVerbs : public ClientTest {
protected:
    /// An image folder of which a run has left that record.
    string played(const string& record) const {
        dir.write("image/runs/2026-11-27T10-00-00Z-00000001.json", record);
        return dir.path("image");
    }
    string record() const { return dir.read("image/runs/2026-11-27T10-00-00Z-00000001.json"); }
};

} // namespace

TEST_F(StatsVerbs, HardwareIsShownWithoutAServiceToo) {
    const string noService = "TAVRIN_ZQDD='" + dir.path("none") + "' \"$@\"";
    const Outcome shown = runScript(noService, {"stats", "hardware"});
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_EQ(shown.err, "");
    for (const char* line :
         {"System        ", "\nProcessor     ", "\nMemory        ", "\nScreen        ", "\nDrive         ",
          "\nService       tells no version: Cannot get TAVRIN driver version: "})
        EXPECT_THAT(shown.out, HasSubstr(line));
    const Outcome result = runScript(noService, {"stats", "hardware", "--json"});
    EXPECT_EQ(result.code, 0) << result.err;
    const auto root = parseJson(result.out);
    EXPECT_EQ(root.getElem("versions").getElem("drive").toString(), "");
    EXPECT_THAT(root.getElem("versionFailure").toString().str(), HasSubstr(dir.path("none")));
    EXPECT_GT(root.getElem("ramTotal").toInt(), 0);
    EXPECT_GT(root.getElem("processors").getSize(), 0);
    EXPECT_GT(root.getElem("drives").getSize(), 0);

    const Outcome served = run({"stats", "hardware", "--json"});
    EXPECT_EQ(served.code, 0) << served.err;
    EXPECT_EQ(parseJson(served.out).getElem("versionFailure").toString(), "");
    EXPECT_EQ(parseJson(served.out).getElem("versions").getElem("drive").toString(), "3.4.10");
    EXPECT_EQ(parseJson(served.out).getElem("versions").getElem("guard").toString(), "3.4.10");
}

TEST_F(StatsVerbs, AReportSentByHandHasTheLastRunAndItsTokenIsNoted) {
    const ScriptedServer service(accept);
    const string image = played(R"({"version": 2, "id": "00000001-A", "runTime": 7, "exitCode": 3})");
    const Words upload = {"stats", "upload", image, "--url", service.url("{{ID}}/{{TOKEN}}")};
    const Outcome shown = run(upload, {"--update", "--dry-run"});
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_EQ(parseJson(shown.out).getElem("rt").getElem("exit").toInt(), 3);
    EXPECT_TRUE(service.requests().empty()) << "nothing is sent by that";
    EXPECT_THAT(run(upload, {"--update"}).err, HasSubstr("needs {{TOKEN}}"));

    EXPECT_EQ(run(upload, {"--section", "env"}).code, 0);
    EXPECT_THAT(record(), HasSubstr("\"clientToken\": \"T 1\""));
    EXPECT_EQ(run(upload, {"--update", "--header", "X-Run: {{ID}}"}).code, 0);
    const std::vector<string> told = service.requests();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_THAT(told[0], testing::AllOf(StartsWith("POST /00000001-A/ "), HasSubstr("\"cpus\""),
                                        Not(HasSubstr("\"hostId\""))));
    EXPECT_THAT(told[1],
                testing::AllOf(StartsWith("PATCH /00000001-A/T%201 "), HasSubstr("X-Run: 00000001-A\r\n"),
                               HasSubstr(R"("rt":{"tStartSec":0,"tTotalSec":7,"exit":3})")));
}

TEST_F(StatsVerbs, WithoutARecordRuntimeJsonServesAndElseNothing) {
    dir.write("old/runtime.json", R"({"version": 2, "runTime": 9})");
    const Words dry = {"--url", "http://127.0.0.1:1/", "--update", "--dry-run"};
    EXPECT_EQ(parseJson(run({"stats", "upload", dir.path("old")}, dry).out)
                  .getElem("rt")
                  .getElem("tTotalSec")
                  .toInt(),
              9);
    dir.write("empty/app.json", "");
    EXPECT_EQ(parseJson(run({"stats", "upload", dir.path("empty")}, dry).out).toJson(), R"({"orgName":""})");
    const Outcome failed = run({"stats", "upload", dir.path("old"), "--url", "http://127.0.0.1:1/"});
    EXPECT_EQ(failed.code, 1);
    EXPECT_THAT(failed.err, testing::AllOf(StartsWith("tavrin: Failed to upload runtime data.\n"),
                                           HasSubstr("Connection refused")));
}

TEST_F(StatsVerbs, WhatCannotBeSentIsSaidAndADamagedRecordIsNamed) {
    const string image = played("{\"version\": 2, \"runTi");
    const Outcome shown = run({"stats", "show", image});
    EXPECT_EQ(shown.code, 1);
    EXPECT_THAT(shown.err,
                HasSubstr("Failed to read file " + image + "/runs/2026-11-27T10-00-00Z-00000001.json"));
    const std::pair<Words, std::pair<int, string>> cases[] = {
        {{"--url", "http://127.0.0.1:1/", "--section", "all"}, {2, "env|apps|host|rt|dl|odr|trc|prep"}},
        {{"--url", "http://127.0.0.1:1/", "--header", "A: b\r\nC: d"}, {2, "--header needs a line"}},
        {{"--url", "http://{{TOKEN}}/"}, {1, "The address isn't valid"}},
        {{"--url", "file:///etc/passwd"}, {1, "must begin with http:// or https://"}},
        {{}, {2, "--url is required"}},
    };
    for (const auto& [words, expected] : cases) {
        const Outcome refused = run({"stats", "upload", image}, words);
        EXPECT_EQ(refused.code, expected.first) << refused.err;
        EXPECT_THAT(refused.err, HasSubstr(expected.second));
    }
}
