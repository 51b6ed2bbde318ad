#include "Builders.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqImageSource.h"
#include "ZqODRDownloader.h"
#include "zqnetio.h"

#include <gmock/gmock.h>
#include <thread>

using testing::HasSubstr;

namespace {

class OdrDownloader : public testing::Test {
protected:
    OdrDownloader() {
        dir.write("img.zqf", bytes);
        server.start();
        url = server.getUrl() + "img.zqf";
    }
    std::string part(uint64 offset, uint64 size) const { return bytes.substr(offset, size); }
    static std::string text(const SxArray<char>& data) { return {data.begin(), data.end()}; }

    TestRandom random;
    const std::string bytes = random.bytes(2'000'000);
    TempDir dir;
    ZqFileServer server{dir.prefix()};
    SxString url;
    ZqODRDownloader downloader;
};

} // namespace

TEST_F(OdrDownloader, fetchesRanges) {
    SxArray<char> data(5000);
    EXPECT_EQ(downloader.onDemand(0, 5000, data), 1) << "without an address";
    EXPECT_THAT(downloader.getLastErrMsg().str(), HasSubstr("no address"));
    downloader.setURL(url);
    downloader.setHeaders(SxList<SxString>() << "X-Channel: 7");
    EXPECT_EQ(downloader.onDemand(4096, 5000, data), 0);
    EXPECT_EQ(text(data), part(4096, 5000));

    char* storage = data.data();
    EXPECT_EQ(ZqODRDownloader::onDemandCallback(100, 5000, &storage, &downloader), 0);
    EXPECT_EQ(text(data), part(100, 5000));

    const SxArray<uint64> offsets{0, 500'000, 1'999'000}, sizes{10, 204'800, 1000};
    SxArray<SxArray<char>> several;
    for (const uint64 size : sizes)
        several.append(SxArray<char>(static_cast<int64>(size)));
    EXPECT_EQ(downloader.multiOnDemand(offsets, sizes, several), 0);
    EXPECT_EQ(downloader.announce(offsets, sizes), 0);
    const uint64 nRequests = server.getNRequests();
    for (int64 i = 0; i < 3; ++i) {
        EXPECT_EQ(text(several(i)), part(offsets(i), sizes(i)));
        SxArray<char> again(static_cast<int64>(sizes(i)));
        EXPECT_EQ(downloader.onDemand(offsets(i), sizes(i), again), 0);
        EXPECT_EQ(text(again), part(offsets(i), sizes(i)));
    }
    EXPECT_LE(server.getNRequests() - nRequests, 3u) << "asked for again";

    EXPECT_EQ(downloader.onDemand(1'999'000, 5000, data), 1);
    EXPECT_THAT(downloader.getLastErrMsg().str(), HasSubstr("The file ends before"));
    EXPECT_TRUE(downloader.hasError());
    // The address may change in use, and a new one starts afresh.
    downloader.setURL(server.getUrl() + "none");
    EXPECT_EQ(downloader.onDemand(0, 10, data), 1);
    EXPECT_THAT(downloader.getLastErrMsg().str(), HasSubstr("answers 404"));
}

TEST_F(OdrDownloader, ends1WhileCancelled) {
    server.setFault(ZqFileServer::Stall);
    downloader.setURL(url);
    SxArray<char> data(5000);
    std::thread helper([&] {
        SxTime::msleep(100);
        downloader.cancel();
    });
    const int64 start = SxClock::get().steadyNs();
    EXPECT_EQ(downloader.onDemand(0, 5000, data), 1);
    helper.join();
    EXPECT_EQ(downloader.onDemand(0, 5000, data), 1);
    EXPECT_LT(SxClock::get().steadyNs() - start, 700'000'000);
    EXPECT_THAT(downloader.getLastErrMsg().str(), HasSubstr("was stopped"));
    server.setFault(ZqFileServer::Stall, false);
    downloader.cancel(false);
    EXPECT_EQ(downloader.onDemand(0, 5000, data), 0);
}

TEST_F(OdrDownloader, downloadsAWholeFile) {
    EXPECT_FALSE(downloader.hasFinished());
    EXPECT_THROW(downloader.start(), SxException);
    ZqODRDownloader whole;
    whole.setURL(url);
    whole.setFilePath(dir.path("copy"));
    whole.setChunkingParams(1 << 20, 1 << 20);
    whole.setThrottle(20e6);
    whole.start();
    whole.wait();
    EXPECT_TRUE(whole.hasFinished());
    EXPECT_TRUE(dir.read("copy") == bytes);
    EXPECT_EQ(whole.getProgress().first, bytes.size());
    EXPECT_EQ(whole.getProgress().second, bytes.size());

    ZqODRDownloader failing;
    failing.setURL(server.getUrl() + "none");
    failing.setFilePath(dir.path("none"));
    failing.start();
    try {
        failing.wait();
        ADD_FAILURE() << "no failure";
    } catch (const SxException& e) {
        EXPECT_THAT(std::string(e.what()), HasSubstr("answers 404"));
    }
    EXPECT_TRUE(failing.hasFinished());
    EXPECT_FALSE(dir.exists("none"));
}

TEST_F(OdrDownloader, sharesAnImageWithOthersWhereThereIsOne) {
    const auto link = SxPtr<ZqNetLink>::create(quickSettings());
    const auto image = SxPtr<ZqRemoteImage>::create(link, server.getUrl(), bytes.size());
    ZqImageSource source(image);
    std::string data(204'800, '\0');
    source.announce({204'800}, {204'800}, {});
    source.read(204'800, 204'800, data.data(), false);
    EXPECT_TRUE(data == part(204'800, 204'800));
    EXPECT_EQ(image->getFigures().nOnDemand, 204'800u);
    // Apart, whatever is kept of it, also over the border of two stretches.
    const uint64 nRequests = server.getNRequests();
    std::string anew(1000, '\0');
    source.read(409'100, 1000, anew.data(), true);
    EXPECT_TRUE(anew == part(409'100, 1000));
    EXPECT_GE(server.getNRequests(), nRequests + 2);
    // The stop of one is none for the image.
    source.cancel(true);
    EXPECT_THROW(source.read(409'600, 1, data.data(), false), SxException);
    char byte = 0;
    image->read(409'600, 1, &byte);
    EXPECT_EQ(byte, bytes[409'600]);
    source.cancel(false);
    source.read(409'600, 1, data.data(), false);
}

TEST(Netio, givesAStatusForNoDownload) {
    void* none = nullptr;
    uint64 n = 0;
    EXPECT_EQ(zqNetioDownloadErr(&none, &n), 2);
    EXPECT_EQ(zqNetioDownloadFree(nullptr), 2);
    EXPECT_STREQ(zqNetioStrError(2), "There is no such download");
    EXPECT_EQ(zqNetioStart(1), 0);
    EXPECT_EQ(zqNetioStop(), 0);
}
