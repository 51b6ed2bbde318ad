#include "BaseTest.h"
#include "Builders.h"
#include "SxFileIO.h"
#include "Xml.h"
#include "ZqAppParams.h"
#include "ZqTraceParams.h"
#include "ZqTracePlot.h"
#include "ZqTraceRecords.h"

#include <regex>

namespace {

constexpr int64 TIME0 = 1'700'000'000'000;
/// A cell of the grid on which accesses are drawn, and a half of one for the rounding of ticks.
constexpr double NEAR = 3;

using Place = std::pair<double, double>;

/// A trace of accesses at milliseconds from its beginning.
SxString makeTrace(const TempDir& dir, const std::string& name, const std::vector<ZqTraceItem>& items,
                   const SxString& build = SxString()) {
    const SxString path = dir.path(name) + "/";
    ZqTraceParams record;
    record.time0 = TIME0;
    record.checksumMnt = build;
    record.write(path);
    SxFileIO file(path + "img.trc", "wb");
    ZqTraceRecords::Writer out(&file);
    for (ZqTraceItem item : items) {
        item.time += TIME0;
        out.put(item);
    }
    out.flush();
    return path;
}

ZqTraceItem at(int64 ms, uint64 block, bool isWrite = false) {
    return {block, static_cast<uint64>(ms), isWrite};
}

std::string draw(const SxString& trace, const SxString& image = SxString()) {
    ZqTracePlot::Settings settings;
    settings.trace = trace;
    settings.image = image;
    return ZqTracePlot(settings).toSvg().str();
}

/// Numbers of the axis "x" or "y" with their places, of the first chart or the second.
std::vector<std::pair<std::string, double>> ticksOf(const std::string& svg, const std::string& axis,
                                                    int chart) {
    size_t begin = 0;
    for (int i = 0; i <= chart; ++i)
        begin = svg.find("class=\"grid\"", begin + 1);
    const std::string part = svg.substr(begin, svg.find("class=\"name\"", begin) - begin);
    const std::regex tick("<text class=\"" + axis + "\"[^>]* " + axis + "=\"([-0-9.]+)\"[^>]*>([^<]*)<");
    std::vector<std::pair<std::string, double>> ticks;
    for (std::sregex_iterator i(part.begin(), part.end(), tick), end; i != end; ++i)
        ticks.emplace_back((*i)[2], std::stod((*i)[1]));
    return ticks;
}

std::vector<std::string> labelsOf(const std::string& svg, const std::string& axis, int chart) {
    std::vector<std::string> labels;
    for (const auto& tick : ticksOf(svg, axis, chart))
        labels.push_back(tick.first);
    return labels;
}

double placeOf(const std::string& svg, const std::string& axis, const std::string& label, int chart = 0) {
    for (const auto& tick : ticksOf(svg, axis, chart)) {
        if (tick.first == label) return tick.second;
    }
    ADD_FAILURE() << "there is no tick " << label;
    return 0;
}

/// Where dots are drawn.
std::vector<Place> dotsOf(const std::string& svg, const std::string& ink) {
    const std::regex group(
        "<g class=\"cells few " + ink +
        "\" transform=\"translate\\(([0-9.]+) ([0-9.]+)\\) scale\\(2\\)\"[^>]*>\n<path d=\"([^\"]*)\"");
    std::smatch found;
    std::vector<Place> dots;
    if (!std::regex_search(svg, found, group)) return dots;
    const std::string path = found[3];
    double column = 0, row = 0;
    const std::regex run("m(-?\\d+) ?(-?\\d+)v(\\d+)");
    for (std::sregex_iterator i(path.begin(), path.end(), run), end; i != end; ++i) {
        column += std::stod((*i)[1]);
        row += std::stod((*i)[2]);
        for (int n = std::stoi((*i)[3]);; row += 1) {
            dots.emplace_back(std::stod(found[1]) + 2 * column, std::stod(found[2]) + 2 * row);
            if (n-- == 0) break;
        }
    }
    return dots;
}

void expectDots(const std::string& svg, const std::string& ink, const std::vector<Place>& expected) {
    const std::vector<Place> dots = dotsOf(svg, ink);
    ASSERT_EQ(dots.size(), expected.size()) << ink;
    for (size_t i = 0; i < dots.size(); ++i) {
        EXPECT_NEAR(dots[i].first, expected[i].first, NEAR) << ink << " " << i;
        EXPECT_NEAR(dots[i].second, expected[i].second, NEAR) << ink << " " << i;
    }
}

} // namespace

TEST(Picture, AccessesStandWhereTheAxesSay) {
    const TempDir dir;
    // Two reads in cells above each other, and one of which the time is that of another clock.
    const std::string svg = draw(makeTrace(
        dir, "t",
        {at(-2000, 0), at(0, 500), at(0, 505), at(4000, 1000), at(2000, 250, true), at(2000, 250, true)}));
    EXPECT_EQ(XmlCheck::faultOf(svg), "");
    EXPECT_EQ(labelsOf(svg, "x", 0), (std::vector<std::string>{"-2", "-1", "0", "1", "2", "3", "4"}));
    EXPECT_EQ(labelsOf(svg, "y", 0), (std::vector<std::string>{"0", "200", "400", "600", "800", "1000"}));
    EXPECT_THAT(svg, AllOf(HasSubstr(">Time, s<"),
                           HasSubstr("6 accesses in 6.00 s, to 5 blocks (20.0 KiB), 2 writes."),
                           HasSubstr(">Data needed, KiB<")));
    const double y0 = placeOf(svg, "y", "0"), y1000 = placeOf(svg, "y", "1000");
    const double middle = (y0 + y1000) / 2;
    expectDots(svg, "reads",
               {{placeOf(svg, "x", "-2"), y0},
                {placeOf(svg, "x", "0"), middle - 2},
                {placeOf(svg, "x", "0"), middle},
                {placeOf(svg, "x", "4"), y1000}});
    expectDots(svg, "writes", {{placeOf(svg, "x", "2"), y0 - (y0 - y1000) / 4}});
    // The curve of needed bytes ends at its top right.
    const std::regex curve("<path class=\"line needed\" d=\"[^\"]*H([0-9.]+)V([0-9.]+)\"");
    std::smatch end;
    ASSERT_TRUE(std::regex_search(svg, end, curve));
    EXPECT_NEAR(std::stod(end[1]), placeOf(svg, "x", "4", 1), NEAR);
    EXPECT_NEAR(std::stod(end[2]), placeOf(svg, "y", "20", 1), 0.2);
}

TEST(Picture, AMillionRecordsDrawSmall) {
    const TempDir dir;
    TestRandom random(1);
    TRACE_SEED(random);
    std::vector<ZqTraceItem> scattered = {at(0, 0), at(7'200'000, 0)}, goingOn;
    for (int64 i = 0; i < 1'000'000; ++i) {
        scattered.push_back(
            at(static_cast<int64>(random.below(7'200'000)), random.below(1 << 24), random.chance(.1)));
        goingOn.push_back(at(i / 100, static_cast<uint64>(i)));
    }
    const std::string noise = draw(makeTrace(dir, "noise", scattered));
    EXPECT_LT(noise.size(), 600'000u);
    EXPECT_EQ(XmlCheck::faultOf(noise), "");
    EXPECT_THAT(labelsOf(noise, "x", 0), ElementsAre("0", "20", "40", "60", "80", "100", "120"));
    EXPECT_THAT(noise, AllOf(HasSubstr(">Time, min<"), HasSubstr(">Data needed, GiB<")));
    EXPECT_EQ(labelsOf(noise, "y", 0).back(), "16M");

    const std::string line = draw(makeTrace(dir, "line", goingOn));
    EXPECT_LT(line.size(), 60'000u);
    EXPECT_THAT(line, HasSubstr("1,000,000 accesses in 10.00 s, to 1,000,000 blocks (3.8 GiB)."));
    const auto nSteps = std::count(line.begin(), line.end(), 'V');
    EXPECT_LT(nSteps, 2 * 852 + 40) << "the curve has more than a point for each unit of width";
}

TEST(Picture, PlacesAreThoseOfTheImagesMap) {
    const TempDir dir;
    TestRandom random(2);
    TestImage image(random, 64, 0);
    // Backward, with a block that isn't stored.
    for (uint64 rawIdx = 0; rawIdx < 64; ++rawIdx)
        image.map(static_cast<int64>(rawIdx)) = rawIdx == 7 ? ~uint64{0} : 63 - rawIdx;
    const SxString folder = dir.path("image") + "/";
    image.write(folder);
    ZqAppParams app(folder);
    app.checksumMnt = "one";
    app.write(folder);
    const std::string svg = draw(makeTrace(dir, "t", {at(0, 63), at(400, 7), at(800, 0)}, "one"), folder);
    EXPECT_THAT(svg, HasSubstr("to 2 blocks (8.0 KiB), and 1 to blocks that the image doesn't include."));
    const double y0 = placeOf(svg, "y", "0"), y250 = placeOf(svg, "y", "250");
    expectDots(svg, "reads",
               {{placeOf(svg, "x", "0"), y0}, {placeOf(svg, "x", "800"), y0 + (y250 - y0) * 256 / 250}});

    EXPECT_THAT(failureOf([&] { draw(makeTrace(dir, "t", {at(0, 64)}, "one"), folder); }),
                HasSubstr("names block 64, and '" + folder.str() + "' has 64 blocks"));
    EXPECT_THAT(failureOf([&] { draw(makeTrace(dir, "t", {at(0, 1)}, "two"), folder); }),
                HasSubstr("is one of the build 'two'"));
}

TEST(Picture, NoNameAndNoRecordBreaksThePicture) {
    const TempDir dir;
    const std::string hostile = "a<script>&\"'\x01\xff]]>\xEF\xBF\xBE";
    const std::vector<ZqTraceItem> cases[] = {
        {},
        {at(5, 0)},
        {at(-TIME0 - 11'644'473'600'000, 1), at(1'000'000'000'000'000, (uint64{1} << 51) - 1, true)},
    };
    for (const auto& items : cases) {
        const std::string svg = draw(makeTrace(dir, hostile, items));
        EXPECT_EQ(XmlCheck::faultOf(svg), "") << svg;
        EXPECT_THAT(
            svg, AllOf(Not(HasSubstr("<script")), HasSubstr("a&lt;script&gt;&amp;&quot;'\\x01\\xff]]&gt;")));
        EXPECT_EQ(svg.find(">The trace holds no accesses.<") != std::string::npos, items.empty());
    }
}
