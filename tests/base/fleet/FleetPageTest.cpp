#include "BaseTest.h"
#include "Xml.h"
#include "ZqFleetPage.h"

namespace {

const SxString HOSTILE = std::string("a<script>&\"'\x01\xff]]>\xEF\xBF\xBE\xE2\x80\xAE");

ZqFleetGroup someGroup(int64 n) {
    ZqFleetGroup group;
    group.nRuns = group.nJudged = group.nExits = n;
    group.start = group.frame = group.underflows = group.speed = group.prefix = {n, 1500, 20'000, 1e18};
    group.brought = 1e12;
    group.earlyUsed = 5e11;
    return group;
}

} // namespace

TEST(FleetPage, NoTextBreaksIt) {
    for (const ZqFleetBy by :
         {ZqFleetBy::BuildAndOrder, ZqFleetBy::Build, ZqFleetBy::Order, ZqFleetBy::System}) {
        ZqFleetFigures figures;
        figures.by = by;
        figures.all = someGroup(1'000'000);
        for (size_t i = 0; i < 6; ++i) {
            figures.groups.push_back(someGroup(static_cast<int64>(i) * 10));
            figures.groups.back().build = figures.groups.back().order = figures.groups.back().system =
                HOSTILE;
            figures.groups.back().start.ninetyNine = figures.groups.back().underflows.median = 9.3e18;
        }
        for (size_t i = 0; i < ZqFleetFigures::MOST_COURSES; ++i)
            figures.courses.push_back({i, std::vector<double>(101, 9e18), {0, 1, 2}});
        figures.nGroups = 1206;
        figures.lastMs = figures.firstMs = INT64_MAX;
        const std::string page = ZqFleetPage(figures).toHtml().str();
        EXPECT_EQ(XmlCheck::faultOf(page), "");
        EXPECT_THAT(page, AllOf(Not(HasSubstr("<script")), Not(HasSubstr("-9")),
                                Not(HasSubstr("\xE2\x80\xAE")), HasSubstr("a&lt;script"),
                                HasSubstr("1,200 smaller ones are left out"), HasSubstr("50.0 %")));
    }
}

TEST(FleetPage, ShowsNothingThatIsNotKnown) {
    ZqFleetFigures figures;
    figures.all.nRuns = 1;
    figures.groups.resize(1);
    figures.groups[0].nRuns = 1;
    figures.nGroups = 1;
    const std::string page = ZqFleetPage(figures).toHtml().str();
    EXPECT_EQ(XmlCheck::faultOf(page), "");
    EXPECT_THAT(page,
                AllOf(HasSubstr("build not known, order not known"), Not(HasSubstr("Underflows of a run")),
                      Not(HasSubstr("<svg")), Not(HasSubstr("nan"))));
}
