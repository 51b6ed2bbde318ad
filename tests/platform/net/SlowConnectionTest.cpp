#include "Builders.h"
#include "LinkProxy.h"
#include "Loopback.h"
#include "NetLab.h"
#include "NginxServer.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqNetProgress.h"
#include "ZqRangeReader.h"
#include "ZqRemoteFile.h"

#include <gmock/gmock.h>
#include <list>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using Kind = ZqTransfer::Kind;
using testing::HasSubstr;

namespace {

constexpr int64 TRICKLE = 200; ///< bytes per second of a connection that is of no use

int64 nowMs() {
    return SxClock::get().steadyNs() / 1'000'000;
}

/// A stop after so much time, for what would last for ever.
ZqStopTest within(int64 ms) {
    const int64 start = nowMs();
    return [start, ms] { return nowMs() - start > ms; };
}

class SlowConnection : public testing::Test {
protected:
    SlowConnection() {
        dir.write("data", bytes);
        server.start();
        proxy = std::make_unique<LinkProxy>(server.getPort());
        connect(quickSettings());
    }
    void connect(const ZqNetSettings& settings) {
        link = SxPtr<ZqNetLink>::create(settings);
        file = SxPtr<ZqRemoteFile>::create(link, SxString(proxy->url("data")));
    }
    /// Begins the reader's request; its connection trickles, and no other one.
    void beginTrickling(ZqRangeReader* reader, int64 rate = TRICKLE) {
        const int64 before = proxy->getNConnections();
        proxy->setTrickle(rate);
        reader->begin();
        SxWait::pass(
            5000, [&] { return proxy->getNConnections() > before; }, 1);
        proxy->setTrickle(0);
    }
    void expectRight(ZqRangeReader& reader, uint64 n) {
        const uint64 first = reader.getPos();
        std::string buffer(n, '\0');
        ASSERT_EQ(reader.readAll(buffer.data(), n, within(15'000)), n);
        EXPECT_TRUE(buffer == bytes.substr(first, n)) << "from " << first;
    }

    TestRandom random;
    const std::string bytes = random.bytes(1'000'000);
    TempDir dir;
    ZqFileServer server{dir.prefix()};
    std::unique_ptr<LinkProxy> proxy;
    SxPtr<ZqNetLink> link;
    SxPtr<ZqRemoteFile> file;
};

/// Answers its first connection with interim answers that never end, the others rightly.
class InterimServer : public SxSystemThread {
public:
    explicit InterimServer(const std::string& file_) : file(file_) {
        listener = Loopback::listen(&port);
        start();
    }
    ~InterimServer() override {
        ending = true;
        wait();
        if (first >= 0) ::close(first);
        ::close(listener);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/data"; }

protected:
    void main() override {
        while (!ending) {
            pollfd polled{listener, POLLIN, 0};
            if (::poll(&polled, 1, 10) > 0) answer(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            if (first >= 0) send(first, "HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n");
        }
    }

private:
    static void send(int fd, const std::string& text) {
        (void)::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void answer(int fd) {
        if (first < 0) {
            first = fd;
            return;
        }
        char buffer[4096];
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n > 0) send(fd, ScriptedServer::ranged(std::string(buffer, static_cast<size_t>(n)), file));
        ::close(fd);
    }

    const std::string file;
    int listener = -1, port = 0;
    int first = -1;
    std::atomic<bool> ending{false};
};

} // namespace

TEST(NetProgress, theUsefulRateIsAPartOfWhatTheLinkCarries) {
    struct Case {
        double best;
        int64 nBeside;
        double least, most;
    };
    // These are slow links, for one request and for five, and fast ones.
    for (const Case& each : {Case{0., 1, 300., 500.}, Case{1'500., 1, 300., 500.}, Case{1'500., 5, 60., 100.},
                             Case{100'000., 1, 1'000., 3'000.}, Case{1e8, 1, 5'000., 10'000.}}) {
        const double rate = ZqNetProgress::getUsefulRate(each.best, each.nBeside);
        EXPECT_GE(rate, each.least) << each.best;
        EXPECT_LE(rate, each.most) << each.best;
    }
}

TEST_F(SlowConnection, aStreamThatTricklesFromItsBeginIsAskedForAgain) {
    ZqRangeReader reader(*file, 0, ZqRemoteFile::UNKNOWN, Kind::Ordered);
    beginTrickling(&reader);
    const int64 start = nowMs();
    expectRight(reader, bytes.size());
    EXPECT_LT(nowMs() - start, 3'000);
}

TEST_F(SlowConnection, soIsOneThatBeginsToTrickle) {
    // The second of these rates is slow only compared with what the link has carried.
    for (const int64 trickle : {TRICKLE, int64{2'000}}) {
        connect(quickSettings());
        server.setRate(2'000'000);
        ZqRangeReader reader(*file, 0, bytes.size(), Kind::Ordered);
        std::string all(bytes.size(), '\0');
        ASSERT_EQ(reader.read(all.data(), 500'000, nullptr), 500'000u);
        proxy->trickleConnections(trickle);
        ASSERT_EQ(reader.read(all.data() + 500'000, all.size(), within(3'000)), all.size() - 500'000);
        EXPECT_TRUE(all == bytes);
    }
}

TEST_F(SlowConnection, aRecordThatTricklesIsAskedForAgainAndTheLinkSaysSo) {
    ZqNetSettings settings = quickSettings();
    settings.stallMs = 2'000;
    settings.firstBackOffMs = settings.maxBackOffMs = 300;
    connect(settings);
    ZqRangeReader reader(*file, 0, 3'000, Kind::Small);
    // So much is enough for the head of the answer.
    beginTrickling(&reader, 300);
    std::string said, got(3'000, '\0');
    const ZqStopTest tooLate = within(6'000);
    const auto look = [&] {
        if (said.empty()) said = link->getStatus().str();
        return tooLate();
    };
    ASSERT_EQ(reader.readAll(got.data(), got.size(), look), got.size());
    EXPECT_TRUE(got == bytes.substr(0, got.size()));
    EXPECT_THAT(said, HasSubstr("too slowly"));
    EXPECT_EQ(link->getStatus(), "");
}

TEST_F(SlowConnection, whatSomebodyWaitsForIsAskedForTwice) {
    ZqNetSettings settings = quickSettings();
    settings.secondMs = 300;
    settings.stallMs = 20'000;
    connect(settings);
    constexpr uint64 RANGE = 50'000;
    server.setFault(ZqFileServer::Stall);
    std::list<ZqRangeReader> readers;
    for (uint64 i = 0; i < 3; ++i)
        readers.emplace_back(*file, i * RANGE, (i + 1) * RANGE, Kind::OnDemand).begin();
    std::string half(RANGE / 2, '\0');
    for (ZqRangeReader& reader : readers)
        ASSERT_EQ(reader.read(half.data(), half.size(), nullptr), half.size());
    proxy->trickleConnections(TRICKLE);
    server.setFault(ZqFileServer::Stall, false);
    const int64 start = nowMs();
    for (ZqRangeReader& reader : readers)
        expectRight(reader, RANGE / 2);
    EXPECT_LT(nowMs() - start, 3'000);
    EXPECT_EQ(link->getFigures().nRequests, 6u);
}

TEST_F(SlowConnection, aRangeThatTricklesDoesNotHoldTheStream) {
    ZqNetSettings settings = quickSettings();
    settings.secondMs = settings.stallMs = 60'000;
    connect(settings);
    ZqRangeReader range(*file, 0, 50'000, Kind::OnDemand);
    beginTrickling(&range);
    ZqRangeReader stream(*file, 0, bytes.size(), Kind::Ordered);
    std::string all(bytes.size(), '\0');
    EXPECT_EQ(stream.readAll(all.data(), all.size(), within(5'000)), all.size());
    EXPECT_TRUE(all == bytes);
}

TEST_F(SlowConnection, interimAnswersAreNoProgress) {
    InterimServer interim(bytes.substr(0, 3'000));
    const ZqRemoteFile hinted(link, SxString(interim.url()));
    ZqRangeReader reader(hinted, 0, 3'000, Kind::Small);
    std::string got(3'000, '\0');
    ASSERT_EQ(reader.readAll(got.data(), got.size(), within(5'000)), got.size());
    EXPECT_TRUE(got == bytes.substr(0, got.size()));
}

TEST_F(SlowConnection, aLinkThatIsSlowForAllGoesOn) {
    ZqNetSettings settings = quickSettings();
    settings.stallMs = 2'000;
    settings.secondMs = 1'000;
    connect(settings);
    proxy->setRate(1'500);
    ZqRangeReader stream(*file, 0, 2'000, Kind::Ordered);
    stream.begin();
    std::list<ZqRangeReader> readers;
    for (uint64 first = 10'000; first < 40'000; first += 10'000)
        readers.emplace_back(*file, first, first + 1'600, Kind::OnDemand).begin();
    for (ZqRangeReader& reader : readers)
        expectRight(reader, 1'600);
    expectRight(stream, 2'000);
    EXPECT_EQ(link->getFigures().nRetries, 0u);
    // One of the four may get a second request to be compared with.
    EXPECT_LE(link->getFigures().nRequests, 5u);
}

TEST_F(SlowConnection, oneThatIsSlowerThanExpectedIsAskedAgainLessAndLess) {
    ZqNetSettings settings = quickSettings();
    settings.stallMs = 1'500;
    connect(settings);
    proxy->setRate(300);
    ZqRangeReader reader(*file, 0, 1'500, Kind::Ordered);
    expectRight(reader, 1'500);
    EXPECT_LE(link->getFigures().nRequests, 3u);
}

TEST_F(SlowConnection, aServerThatLimitsItsRateBehindAFastBeginIsLeftAlone) {
    server.setRate(4'000'000);
    ZqRangeReader reader(*file, 0, bytes.size(), Kind::Ordered);
    std::string all(bytes.size(), '\0');
    ASSERT_EQ(reader.read(all.data(), 300'000, nullptr), 300'000u);
    proxy->trickleConnections(20'000);
    // It may last six times as long as the limit of a stall.
    try {
        reader.read(all.data() + 300'000, all.size() - 300'000, within(2'400));
        FAIL() << "it wasn't slow";
    } catch (const SxException& e) {
        EXPECT_TRUE(e.hasTag(SxException::STOPPED)) << e.what();
    }
    EXPECT_EQ(link->getFigures().nRetries, 0u);
    EXPECT_EQ(link->getFigures().nRequests, 1u);
}

TEST_F(SlowConnection, theConsumersPaceIsNoFaultOfAConnection) {
    ZqNetSettings settings = quickSettings();
    settings.maxBuffered = 32 << 10;
    connect(settings);
    std::string all;
    const auto sink = [&](const char* piece, int64 n) {
        all.append(piece, static_cast<size_t>(n));
        // The consumer takes twice as long as the limit of a stall.
        if (all.size() < 200'000)
            SxWait::pass(
                2 * settings.stallMs, [] { return false; }, 10);
        return true;
    };
    EXPECT_TRUE(file->stream(0, sink));
    EXPECT_TRUE(all == bytes);
    EXPECT_EQ(link->getFigures().nRetries, 0u);
}

TEST_F(SlowConnection, aRecordOfTlsMayTakeLongerThanTheLimit) {
    NginxServer nginx(dir.path());
    const std::string url = nginx.url();
    const std::string port = url.substr(url.rfind(':') + 1);
    LinkProxy secure(std::stoull(port));
    ZqNetSettings settings = quickSettings();
    settings.stallMs = 1'000;
    settings.access.trustFile = SxString(nginx.authority());
    const auto encrypted = SxPtr<ZqNetLink>::create(settings);
    const ZqRemoteFile data(encrypted, SxString(secure.secureUrl("data")));
    // At this rate a TLS record of 16 KiB takes two seconds.
    secure.setRate(8'000);
    ZqRangeReader reader(data, 0, 30'000, Kind::Ordered);
    std::string got(30'000, '\0');
    ASSERT_EQ(reader.readAll(got.data(), got.size(), within(12'000)), got.size());
    EXPECT_TRUE(got == bytes.substr(0, got.size()));
    EXPECT_EQ(encrypted->getFigures().nRetries, 0u);
}
