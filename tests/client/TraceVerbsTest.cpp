#include "ClientTest.h"
#include "ZqAppParams.h"
#include "ZqArchive.h"
#include "ZqTrace.h"

#include <filesystem>

namespace {
class TraceVerbs : public ClientTest {};
} // namespace

TEST_F(TraceVerbs, traceInfo) {
    const auto items = SxPtr<ZqTrace::Items>::create();
    for (uint64 i = 0; i < 5; ++i)
        items->append(ZqTraceItem(i % 3, 1500 * i, i == 1));
    ZqTrace::write(items, dir.path("trace/"), ZqTraceParams::Set, "build");
    std::filesystem::resize_file(dir.path("trace/img.trc"), 16 * 5 + 9);
    const std::string json =
        R"({"items":5,"unique":3,"flagged":1,"duration":6000,"method":"set","sources":0,"matches":false})";
    for (const string slash : {"", "/"}) {
        const Outcome shown = run({"trace", "info", dir.path("trace") + slash, "--json"});
        EXPECT_EQ(shown.code, 0) << shown.err;
        EXPECT_EQ(parseJson(shown.out).toJson(), json);
    }
    EXPECT_THAT(run({"trace", "info", dir.path("trace")}).out,
                testing::AllOf(HasSubstr("Items         5, 1 flagged\n"), HasSubstr("6.000 s\n")));
    dir.write("trace/img.trc", "These bytes are the text of somebody's letter.\n");
    EXPECT_THAT(run({"trace", "info", dir.path("trace")}).err,
                HasSubstr("is damaged or is none: it names block"));
    std::filesystem::remove(dir.path("trace/img.trc"));
    EXPECT_EQ(run({"trace", "info", dir.path("trace")}).err,
              "tavrin: Cannot trace data. File '" + dir.path("trace/img.trc") + "' not found!\n");
    EXPECT_EQ(run({"trace", "info", dir.path("none")}).code, 1);
    EXPECT_EQ(run({"__complete", "trace", "i"}).out, "info\n");
}

TEST_F(TraceVerbs, orderAndForecast) {
    const string image = makeImage("image"), trace = dir.path("trace"), index = dir.path("index");
    const auto items = SxPtr<ZqTrace::Items>::create();
    for (const uint64 block : {uint64{3}, uint64{1}, uint64{3}})
        items->append(ZqTraceItem(block, 1'000'000, false));
    const ZqAppParams app(SxString(image + "/"));
    ZqTrace::write(items, SxString(trace + "/"), ZqTraceParams::Set, app.checksumMnt);
    const Outcome made = run({"image", "order", image, trace, index, "--json"});
    ASSERT_EQ(made.code, 0) << made.err;
    const SxParserKit::SxSymbol result = parseJson(made.out);
    EXPECT_TRUE(result.getElem("digest", true).toBool());
    EXPECT_EQ(result.getElem("blocks", true).toJson(),
              R"({"raw":4,"included":4,"front":0,"named":2,"core":2,"near":1})");
    EXPECT_EQ(run({"image", "order", image, trace, index}).err,
              "tavrin: The index folder '" + index + "/' isn't empty\n");

    const Outcome told = run({"image", "info", index, "--speed", "1"});
    EXPECT_THAT(told.out,
                testing::AllOf(HasSubstr("At 1 Mbit/s\n  From here    safe to start in 0.1 s, when 8.0 KiB"),
                               HasSubstr("waits for data once, at its start for 0.1 s"),
                               Not(HasSubstr("From nothing"))));
    EXPECT_THAT(
        run({"image", "info", image, "--speed", "1"}).out,
        testing::AllOf(
            HasSubstr("safe to start at once; there is no load profile"),
            HasSubstr("  From nothing safe to start in 0.1 s, when 16.0 KiB are there; there is no")));
    const auto shown = parseJson(run({"image", "info", index, "--speed", "1", "--json"}).out);
    EXPECT_EQ(shown.getElem("forecast", true).getElem("waits", true).getSize(), 1);
    EXPECT_FALSE(parseJson(run({"image", "info", index, "--json"}).out).getElem("forecast", false).isValid());
}

TEST_F(TraceVerbs, traceVerbs) {
    const auto make = [&](const string& name, std::initializer_list<uint64> blocks, int64 time0) {
        const auto items = SxPtr<ZqTrace::Items>::create();
        for (const uint64 block : blocks)
            items->append(ZqTraceItem(block, static_cast<uint64>(time0 + 1000 * items->getSize()), false));
        ZqTraceParams record;
        record.time0 = time0;
        record.write(dir.path(name) + "/");
        ZqTrace::write(items, dir.path(name) + "/", ZqTraceParams::Monitoring, "build");
    };
    make("image/traces/a", {5, 6, 7, 5, 20, 8}, 10'000);
    make("image/traces/b", {20, 30}, 20'000);
    dir.write(string("image/") + ZqImageFiles::APP_JSON, "{}");
    const string a = dir.path("image/traces/a"), b = dir.path("image/traces/b/");
    const auto json = [&](const Words& words) {
        Words all = {"trace", "--json"};
        all.insert(all.end(), words.begin(), words.end());
        const Outcome result = run(all);
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out.starts_with("{\n") ? parseJson(result.out).toJson().str() : result.out;
    };
    const string out = dir.path("result"), merged = R"(,"method":"merge"})",
                 set = R"(,"method":"monitoring"})";
    EXPECT_EQ(json({"merge", out, a, b}), R"({"traces":2,"items":6,"duration":5000)" + merged);
    EXPECT_EQ(json({"trim", a, out}), R"({"items":5,"duration":5000)" + set);
    EXPECT_EQ(json({"keep", out, "-10", "4000"}), R"({"items":4,"duration":5000)" + set);
    EXPECT_EQ(json({"shift", out, "--quiet", "-3"}),
              R"({"time0":13000,"items":4,"duration":5000,"method":"shift"})");
    EXPECT_EQ(json({"align", out, a}), R"({"items":4,"duration":5000,"method":"align"})");
    EXPECT_EQ(json({"append", a, b, out, "--gap", "-2"}),
              R"({"items":8,"duration":4000,"method":"inc-monitoring"})");
    EXPECT_EQ(json({"diff", a, b}), R"({"reference":5,"other":2,"identified":1,"inserted":2,"appended":0})");
    EXPECT_THAT(run({"trace", "diff", a, b}).out,
                HasSubstr("\nThis is a change of 40.0 % of the reference trace.\n"));
    EXPECT_THAT(
        json({"runs", a}),
        StartsWith(R"({"block":5,"time":0,"index":0,"nFollowing":2,"jump":1,"jumpTime":5000,"flag":0})"
                   "\n"));
    EXPECT_EQ(run({"trace", "runs", a}).out,
              "         0 ms  5 + 2, goes on at +1\n      4000 ms  20\n      5000 ms  8\n");

    const string picture = dir.path("pictures/a.svg");
    EXPECT_EQ(json({"plot", a, picture}), R"({"items":6,"flagged":0,"unique":5,"elsewhere":0})");
    EXPECT_EQ(run({"trace", "plot", a, picture}).out, "6 accesses in 5.00 s, to 5 blocks (20.0 KiB).\n");
    EXPECT_THAT(dir.read("pictures/a.svg"),
                testing::AllOf(HasSubstr("<title>Trace a</title>"), HasSubstr("</svg>")));
    std::filesystem::create_symlink(picture, dir.path("pictures/link.svg"));
    EXPECT_EQ(run({"trace", "plot", a, dir.path("pictures/link.svg")}).err,
              "tavrin: The picture can't be written: '" + dir.path("pictures/link.svg") +
                  "' is not a plain file\n");

    // The patch's map as it is delivered.
    const std::array<uint64, 7> map = {0, 0, 0, 0, 0, 50, ~uint64{0}};
    dir.write("patch/map.idx", {reinterpret_cast<const char*>(map.data()), sizeof map});
    ZqArchive::compress7z(dir.path("patch/map.7z"), dir.path("patch"), {"map.idx"});
    std::filesystem::remove(dir.path("patch/map.idx"));
    ZqAppParams().write(dir.path("patch/"));
    EXPECT_EQ(json({"map", a, dir.path("patch"), dir.path("mapped")}),
              R"({"lost":4,"items":2,"duration":5000,"method":"patch"})");

    // A mistyped folder costs nothing, and what is no trace is refused.
    dir.write("letters/dear.txt", "precious");
    for (const string target : {"letters", "image", "letters/dear.txt"}) {
        EXPECT_THAT(run({"trace", "merge", dir.path(target), a}).err,
                    HasSubstr("holds something else than a trace"));
    }
    dir.write("junk/img.trc", string(160, 'x'));
    ZqTraceParams().write(dir.path("junk/"));
    EXPECT_THAT(run({"trace", "merge", out, a, dir.path("junk")}).err,
                HasSubstr("is damaged or is none: it names block"));
    EXPECT_EQ(run({"trace", "keep", out, "5", "4"}).err,
              "tavrin: All items have been dropped, no trace written.\n");
    EXPECT_EQ(run({"trace", "keep", out, "5", "-x"}).code, 2);
    EXPECT_EQ(run({"trace", "shift", out, "2147483648"}).code, 2);
    EXPECT_EQ(run({"trace", "merge", out}).code, 2);

    // A cut between the two files is told, and mended.
    const string half = dir.path("half");
    EXPECT_EQ(run({"trace", "trim", a, half}).code, 0);
    dir.write("half/img.trc", dir.read("half/img.trc").substr(0, 32));
    for (const Words& words : {Words{"trace", "merge", out, half, a}, Words{"trace", "keep", half, "0", "1"}})
        EXPECT_THAT(run(words).err, HasSubstr("tavrin trace mend TRACE"));
    EXPECT_FALSE(parseJson(run({"trace", "info", half, "--json"}).out).getElem("matches").toBool());
    EXPECT_EQ(json({"mend", half}), R"({"lost":0,"items":2,"duration":1000)" + set);
    EXPECT_EQ(run({"trace", "merge", out, half, a}).code, 0);

    const string image = makeImage("image2");
    EXPECT_EQ(
        json({"build", dir.path("image")}),
        R"({"joined":2,"held":0,"corrupted":0,"removed":[],"left":[],"items":6,"duration":6000,"method":"inc-monitoring"})");
    // Runs one after the other make no order and no merge, by whatever way they have come.
    const string built = dir.path("image/traces/merged"), copy = dir.path("copy");
    const Words asMerge = {"trace", "merge", dir.path("twice"), built};
    EXPECT_THAT(run(asMerge).err, HasSubstr("take the runs' own traces: tavrin trace merge OUT TRACE..."));
    EXPECT_EQ(run({"trace", "trim", built, copy}).code, 0);
    EXPECT_EQ(run({"trace", "shift", copy, "1"}).code, 0);
    for (const string& series : {built, copy}) {
        const Words asOrder = {"image", "order", image, series, dir.path("index")};
        EXPECT_THAT(run(asOrder).err, HasSubstr("was joined of several runs"));
    }
    EXPECT_THAT(json({"info", built}), HasSubstr(R"("sources":2)"));
    EXPECT_EQ(run({"trace", "build", dir.path("image")}).out,
              "Joined before: 2 traces.\nNothing to merge.\n");
    std::filesystem::remove_all(dir.path("image/traces"));
    EXPECT_THAT(run({"trace", "build", dir.path("image")}).err, HasSubstr("Cannot find "));
    EXPECT_THAT(run({"trace", "build", dir.path("letters")}).err, HasSubstr("holds no image"));
}
