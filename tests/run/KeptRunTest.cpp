#include "StreamRun.h"
#include "SxMd5.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqStretchStore.h"

#include <algorithm>
#include <fstream>

using testing::AllOf;

// What a download keeps and completes beyond a run.

TEST_F(StreamRun, NothingIsFetchedTwiceOverTwoRuns) {
    server->setRate(20'000'000);
    for (const bool packed : {false, true}) {
        SCOPED_TRACE(packed ? "packed" : "plain");
        fs::remove_all(got);
        fs::remove(played + ".half");
        if (packed) done({"image", "pack", served, "--level", "1"});
        const SxString name = packed ? "img.zqf.zst" : "img.zqf";
        // The application reads files far beyond what has arrived in order, until it is ended.
        dir.write("played.pause", "");
        const auto first = start({"--now", "--rate", "100000"});
        ASSERT_TRUE(SxWait::pass(30'000, [this] {
            return fs::exists(played + ".half") && fs::file_size(played + ".half") > 1'000'000;
        })) << first->says();
        first->signal(SIGINT);
        EXPECT_EQ(first->end(), 0) << first->says();
        fs::remove(played + ".pause");
        EXPECT_THAT(first->says(),
                    AllOf(HasSubstr("are still missing; `tavrin fetch"), HasSubstr("ended by you")));
        const uint64 nStored = ZqStretchStore::sizeIn(SxString(got)),
                     size = fs::file_size(served + "/img.zqf");
        ASSERT_GT(nStored, 1'000'000u);
        // What is damaged is fetched again, and nothing else is.
        const string kept = dir.read("got/img.ahead"), image = dir.read("served/img.zqf");
        size_t damaged = 10 * 204'800;
        while (damaged + 204'800 < kept.size() &&
               kept.compare(damaged, 204'800, image, damaged, 204'800) != 0)
            damaged += 204'800;
        ASSERT_LT(damaged + 204'800, kept.size());
        std::fstream(got + "/img.ahead", std::ios::in | std::ios::out)
                .seekp(static_cast<std::streamoff>(damaged + 50))
            << "damaged";
        const uint64 nBefore = server->getNBytes(name);
        const auto second = start({"--now", "--complete", "--report", dir.path("report.json")});
        EXPECT_EQ(second->end(60'000), 0) << second->says();
        expectPlayed();
        expectComplete();
        EXPECT_FALSE(isMounted());
        // The start of the first stretch, the damaged stretch and the table are fetched again.
        EXPECT_LT(server->getNBytes(name) - nBefore, size - nStored + 3 * 204'800) << second->says();
        EXPECT_THAT(dir.read("report.json"), HasSubstr("\"missingBytes\": 0"));
        EXPECT_FALSE(fs::exists(got + "/img.ahead") || fs::exists(got + "/img.ahead.idx"));
    }
}

TEST_F(StreamRun, AFetchCompletesAnImageWithoutADrive) {
    server->setRate(20'000'000);
    const Outcome outcome = run({"fetch", got, "--url", server->getUrl().str(), "--json"});
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("\"missingBytes\": 0"), HasSubstr("\"complete\": true")));
    expectComplete();
    EXPECT_TRUE(processesOf(false).empty()) << "no service is needed";
    // Another address is looked at before it is noted.
    const string other = dir.path("other");
    fs::create_directory(other);
    fs::copy_file(served + "/app.json", other + "/app.json");
    ZqFileServer mirror{SxString(other)};
    mirror.start();
    const auto fetchFrom = [&](const string& url) { return run({"fetch", got, "--url", url}); };
    const string right = dir.read("other/app.json"), noted = dir.read("got/stream.json");
    dir.write("other/app.json", SxString(right).substitute("\"sizeZqf\": ", "\"sizeZqf\": 1").str());
    EXPECT_THAT(fetchFrom(mirror.getUrl().str()).err, HasSubstr("another"));
    fs::remove(other + "/app.json");
    EXPECT_EQ(fetchFrom(mirror.getUrl().str()).code, 1);
    EXPECT_EQ(dir.read("got/stream.json"), noted);
    dir.write("other/app.json", right);
    EXPECT_EQ(fetchFrom(mirror.getUrl().str()).code, 0);
    EXPECT_THAT(dir.read("got/stream.json"), HasSubstr(mirror.getUrl().str()));
    mirror.stop();
    server->stop();
    EXPECT_EQ(run({"fetch", got}).code, 0) << "complete, it needs no server";
    EXPECT_EQ(run({"run", got}).code, 0);
    expectPlayed();
    std::ofstream(got + "/img.zqf", std::ios::app) << "x";
    fs::resize_file(got + "/img.zqf", fs::file_size(served + "/img.zqf"));
    std::fstream(got + "/img.zqf", std::ios::in | std::ios::out).seekp(9000) << "damaged";
    const Outcome wrong = run({"fetch", got});
    EXPECT_EQ(wrong.code, 1);
    EXPECT_THAT(wrong.err, HasSubstr("has the digest"));
}

TEST_F(StreamRun, APartialImageIsCarriedOverToTheServersNewOrder) {
    // Half of it is there when the publisher ships the same version in another order.
    const uint64 size = fs::file_size(served + "/img.zqf");
    fs::create_directory(got);
    for (const char* name : {"app.json", "img.json", "img.idx", "img.zqf"})
        fs::copy_file(served + "/" + name, got + "/" + name);
    fs::resize_file(got + "/img.zqf", size / 2);

    const SxString image = served + "/", index = dir.path("index/");
    fs::create_directory(index.str());
    fs::copy_file(served + "/img.json", dir.path("index/img.json"));
    SxArray<uint64> map = ZqImage(image).getMap();
    const auto nIncluded = static_cast<uint64>(
        std::count_if(map.begin(), map.end(), [](uint64 entry) { return entry != ZqImage::NO_ENTRY; }));
    // The second half of what was there comes first.
    const uint64 first = size / ZqBlocks::SIZE / 4;
    for (uint64& entry : map) {
        if (entry != ZqImage::NO_ENTRY) entry = (entry + nIncluded - first) % nIncluded;
    }
    const string bytes(reinterpret_cast<const char*>(map.data()),
                       static_cast<size_t>(map.getSize()) * sizeof(uint64));
    dir.write("index/img.idx", bytes);
    ZqAppParams app(image);
    app.checksumIdx = SxMd5::get(SxString(bytes));
    app.checksumZqf = "";
    app.write(index);
    ASSERT_EQ(run({"image", "optimize", served, index.str()}).code, 0);
    app.checksumZqf = SxMd5::file(image + "img.zqf");
    app.write(image);

    const Outcome outcome = run({"fetch", got, "--url", server->getUrl().str()});
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("The server has another block order by now"));
    expectComplete();
    EXPECT_FALSE(fs::exists(got + "/optimize.work") || fs::exists(got + "/optimize.index"));
    EXPECT_LT(server->getNBytes("img.zqf"), size * 9 / 10) << "what was there was downloaded again";
    EXPECT_EQ(run({"run", got}).code, 0);
    expectPlayed();
}
