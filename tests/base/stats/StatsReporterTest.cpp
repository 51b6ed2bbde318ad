#include "NetLab.h"
#include "StatsHome.h"
#include "SxLatch.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqReportUpload.h"
#include "ZqStatsReporter.h"

#include <mutex>

using testing::ContainsRegex;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

std::string answer(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// Gives each run a token, made of its id.
std::string accepting(const std::string& request) {
    const size_t id = request.find(R"({"id":")");
    return answer("200 OK",
                  id == std::string::npos ? "" : R"({"clientToken":"T-)" + request.substr(id + 7, 2) + "\"}");
}

/// A service, whose behaviour a test changes.
class Service {
public:
    explicit Service(ScriptedServer::Answer first = accepting)
        : behaviour(std::move(first)),
          server([this](const std::string& request) {
              const std::lock_guard<std::mutex> lock(mutex);
              return behaviour(request);
          }) {}

    void become(ScriptedServer::Answer other) {
        const std::lock_guard<std::mutex> lock(mutex);
        behaviour = std::move(other);
    }
    SxString url() const { return SxString(server.url("runs/{{TOKEN}}")); }
    /// Method, path and id or exit code of each request, such as "POST /runs/ r1".
    std::vector<std::string> seen() const {
        std::vector<std::string> lines;
        for (const std::string& request : server.requests()) {
            const size_t at = std::min(request.find(R"("id":")"), request.find(R"("exit":)"));
            const size_t value = at == std::string::npos ? at : request.find(':', at) + 1;
            const std::string what = value == std::string::npos ? "" : request.substr(value, 4);
            lines.push_back(request.substr(0, request.find(" HTTP")) + " " + what);
        }
        return lines;
    }
    std::vector<std::string> requests() const { return server.requests(); }

private:
    std::mutex mutex;
    ScriptedServer::Answer behaviour;
    const ScriptedServer server;
};

ZqStatsWish wishFor(const SxString& url) {
    ZqStatsWish wish;
    wish.url = url;
    return wish;
}

/// Who has all the time, and who has none.
constexpr auto NEVER = [] { return false; };
constexpr auto ALWAYS = [] { return true; };

/// The record of a run whose exit code tells it from others.
ZqRuntimeInfo recordOf(const SxString& id, int64 exitCode = 0) {
    ZqRuntimeInfo info;
    info.id = id;
    info.runTime = 60;
    info.exitCode = exitCode;
    return info;
}

/// A reporter that asks no drive service and is quickly tired of a service.
struct Reporter : ZqStatsReporter {
    explicit Reporter(const ZqStatsWish& wish = {}, const SxString& guid = "APP", int64 totalMs = 300)
        : ZqStatsReporter(1000) {
        ZqHttpLimits brief;
        brief.totalMs = totalMs;
        setLimits(brief);
        setFacts([](ZqRuntimeInfo* info, bool) { info->rteVer = "1"; });
        open(wish, guid);
    }
};

/// A whole run; gives the failure.
std::string run(const SxString& id, int64 exitCode, const ZqStatsWish& wish = {}, bool atOnce = false) {
    Reporter reporter(wish);
    reporter.applicationStarts(recordOf(id));
    reporter.end(recordOf(id, exitCode), [=] { return atOnce; });
    return reporter.getFailure().str();
}

int64 msOf(const std::function<void()>& act) {
    const int64 begun = SxClock::get().steadyMs();
    act();
    return SxClock::get().steadyMs() - begun;
}

} // namespace

TEST(StatsReporter, ARunIsToldAtItsStartAndItsEnd) {
    const StatsHome home;
    const Service service;
    ZqStatsWish wish = wishFor(service.url());
    wish.headers = {"X-Run: {{ID}}"};
    Reporter reporter(wish);
    EXPECT_FALSE(reporter.wantsApps());
    reporter.applicationStarts(recordOf("r1"));
    EXPECT_TRUE(SxWait::pass(5000, [&] { return reporter.getToken() == "T-r1"; }));
    reporter.end(recordOf("r1", 11), NEVER);
    EXPECT_EQ(reporter.getFailure(), "");
    EXPECT_THAT(service.seen(), ElementsAre("POST /runs/ \"r1\"", "PATCH /runs/T-r1 11}}"));
    EXPECT_THAT(service.requests()[0], AllOf(HasSubstr(R"("rteVer":"1")"), HasSubstr("X-Run: r1\r\n")));
    EXPECT_EQ(home.waiting(), "");
    // The consent is remembered.
    EXPECT_EQ(run("r2", 22), "");
    EXPECT_EQ(service.seen().size(), 4U);
}

TEST(StatsReporter, WithoutAConsentNothingIsSentOrKept) {
    const StatsHome home;
    const Service service;
    EXPECT_EQ(run("r1", 11), "");
    EXPECT_TRUE(home.dir.snapshot().empty());
    Reporter(wishFor(service.url()), "OTHER").end(recordOf("r2"), NEVER);
    EXPECT_EQ(run("r3", 11), "");
    run("r4", 11, wishFor(service.url()), true);
    ZqStatsWish refused;
    refused.isRefused = true;
    EXPECT_EQ(run("r5", 11, refused), "");
    EXPECT_EQ(run("r6", 11), "");
    EXPECT_EQ(home.waiting(), "");
    // The fourth run ended at once, so that its first report may have gone out and the later one not.
    for (const std::string& line : service.seen())
        EXPECT_EQ(line, "POST /runs/ \"r4\"");
}

TEST(StatsReporter, AWishThatIsNoneRaises) {
    const StatsHome home;
    ZqStatsWish wishes[6];
    wishes[0] = wishFor("ftp://127.0.0.1/");
    wishes[1] = wishFor("http://127.0.0.1/");
    wishes[1].isRefused = true;
    wishes[2].headers = {"X: 1"};
    wishes[3] = wishFor("http://127.0.0.1/");
    wishes[3].headers = {"X: 1\nY: 2"};
    wishes[4] = wishFor("http://127.0.0.1/");
    wishes[4].sections = {"rt", "everything"};
    wishes[5].sections = {"rt"};
    for (const ZqStatsWish& wish : wishes)
        EXPECT_NE(failureOf([&] { Reporter reporter(wish); }), "");
    EXPECT_NE(failureOf([&] { Reporter(wishFor("http://127.0.0.1/"), ""); }), "");
    EXPECT_TRUE(home.dir.snapshot().empty());

    home.dir.write(StatsHome::CONSENTS, "{");
    Reporter without;
    EXPECT_FALSE(without.hasConsent());
    EXPECT_THAT(without.getFailure().str(),
                StartsWith("Failed to read file " + home.dir.path(StatsHome::CONSENTS)));
    EXPECT_THAT(failureOf([&] { Reporter(wishFor("http://127.0.0.1/")); }),
                StartsWith("Failed to read file "));
    EXPECT_EQ(home.dir.read(StatsHome::CONSENTS), "{");
}

TEST(StatsReporter, AServiceThatIsSilentHoldsNothingUpAndGetsAllInTheNextRun) {
    const StatsHome home;
    Service service([](const std::string&) { return ScriptedServer::SILENCE; });
    Reporter reporter(wishFor(service.url()), "APP", 30'000);
    EXPECT_LT(msOf([&] { reporter.applicationStarts(recordOf("r1")); }), 500);
    EXPECT_TRUE(SxWait::pass(5000, [&] { return !service.seen().empty(); }));
    const int64 endMs = msOf([&] { reporter.end(recordOf("r1", 11), NEVER); });
    EXPECT_GE(endMs, 900);
    EXPECT_LT(endMs, 3000);
    EXPECT_THAT(reporter.getFailure().str(), HasSubstr("The request was stopped"));
    {
        Reporter other({}, "APP", 30'000);
        other.applicationStarts(recordOf("r2"));
        EXPECT_LT(msOf([&] { other.end(recordOf("r2", 22), ALWAYS); }), 900);
    }
    EXPECT_THAT(home.waiting(), AllOf(ContainsRegex("r1.*11.*r2.*22"), Not(HasSubstr("T-r"))));
    const size_t nBefore = service.seen().size();
    service.become(accepting);
    EXPECT_EQ(run("r3", 33), "");
    std::vector<std::string> seen = service.seen();
    seen.erase(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(nBefore));
    EXPECT_EQ(seen.front(), "POST /runs/ \"r3\"") << "that of the run that is under way goes first";
    EXPECT_THAT(seen,
                UnorderedElementsAre("POST /runs/ \"r1\"", "PATCH /runs/T-r1 11}}", "POST /runs/ \"r2\"",
                                     "PATCH /runs/T-r2 22}}", "POST /runs/ \"r3\"", "PATCH /runs/T-r3 33}}"));
    EXPECT_EQ(home.waiting(), "");
}

TEST(StatsReporter, ARefusedReportHoldsUpNoOtherAndABusyServiceIsLeftAlone) {
    const StatsHome home;
    Service service([](const std::string&) { return answer("503 Busy", ""); });
    EXPECT_THAT(run("r1", 11, wishFor(service.url())),
                HasSubstr("request failed: The service has answered with the status 503"));
    EXPECT_NE(run("r2", 22), "");
    // That of the run is tried, at its start and end, and no other after it.
    EXPECT_EQ(service.seen().back(), "POST /runs/ \"r2\"");
    EXPECT_LE(service.seen().size(), 4U);
    service.become([](const std::string& request) {
        return request.find("\"r1\"") == std::string::npos ? accepting(request) : answer("422 Never", "");
    });
    EXPECT_THAT(run("r3", 33), HasSubstr("the status 422"));
    EXPECT_THAT(home.waiting(),
                AllOf(HasSubstr("\"r1\""), Not(HasSubstr("\"r2\"")), Not(HasSubstr("\"r3\""))));
}

TEST(StatsReporter, BothReportsAreOnTheDiskBeforeTheyAreSent) {
    const StatsHome home;
    std::vector<std::string> found;
    Service service;
    service.become([&](const std::string& request) {
        found.push_back(home.waiting());
        return accepting(request);
    });
    EXPECT_EQ(run("r1", 11, wishFor(service.url())), "");
    ASSERT_EQ(found.size(), 2U);
    EXPECT_THAT(found[0], HasSubstr(R"("id":"r1","token":"","post":{)"));
    EXPECT_THAT(found[1], AllOf(HasSubstr(R"("id":"r1","token":"T-r1","patch":{)"), Not(HasSubstr("post"))));
}

TEST(StatsReporter, ARunThatFailedBeforeItsApplicationSaysSoOnce) {
    const StatsHome home;
    const Service service;
    Reporter reporter(wishFor(service.url()));
    ZqRuntimeInfo failed;
    failed.id = "r1";
    failed.clientToken = "old";
    reporter.hasFailed(failed);
    reporter.end(failed, NEVER);
    ASSERT_EQ(service.requests().size(), 1U);
    EXPECT_THAT(service.requests()[0],
                AllOf(StartsWith("POST /runs/old "), HasSubstr(R"("id":"r1","orgName":"","startErr":true)")));
    EXPECT_EQ(reporter.getToken(), "T-r1");
    EXPECT_EQ(home.waiting(), "");
    // One that a player has stopped before that hasn't failed.
    Reporter stopped;
    stopped.end(recordOf("r2"), ALWAYS);
    EXPECT_EQ(service.requests().size(), 1U);
}

TEST(StatsReporter, ALaterReportThatLacksItsTokenIsNotSent) {
    const StatsHome home;
    const Service service([](const std::string&) { return answer("200 OK", "{}"); });
    EXPECT_THAT(run("r1", 11, wishFor(service.url())), HasSubstr("needs {{TOKEN}}"));
    EXPECT_THAT(service.seen(), ElementsAre("POST /runs/ \"r1\""));
    EXPECT_EQ(home.waiting(), "");
}

TEST(StatsReporter, AConsentThatIsTakenBackOrReplacedEndsWhatWaits) {
    const StatsHome home;
    Service service([](const std::string&) { return answer("500 No", ""); });
    const Service other;
    run("r1", 11, wishFor(service.url()));
    EXPECT_THAT(home.waiting(), HasSubstr("r1"));
    EXPECT_EQ(run("r2", 22, wishFor(other.url())), "");
    EXPECT_THAT(other.seen(), ElementsAre("POST /runs/ \"r2\"", "PATCH /runs/T-r2 22}}"));

    // Another client takes it back while this run is under way.
    ZqStatsWish refused;
    refused.isRefused = true;
    Reporter reporter;
    reporter.applicationStarts(recordOf("r3"));
    EXPECT_TRUE(SxWait::pass(5000, [&] { return reporter.getToken() == "T-r3"; }));
    const Reporter taker(refused);
    reporter.end(recordOf("r3", 33), NEVER);
    EXPECT_EQ(reporter.getFailure(), "The consent to reports was taken back");
    EXPECT_EQ(other.seen().size(), 3U);
    EXPECT_EQ(home.waiting(), "");
}

TEST(StatsReporter, TwoClientsOfOneApplicationDontSendAReportTwice) {
    const StatsHome home;
    SxLatch goOn, isAsked;
    Service service;
    service.become([&](const std::string& request) {
        isAsked.set();
        goOn.isSetWithin(5000);
        return accepting(request);
    });
    Reporter first(wishFor(service.url()), "APP", 30'000);
    first.applicationStarts(recordOf("r1"));
    EXPECT_TRUE(isAsked.isSetWithin(5000));
    Reporter second;
    second.applicationStarts(recordOf("r2"));
    EXPECT_TRUE(SxWait::pass(5000, [&] { return !second.getFailure().isEmpty(); }));
    EXPECT_EQ(second.getFailure(), "Another client sends reports of this application at the moment");
    goOn.set();
    first.end(recordOf("r1", 11), NEVER);
    second.end(recordOf("r2", 22), NEVER);
    EXPECT_EQ(second.getFailure(), "");
    EXPECT_EQ(second.getToken(), "T-r2");
    std::vector<std::string> seen = service.seen();
    std::sort(seen.begin(), seen.end());
    EXPECT_THAT(seen, ElementsAre("PATCH /runs/T-r1 11}}", "PATCH /runs/T-r2 22}}", "POST /runs/ \"r1\"",
                                  "POST /runs/ \"r2\""));
}

TEST(StatsReporter, TheMachineIsAskedOnlyWhereItIsTold) {
    struct Case {
        SxList<SxString> sections;
        bool wantsMachine, wantsApps;
    };
    for (const Case& c : {Case{{}, false, false}, Case{{"apps", "rt"}, false, true},
                          Case{{"env"}, true, false}, Case{{"host"}, true, false}}) {
        const StatsHome home;
        const Service service;
        ZqStatsWish wish = wishFor(service.url());
        wish.sections = c.sections;
        std::atomic<int> asked{-1};
        Reporter reporter(wish);
        reporter.setFacts([&](ZqRuntimeInfo*, bool wantsMachine) { asked = wantsMachine; });
        EXPECT_EQ(reporter.wantsApps(), c.wantsApps);
        reporter.applicationStarts(recordOf("r1"));
        reporter.end(recordOf("r1", 11), NEVER);
        EXPECT_EQ(asked, c.wantsMachine);
    }
}
