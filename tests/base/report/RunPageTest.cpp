#include "BaseTest.h"
#include "Xml.h"
#include "ZqReadable.h"
#include "ZqRunPage.h"

TEST(RunPage, ARunOfTenHoursKeepsItsUnderflows) {
    constexpr int64 STEP_MS = 20, END_MS = 10 * 3'600'000;
    ZqRunSeries series;
    int64 waitedMs = 0, nUnderflows = 0;
    for (int64 ms = 0; ms <= END_MS; ms += STEP_MS) {
        // A short one each minute.
        const bool isUnderflow = ms % 60'000 >= 30'000 && ms % 60'000 < 30'040;
        waitedMs += isUnderflow ? STEP_MS : 0;
        nUnderflows += ms % 60'000 == 30'000;
        series.add({ms, static_cast<uint64>(ms) * 10, static_cast<uint64>(ms), 0, isUnderflow});
        ASSERT_EQ(series.getSamples().back().timeMs, ms);
    }
    const auto& samples = series.getSamples();
    EXPECT_GT(samples.size(), 1000u);
    EXPECT_LE(samples.size(), 2049u);
    EXPECT_EQ(samples.front().timeMs, 0);
    EXPECT_EQ(samples.back().timeMs, END_MS);
    for (size_t i = 1; i < samples.size(); ++i)
        ASSERT_LE(samples[i].timeMs - samples[i - 1].timeMs, 2 * END_MS / 1000);
    int64 keptMs = 0, nKept = 0;
    for (const ZqRunSeries::Underflow& underflow : series.getUnderflows()) {
        keptMs += underflow.waitedMs;
        nKept += underflow.n;
    }
    EXPECT_LE(series.getUnderflows().size(), 256u);
    EXPECT_EQ(keptMs, waitedMs);
    EXPECT_EQ(nKept, nUnderflows);

    ZqRunResult result;
    result.wasStarted = result.isExitKnown = true;
    result.lengthMs = END_MS;
    result.startMs = 2'500;
    result.series = series;
    result.info.exitCode = 139;
    const std::string page = ZqRunPage(result).toHtml().str();
    EXPECT_EQ(XmlCheck::faultOf(page), "");
    EXPECT_LT(page.size(), 150'000u);
    EXPECT_THAT(page, HasSubstr("ended with code 139 (signal SIGSEGV, Segmentation fault)"));
    EXPECT_THAT(page, AllOf(HasSubstr("Underflows, " + ZqReadable::seconds(waitedMs).str() + " in all"),
                            HasSubstr("Start, 2.50 s"), HasSubstr(">Time of the run, h<")));
    EXPECT_THAT(page, AllOf(Not(HasSubstr("First frame")), Not(HasSubstr("First window")),
                            Not(HasSubstr("not known")), HasSubstr("Exit code")));
    result.firstWindowMs = 3'250;
    result.isExitKnown = false;
    result.startMs = -1;
    EXPECT_THAT(ZqRunPage(result).toHtml().str(),
                AllOf(HasSubstr("<dt>First window</dt>"), HasSubstr("3.25 s"), Not(HasSubstr("First frame")),
                      Not(HasSubstr("<dt>Start</dt>")), Not(HasSubstr("Exit code"))));
}

TEST(RunPage, NoTextBreaksIt) {
    const TempDir dir;
    const std::string hostile = "a<script>&\"'\x01\xff]]>\xEF\xBF\xBE";
    ZqRunResult result;
    result.info.path = dir.path(hostile);
    result.info.guid = SxString(hostile);
    result.traceFolder = dir.path("</style>");
    const std::string page = ZqRunPage(result, SxString("lost: " + hostile)).toHtml().str();
    EXPECT_EQ(XmlCheck::faultOf(page), "");
    EXPECT_THAT(page, AllOf(Not(HasSubstr("<script")), HasSubstr("lost: a&lt;script"),
                            HasSubstr("The trace of the run can't be shown: ")));
}
