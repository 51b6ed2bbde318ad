#include "StreamRun.h"

// What becomes of the part of an image that an earlier run has left, and that was damaged since.

namespace {

constexpr uint64 STRETCH = 204'800;
constexpr uint64 PART = 3'000'000;

void overwrite(const string& file, uint64 at, const string& bytes) {
    std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(at));
    out << bytes;
}

} // namespace

TEST_F(StreamRun, NoGameReadsWhatWasDamagedBetweenTwoRuns) {
    done({"image", "pack", served, "--level", "1"});
    const string zqf = got + "/img.zqf";
    const uint64 whole = fs::file_size(served + "/img.zqf");
    TestRandom random;
    const string other = random.bytes(PART), large = random.bytes(whole + 5'000);
    // The table's and that of the records come, too.
    constexpr uint64 LITTLE = 200'000;
    const struct {
        const char* name;
        int end; ///< the signal that ends the first run
        std::function<void()> damage;
        uint64 nTwice; ///< most bytes that are fetched again
    } cases[] = {
        {"as it was", SIGINT, [] {}, LITTLE},
        {"a stretch of zeros", SIGINT, [&] { overwrite(zqf, 5 * STRETCH, string(STRETCH, '\0')); },
         2 * STRETCH},
        {"longer than it was", SIGINT, [&] { std::ofstream(zqf, std::ios::app | std::ios::binary) << other; },
         2 * PART},
        {"as long as the image", SIGINT, [&] { overwrite(zqf, PART / 2, large.substr(0, whole - PART / 2)); },
         2 * PART},
        {"another file that is longer than the image", SIGINT, [&] { dir.write("got/img.zqf", large); },
         2 * PART},
        {"all of it", SIGINT,
         [&] { fs::copy_file(served + "/img.zqf", zqf, fs::copy_options::overwrite_existing); }, 0},
        {"killed, and a byte", SIGKILL, [&] { overwrite(zqf, 1'000'000, "\x55\xaa"); }, 2 * STRETCH},
        {"killed, and another file", SIGKILL, [&] { dir.write("got/img.zqf", other); }, 2 * PART},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        fs::remove_all(got);
        server->setRate(6'000'000);
        {
            Client first(client, {"fetch", got, "--url", server->getUrl().str()}, dir.path("first"));
            ASSERT_TRUE(eventually([&] { return fs::exists(zqf) && fs::file_size(zqf) > PART; }))
                << first.says();
            first.signal(each.end);
            ASSERT_NE(first.end(), 0) << first.says();
        }
        ASSERT_LT(fs::file_size(zqf), whole);
        const uint64 nThere = fs::file_size(zqf), nBefore = server->getNBytes();
        EXPECT_EQ(dir.read("got/stream.json").find("\"leftSize\"") != string::npos, each.end == SIGINT);
        each.damage();
        server->setRate(20'000'000);
        const auto player = start({"--now", "--complete"});
        EXPECT_EQ(player->end(60'000), 0) << player->says();
        expectPlayed();
        expectComplete();
        EXPECT_LE(server->getNBytes() - nBefore, each.nTwice > 0 ? whole - nThere + each.nTwice : LITTLE)
            << player->says();
        EXPECT_THAT(dir.read("got/stream.json"), testing::Not(HasSubstr("\"leftSize\"")));
    }
}
