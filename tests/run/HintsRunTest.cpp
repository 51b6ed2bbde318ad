#include "StreamRun.h"
#include "ZqBlocks.h"
#include "ZqOrderHints.h"

#include <unistd.h>

// What the order knows of sessions, in a whole run.

namespace {

constexpr size_t BLOCK = ZqBlocks::SIZE;

string blockOf(const string& file, size_t at) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    string block(BLOCK, '\0');
    const ssize_t n = ::pread(fd, block.data(), BLOCK, static_cast<off_t>(at));
    ::close(fd);
    block.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return block;
}

} // namespace

TEST_F(StreamRun, WhatHintsNameIsThereBeforeItIsRead) {
    const string right = dir.read("game/big.pak"), zqf = dir.read("served/img.zqf");
    const size_t first = right.size() / 2 / BLOCK * BLOCK,
                 second = (right.size() - 3 * BLOCK) / BLOCK * BLOCK;
    const auto stretchOf = [&](size_t at) {
        const size_t found = zqf.find(right.substr(at, BLOCK));
        EXPECT_NE(found, string::npos);
        return static_cast<uint32>(found / ZqBlocks::STRETCH);
    };
    const uint32 missed = stretchOf(first), hot = stretchOf(second);
    ASSERT_GT(hot, missed + 1) << "the two must not come together by themselves";
    const ZqAppParams app(SxString(served + "/"));
    ZqOrderHints hints(app.checksumIdx);
    hints.groups = {{0, static_cast<uint32>(zqf.size() / ZqBlocks::STRETCH), {hot}, {}}};
    hints.write(served);
    server->setLatency(20);
    server->setRate(1'000'000);
    Client feeder(client, {"mount", got, "--url", server->getUrl().str()}, dir.path("fed"));
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return statusOf(got).ready; })) << feeder.says();
    ASSERT_TRUE(SxWait::pass(10'000, [&] { return fs::exists(got + "/img.hints"); }));
    EXPECT_EQ(dir.read("got/img.hints"), dir.read("served/img.hints"));
    const string file = statusOf(got).mountPath.str() + "/TAVRIN-protected/app/big.pak";
    ASSERT_EQ(blockOf(file, first), right.substr(first, BLOCK));
    const size_t at = size_t{hot} * ZqBlocks::STRETCH,
                 size = std::min<size_t>(ZqBlocks::STRETCH, zqf.size() - at);
    const auto isKept = [&] {
        return fs::exists(got + "/img.ahead") &&
               dir.read("got/img.ahead").compare(at, size, zqf, at, size) == 0;
    };
    ASSERT_TRUE(SxWait::pass(20'000, isKept, 50)) << feeder.says();
    EXPECT_LT(fs::file_size(got + "/img.zqf"), at) << "the download must not have come so far";
    // From now on nothing comes over the network.
    server->setFault(ZqFileServer::Stall);
    const int64 beginNs = SxClock::get().steadyNs();
    EXPECT_EQ(blockOf(file, second), right.substr(second, BLOCK));
    EXPECT_LT((SxClock::get().steadyNs() - beginNs) / 1'000'000, 2000);
    server->setFault(ZqFileServer::Stall, false);
    server->setRate(0);
    done({"umount", got});
    EXPECT_EQ(feeder.end(), 0) << feeder.says();
    EXPECT_THAT(run({"image", "info", got}).out, HasSubstr("Hints         1 group, 1 hot stretch"));
    EXPECT_THAT(run({"image", "info", got, "--json"}).out, HasSubstr("\"hotStretches\": 1"));
}
