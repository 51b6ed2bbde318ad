#include "StatsHome.h"
#include "ZqPrivateFile.h"
#include "ZqReportSections.h"
#include "ZqStatsConsent.h"
#include "ZqWaitingReports.h"

#include <thread>
#include <unistd.h>

using SxParserKit::SxSymbol;
using testing::EndsWith;
using Headers = SxMap<SxString, SxString>;

namespace {

const SxString URL = "https://statistics.example/runs";

ZqStatsConsent give(const SxString& guid, const SxString& url = URL, const SxList<SxString>& headers = {},
                    const SxList<SxString>& sections = {"rt"}) {
    return ZqStatsConsents::give(guid, ZqReportTarget(url, headers), sections);
}

SxSymbol documentOf(const SxString& text) {
    SxSymbol document;
    document.setType(SxParserAst::Object);
    document.append("text", text);
    return document;
}

std::string idsOf(const ZqWaitingReports& waiting) {
    std::string ids;
    for (const auto& report : waiting.read())
        ids += report.id.str() + (report.isSent() ? "- " : " ");
    return ids;
}

} // namespace

TEST(ReportTarget, IdAndTokenArePutInOnce) {
    const ZqReportTarget target("https://a.example/{{ID}}/{{TOKEN}}?t={{TOKEN}}",
                                {"X-Id:{{ID}}", "Authorization:  Bearer {{TOKEN}} ", "X-Empty:"});
    EXPECT_TRUE(target.needsToken());
    const auto filled = target.fill("i/d é", "{{ID}}&=", true);
    EXPECT_EQ(filled.url, "https://a.example/i%2Fd%20%C3%A9/%7B%7BID%7D%7D%26%3D?t=%7B%7BID%7D%7D%26%3D");
    Headers headers;
    headers("X-Id") = "i/d é";
    headers("Authorization") = "Bearer {{ID}}&=";
    headers("X-Empty") = "";
    EXPECT_EQ(filled.headers, headers);
    EXPECT_EQ(target.fill("1", "", false).url, "https://a.example/1/?t=");
    EXPECT_EQ(failureOf([&] { target.fill("1", "", true); }),
              "The service's address or a header needs {{TOKEN}}, and the service has given no token");
    EXPECT_THAT(failureOf([&] { target.fill("1", "a\r\nX-Forged: 1", true); }),
                HasSubstr("control character"));
    EXPECT_EQ(ZqReportTarget(URL, {}).fill("1", "", true).url, URL);
}

TEST(ReportTarget, WhatCannotBeSentIsRefused) {
    struct Case {
        SxString url;
        SxList<SxString> headers;
        const char* failure;
    };
    const Case cases[] = {
        {"ftp://a.example/", {}, "http:// or https://"},
        {"https://{{TOKEN}}/x", {}, "isn't valid"},
        {"https://{{ID}}.a.example/x", {}, "isn't valid"},
        {"https://a.example:{{ID}}/x", {}, "isn't valid"},
        {URL, {"no colon secret"}, "A header must be given as NAME: VALUE"},
        {URL, {": secret"}, "A header has no name"},
        {URL, {"X-A: 1\nX-B: 2"}, "The header 'X-A' holds a control character"},
        {URL, {"X-A: 1", "x-a: 2"}, "The header 'x-a' is given twice"},
    };
    for (const Case& c : cases) {
        const std::string failure = failureOf([&] { ZqReportTarget(c.url, c.headers); });
        EXPECT_THAT(failure, AllOf(HasSubstr(c.failure), testing::Not(HasSubstr("secret"))));
    }
}

TEST(ReportSections, AreThoseThatAReportCanHave) {
    EXPECT_EQ(ZqReportSections::of({}), (SxList<SxString>{"rt", "dl", "odr", "trc", "prep"}));
    EXPECT_EQ(ZqReportSections::of({"host", "rt", "host"}), (SxList<SxString>{"host", "rt"}));
    EXPECT_EQ(failureOf([] {
                  ZqReportSections::of({"rt", "all\n"});
              }),
              "There is no section 'all\\n'; there are env, apps, host, rt, dl, odr, trc, prep");
}

TEST(StatsConsent, IsKeptForAnApplicationAndItsUserAlone) {
    const StatsHome home;
    EXPECT_FALSE(ZqStatsConsents::find("A"));
    ZqStatsConsents::takeBack("A");
    EXPECT_FALSE(home.dir.exists("config"));
    const ZqStatsConsent a = give("A", URL, {"X-Key: 1"}, {"rt", "env"});
    EXPECT_EQ(ZqStatsConsents::find("A"), a);
    EXPECT_FALSE(ZqStatsConsents::find("B"));
    EXPECT_EQ(StatsHome::modeOf(home.dir.path(StatsHome::CONSENTS)), 0600U);
    EXPECT_EQ(StatsHome::modeOf(home.dir.path("config/tavrin")), 0700U);

    const ZqStatsConsent b = give("B");
    // Another key is the same consent; another address or other sections aren't.
    const ZqStatsConsent withKey = give("A", URL, {"X-Key: 2"}, {"rt", "env"});
    EXPECT_EQ(withKey.givenMs, a.givenMs);
    EXPECT_EQ(ZqStatsConsents::find("A"), withKey);
    EXPECT_GT(give("A", URL, {}, {"rt"}).givenMs, a.givenMs);
    EXPECT_GT(give("A", URL + "2").givenMs, a.givenMs);
    EXPECT_EQ(ZqStatsConsents::find("A")->target.getUrl(), URL + "2");

    ZqStatsConsents::takeBack("A");
    EXPECT_FALSE(ZqStatsConsents::find("A"));
    EXPECT_EQ(ZqStatsConsents::find("B"), b);
    ZqStatsConsents::takeBack("B");
    EXPECT_FALSE(home.dir.exists(StatsHome::CONSENTS));
}

TEST(StatsConsent, AFileThatIsDamagedOrSomebodyElsesStaysAsItIs) {
    const StatsHome home;
    const auto file = [](const std::string& consents) {
        return R"({"version":2,"consents":[)" + consents + "]}";
    };
    const auto consent = [](const std::string& url, const std::string& header, const std::string& section) {
        return R"({"guid":"A","url":")" + url + R"(","headers":[")" + header + R"("],"sections":[")" +
               section + R"("],"given":1})";
    };
    const std::string good = consent("https://a.example/", "X: 1", "rt");
    struct Case {
        std::string text;
        unsigned mode;
        const char* failure;
    };
    const Case cases[] = {
        {"", 0600, "line 1"},
        {file(good).substr(0, 40), 0600, "line 1"},
        {R"({"version":3,"consents":[]})", 0600, "File version of 'statistics.json' not supported"},
        {file("7"), 0600, "consents"},
        {file(R"({"guid":"A"})"), 0600, "consents"},
        {file(consent("file:///x", "X: 1", "rt")), 0600, "http:// or https://"},
        {file(consent("https://a.example/", R"(X: 1\r\nY: 2)", "rt")), 0600, "control character"},
        {file(consent("https://a.example/", "X: 1", "all")), 0600, "There is no section 'all'"},
        {file(good + "," + good), 0600, "two consents for the application 'A'"},
        {std::string(100000, '['), 0600, "Failed to read"},
        {file(good), 0620, "Other users may write it"},
        {file(good), 0602, "Other users may write it"},
    };
    const std::string path = home.dir.path(StatsHome::CONSENTS);
    const auto expectFailure = [&](const char* why) {
        const std::string bytes = home.dir.read(StatsHome::CONSENTS);
        for (const auto& act : {std::function<void()>([] { ZqStatsConsents::find("A"); }),
                                std::function<void()>([] { give("B"); }),
                                std::function<void()>([] { ZqStatsConsents::takeBack("A"); })}) {
            EXPECT_THAT(failureOf(act), AllOf(StartsWith("Failed to read file " + path), HasSubstr(why)));
        }
        EXPECT_EQ(home.dir.read(StatsHome::CONSENTS), bytes);
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 200));
        home.dir.write(StatsHome::CONSENTS, c.text);
        ASSERT_EQ(::chmod(path.c_str(), c.mode), 0);
        expectFailure(c.failure);
    }
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    fs::resize_file(path, (16 << 20) + 1);
    expectFailure("It has more than 16777216 bytes");
    home.dir.write(StatsHome::CONSENTS, file(good));
    EXPECT_TRUE(ZqStatsConsents::find("A"));
    // Only root can give a file away; for others there are files of root.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path.c_str(), 12345, 12345), 0);
    } else {
        fs::remove(path);
        fs::create_symlink("/etc/passwd", path);
    }
    expectFailure("It belongs to another user");
}

TEST(StatsConsent, APowerCutLeavesTheOldOneOrTheNewOne) {
    for (int64 step = 1;; ++step) {
        SCOPED_TRACE(step);
        const StatsHome home("watched/");
        fs::create_directories(home.dir.path("watched"));
        // Each second one begins without the file and its folders.
        const bool isFirst = step % 2 == 0;
        if (!isFirst) give("A", URL);
        FaultOs os(home.dir.path("watched"));
        os.cutPowerAt((step + 1) / 2);
        const std::string failure = failureOf([] { give("A", URL + "2"); });
        const bool wasCut = os.isCut();
        os.crash();
        const auto found = ZqStatsConsents::find("A");
        const SxString url = found ? found->target.getUrl() : "";
        EXPECT_TRUE(url == URL + "2" || (wasCut && url == (isFirst ? SxString("") : URL))) << url;
        EXPECT_TRUE(wasCut || failure.empty()) << failure;
        if (!wasCut && isFirst) break;
        ASSERT_LT(step, 100);
    }
}

TEST(StatsConsent, ClientsGoOneAfterTheOther) {
    const StatsHome home;
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([i] {
            for (int k = 0; k < 5; ++k)
                give(SxString("A") + i + "." + k);
        });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(ZqStatsConsents::parse(SxString(home.dir.read(StatsHome::CONSENTS))).getSize(), 20);
}

TEST(WaitingReports, TheNewestTwentyOfOneConsentAreKept) {
    const StatsHome home;
    const ZqStatsConsent consent = give("A/../../B");
    const ZqWaitingReports waiting(consent);
    EXPECT_EQ(idsOf(waiting), "");
    for (int i = 0; i < 25; ++i) {
        waiting.change(SxString("sent") + i, [](auto* report) { report->token = "T"; });
        waiting.change(SxString("r") + i, [&](auto* report) { report->post = documentOf("x"); });
    }
    EXPECT_THAT(idsOf(waiting), StartsWith("r4 sent5- "))
        << "it may be sent yet, as long as r24 is under way";
    waiting.change("r24", [](auto* report) { report->isEnded = true; });
    const auto reports = waiting.read();
    EXPECT_EQ(reports.getSize(), 40);
    EXPECT_THAT(idsOf(waiting), AllOf(StartsWith("sent5- r5 "), EndsWith("sent24- r24 ")));
    EXPECT_EQ(reports.first().token, "T");
    EXPECT_EQ(StatsHome::modeOf(waiting.getFile().ascii()), 0600U);
    EXPECT_EQ(fs::path(waiting.getFile().str()).parent_path(), home.dir.path(StatsHome::WAITING));

    EXPECT_THAT(failureOf([&] {
                    waiting.change("big", [&](auto* report) {
                        report->patch =
                            documentOf(SxString(std::string(ZqWaitingReports::MAX_DOCUMENT, 'x')));
                    });
                }),
                HasSubstr("The report has more than 131072 bytes"));
    EXPECT_EQ(waiting.read().getSize(), 40);

    const ZqStatsConsent other = give("A/../../B", URL + "2");
    EXPECT_EQ(idsOf(ZqWaitingReports(other)), "");
    EXPECT_EQ(failureOf([&] { waiting.remove("r24"); }), "The consent to reports was taken back");
    ZqWaitingReports(other).change("n", [](auto* report) { report->token = "T"; });
    EXPECT_EQ(idsOf(ZqWaitingReports(other)), "n- ");
    ZqWaitingReports(other).remove("n");
    EXPECT_FALSE(fs::exists(waiting.getFile().str()));
}

TEST(WaitingReports, ADamagedFileIsNamedAndStays) {
    const StatsHome home;
    const ZqWaitingReports waiting(give("A"));
    const std::string file =
        std::string(StatsHome::WAITING) + "/" + fs::path(waiting.getFile().str()).filename().string();
    for (const char* text :
         {"", "{}", R"({"version":2,"guid":"A","given":1,"reports":[{"id":"1","token":7}]})",
          R"({"version":2,"guid":"A","given":1,"reports":[{"id":"1","token":"","post":[]}]})",
          R"({"version":2,"guid":"A","given":1,"reports":[{"id":"1","token":""},{"id":"1","token":""}]})"}) {
        home.dir.write(file, text);
        const auto add = [&] { waiting.change("2", [](auto* report) { report->token = "T"; }); };
        EXPECT_THAT(failureOf(add), StartsWith("Failed to read file " + waiting.getFile().str() + ": "));
        EXPECT_EQ(home.dir.read(file), text);
    }
    ZqWaitingReports::forget("A");
    EXPECT_EQ(home.waiting(), "");
}
