#include "BaseTest.h"
#include "NetLab.h"
#include "ScriptedNetio.h"
#include "SxJSONParser.h"
#include "ZqHttpLimits.h"
#include "ZqLog.h"
#include "ZqReportSections.h"
#include "ZqReportUpload.h"
#include "ZqRuntimeInfo.h"

#include <limits>

using testing::Not;

namespace {

const SxList<SxString>& ALL = ZqReportSections::all();

std::string answer(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// A record in which each field has another value.
ZqRuntimeInfo fullRecord() {
    ZqRuntimeInfo info;
    info.id = "THE-ID";
    info.path = "E:/games/one";
    info.orgName = "Lab \"1\"";
    info.rteVer = "9 3.4.10";
    info.zqddVer = "1.1";
    info.zqfmVer = "1.2";
    info.ramTotal = 7977;
    info.cpuNames = {"A", "B"};
    info.cpuCores = {4, 8};
    info.gpuNames = {"G"};
    info.gpuDrivers = {"5.1"};
    info.gpuRam = {4294967296};
    info.driveNames = {"sda1", "nfs"};
    info.driveTypes = {3, 4};
    info.driveSizes = {1000, 0};
    info.driveFree = {400, 0};
    info.winVer = "Lab OS 1";
    info.resolution = "1920 x 1080";
    info.hostId = "0123";
    info.appsAtStart << SxString("x") << SxString("y");
    info.timeToStart = 11;
    info.runTime = 3600;
    info.exitCode = -3;
    info.avgSpeed = 93.7;
    info.sigmaSpeed = 0.25;
    info.maxSpeed = 100;
    info.reqSpeed = 50.5;
    info.preloadSize = 9007199254740993;
    info.timeToReady = 12;
    info.downloadFromZero = true;
    info.dataAtStart = 1;
    info.dataAtEnd = 2;
    info.imageSize = 3;
    info.nOnDemandFetches = 21;
    info.maxOnDemandTime = 1500;
    info.avgOnDemandTime = 2;
    info.avgOnDemandSize = 204800;
    info.avgOnDemandQueue = 4;
    info.maxOnDemandQueue = 5;
    info.nUnderflows = 6;
    info.coverage = 0.625;
    info.patchStats.timeSec = 7;
    return info;
}

std::string reportOf(const ZqRuntimeInfo& info, const SxList<SxString>& sections, bool update) {
    return info.toReport(sections, update).toJson().str();
}

struct Sent {
    std::string failure, log, notes;
    SxString token;
};

/// Uploads to a service that answers so.
Sent sendTo(const std::string& response, bool update, const ZqHttpLimits& limits = {}) {
    ScriptedNetio net;
    Sent sent;
    ZqLog::setSink(
        [&](const SxString& tag, const SxString& text) { sent.log += (tag + ": " + text + "\n").str(); });
    const ScriptedServer server([&](const std::string&) { return response; });
    ZqRuntimeInfo info;
    info.clientToken = "former";
    sent.failure = failureOf([&] { info.upload(SxString(server.url()), {}, ALL, update, limits); });
    sent.token = info.clientToken;
    for (const std::string& note : net.notes)
        sent.notes += note + ";";
    ZqLog::setSink({});
    return sent;
}

} // namespace

TEST(Report, TheFirstReportHasTheMachine) {
    EXPECT_EQ(reportOf(fullRecord(), ALL, false),
              R"({"id":"THE-ID","orgName":"Lab \"1\"","rteVer":"9 3.4.10","zqddVer":"1.1","zqfmVer":"1.2",)"
              R"("env":{"ramBytes":7977,"cpus":[{"cpu":"A","nCores":4},{"cpu":"B","nCores":8}],)"
              R"("gpus":[{"gpu":"G","driverVer":"5.1","vramBytes":4294967296}],"hostingDrive":"E",)"
              R"("drives":[{"drive":"sda1","driveType":3,"capacityBytes":1000,"usageBytes":600},)"
              R"({"drive":"nfs","driveType":4,"capacityBytes":0,"usageBytes":0}],)"
              R"("winVer":"Lab OS 1","resolution":"1920 x 1080"},"apps":{"appsAtStart":["x","y"]},)"
              R"("host":{"hostId":"0123"}})");
}

TEST(Report, ALaterReportHasTheRun) {
    EXPECT_EQ(
        reportOf(fullRecord(), ALL, true),
        R"({"orgName":"Lab \"1\"","apps":{"appsAtStart":["x","y"]},)"
        R"("rt":{"tStartSec":11,"tTotalSec":3600,"exit":-3},)"
        R"("dl":{"throughputAvgBps":93700000.0,"throughputSigmaBps":250000.0,"throughputMaxBps":1e+08,)"
        R"("throughputReqBps":50500000.0,"preloadBytes":9007199254740993,"tReadySec":12,"initialDl":true,)"
        R"("dlFinished":false,"idx0":1,"idx1":2,"imgSize":3},)"
        R"("odr":{"n":21,"tMaxSec":1.5,"tAvgSec":0.002,"sizeAvgBytes":204800,"sizeAvgQ":4,"sizeMaxQ":5,)"
        R"("nFailed":6},"trc":{"cov":0.625},"prep":{"tPatchSec":7,"tDefragSec":0}})");
}

TEST(Report, ConditionsDecideWhatIsThere) {
    ZqRuntimeInfo info;
    info.id = "I";
    info.startErr = info.endErr = true;
    const std::string first =
        R"({"id":"I","orgName":"","startErr":true,"rteVer":"","zqddVer":"","zqfmVer":"")";
    EXPECT_EQ(reportOf(info, {}, false), first + "}");
    EXPECT_EQ(reportOf(info, {"apps", "rt", "dl", "none"}, false), first + R"(,"apps":{}})");
    EXPECT_EQ(reportOf(info, ALL, true), R"({"orgName":"","endErr":true,"apps":{}})");
    EXPECT_EQ(reportOf(fullRecord(), {"trc"}, true), R"({"orgName":"Lab \"1\"","trc":{"cov":0.625}})");
    ZqRuntimeInfo defragmented;
    defragmented.defragStats.timeSec = 3;
    EXPECT_EQ(reportOf(defragmented, {"prep"}, true),
              R"({"orgName":"","prep":{"tPatchSec":0,"tDefragSec":3}})");
}

TEST(Report, ListsOfDifferentLengthsForeignTextsAndGreatNumbers) {
    ZqRuntimeInfo info;
    info.cpuNames = {std::string("a\x80\"\n", 4), std::string("b\0c", 3)};
    info.cpuCores = {1};
    info.gpuNames = {"g"};
    info.driveNames = {"full", "unknown", "strange"};
    info.driveSizes = {std::numeric_limits<uint64>::max(), 5, 7};
    info.driveFree = {0};
    const SxParserKit::SxSymbol env = info.toReport({"env"}, false).getElem("env");
    EXPECT_EQ(env.getElem("cpus").toJson(), R"([{"cpu":"a�\"\n","nCores":1},{"cpu":"b�c","nCores":0}])");
    EXPECT_EQ(env.getElem("gpus").toJson(), R"([{"gpu":"g","driverVer":"","vramBytes":0}])");
    EXPECT_EQ(
        env.getElem("drives").toJson(),
        R"([{"drive":"full","driveType":0,"capacityBytes":18446744073709551615,"usageBytes":18446744073709551615},)"
        R"({"drive":"unknown","driveType":0,"capacityBytes":5,"usageBytes":0},)"
        R"({"drive":"strange","driveType":0,"capacityBytes":7,"usageBytes":0}])");
    info.driveFree = {0, 6, 7};
    EXPECT_EQ(
        info.toReport({"env"}, false).getElem("env").getElem("drives").at(1).getElem("usageBytes").toInt(),
        0);
}

TEST(Report, AHostPathIsNeverSent) {
    ZqRuntimeInfo info;
    for (const char* path :
         {"/home/somebody/a:b/game", "/home/somebody/game", "1:/somebody", "somebody:/x"}) {
        info.path = path;
        EXPECT_THAT(reportOf(info, ALL, false), Not(HasSubstr("somebody"))) << path;
    }
}

TEST(Upload, PostAndPatchAreJoinedByTheToken) {
    ScriptedNetio net;
    const ScriptedServer server([](const std::string& request) {
        return answer("200 OK", request.starts_with("POST") ? R"({"ok":1,"clientToken":"T1"})" : "no JSON");
    });
    ZqRuntimeInfo info = fullRecord();
    SxMap<SxString, SxString> headers;
    headers("X-Key") = "k";
    EXPECT_EQ(info.upload(SxString(server.url("runs")), headers, ALL, false), "T1");
    headers("X-Token") = info.clientToken;
    EXPECT_EQ(info.upload(SxString(server.url("runs/T1")), headers, ALL, true), "T1");
    const std::vector<std::string> seen = server.requests();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_THAT(seen[0], AllOf(StartsWith("POST /runs "), HasSubstr("\r\nX-Key: k\r\n"),
                               testing::EndsWith("\r\n\r\n" + reportOf(info, ALL, false))));
    EXPECT_THAT(seen[1], AllOf(StartsWith("PATCH /runs/T1 "), HasSubstr("\r\nX-Token: T1\r\n"),
                               testing::EndsWith("\r\n\r\n" + reportOf(info, ALL, true))));
    EXPECT_THAT(net.notes, ElementsAre("start 1", "stop", "start 1", "stop"));
}

TEST(Upload, WhatAServiceMayAnswer) {
    const std::string failed = "Failed to upload runtime data.: ";
    ZqHttpLimits limits;
    limits.totalMs = 300;
    struct Case {
        bool update;
        std::string response, failure;
        const char* token;
    };
    const Case cases[] = {
        {false, answer("200 OK", R"({"clientToken":"new"})"), "", "new"},
        {false, answer("200 OK", R"({"clientToken":""})"), "", ""},
        {false, answer("200 OK", "{}"), "", "former"},
        {false, answer("200 OK", "[\"clientToken\"]"), "", "former"},
        {true, answer("200 OK", R"({"clientToken":"new"})"), "", "former"},
        {true, answer("200 OK", ""), "", "former"},
        {false, answer("201 Created", R"({"clientToken":"new"})"), "request failed", "former"},
        {true, answer("204 No Content", ""), "request failed", "former"},
        {false, answer("302 Found", ""), "request failed", "former"},
        {false, answer("500 Oh no", ""), "request failed", "former"},
        {false, answer("200 OK", ""), "The service's answer isn't JSON", "former"},
        {false, answer("200 OK", R"({"clientToken":"new"} x)"), "The service's answer isn't JSON", "former"},
        {false, answer("200 OK", R"({"clientToken":7})"), "The service's 'clientToken' isn't a text",
         "former"},
        {false, answer("200 OK", R"({"clientToken":null})"), "The service's 'clientToken' isn't a text",
         "former"},
        {false, answer("200 OK", R"({"clientToken":"a\nX: y"})"),
         "The service's 'clientToken' holds a control character", "former"},
        {false, answer("200 OK", R"({"clientToken":")" + std::string(4097, 't') + "\"}"),
         "The service's 'clientToken' has more than 4096 bytes", "former"},
        {false, answer("200 OK", std::string((1 << 20) + 1, ' ')), "more than 1048576 bytes", "former"},
        {false, ScriptedServer::SILENCE, "No whole answer within 0.3 s", "former"},
        {true, ScriptedServer::SILENCE, "No whole answer within 0.3 s", "former"},
        {false, "", "Empty reply", "former"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.response.substr(0, 150));
        const Sent sent = sendTo(c.response, c.update, limits);
        EXPECT_THAT(sent.failure, HasSubstr(c.failure));
        EXPECT_EQ(sent.failure.starts_with(failed), !c.failure.empty()) << sent.failure;
        EXPECT_EQ(sent.token, c.token);
        EXPECT_EQ(sent.notes, "start 1;stop;");
        EXPECT_EQ(sent.log.empty(), c.failure != "request failed") << sent.log;
    }
}

TEST(Upload, WhatAnotherStatusSaysGoesIntoTheLogHarmless) {
    std::string body = "a\r\nbase: forged \x80\x1b";
    while (body.size() < 3000)
        body += "é";
    const Sent sent = sendTo(answer("404 None", body), false);
    EXPECT_EQ(sent.failure,
              "Failed to upload runtime data.: request failed: The service has answered with the status 404");
    const std::string head =
        "base: ZqRuntimeInfo::upload: response status code = 404\nbase: ZqRuntimeInfo::upload: a";
    EXPECT_THAT(sent.log, StartsWith(head));
    EXPECT_EQ(std::count(sent.log.begin(), sent.log.end(), '\n'), 2) << sent.log;
    EXPECT_EQ(std::count(sent.log.begin(), sent.log.end(), '\xC3'), 1000 - 18);
    EXPECT_THAT(sent.log, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\r"))));
}

TEST(Upload, AStopAndAnAddressThatIsNoneAreFailuresToo) {
    ZqHttpLimits stopped;
    stopped.stop = [] { return true; };
    EXPECT_EQ(sendTo(ScriptedServer::SILENCE, false, stopped).notes, "start 1;stop;");
    ScriptedNetio net;
    ZqRuntimeInfo info;
    EXPECT_THAT(failureOf([&] { info.upload("file:///tmp/x", {}, {}, false); }),
                AllOf(StartsWith("Failed to upload runtime data.: "), HasSubstr("http:// or https://")));
    info.avgSpeed = 1;
    info.maxSpeed = std::numeric_limits<double>::infinity();
    EXPECT_THAT(failureOf([&] { info.upload("http://127.0.0.1:1/", {}, {"dl"}, true); }),
                HasSubstr("throughputMaxBps"));
    EXPECT_EQ(net.notes.size(), 4U);
}
