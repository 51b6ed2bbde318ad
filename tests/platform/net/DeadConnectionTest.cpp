#include "Builders.h"
#include "LinkProxy.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqRangeReader.h"
#include "ZqRemoteFile.h"

#include <gmock/gmock.h>
#include <list>

namespace {

constexpr uint64 RANGE = 50'000;

int64 nowMs() {
    return SxClock::get().steadyNs() / 1'000'000;
}

ZqNetSettings patientSettings() {
    ZqNetSettings settings = quickSettings();
    settings.secondMs = 300;
    settings.stallMs = 3'000;
    return settings;
}

class DeadConnection : public testing::Test {
protected:
    DeadConnection() {
        dir.write("data", bytes);
        server.start();
        proxy = std::make_unique<LinkProxy>(server.getPort());
        file = SxPtr<ZqRemoteFile>::create(link, SxString(proxy->url("data")));
    }
    using Readers = std::list<ZqRangeReader>;
    /// Requests ranges beside each other.
    void begin(Readers* readers, int n) {
        for (int i = 0; i < n; ++i) {
            const auto first = static_cast<uint64>(i) * RANGE;
            readers->emplace_back(*file, first, first + RANGE, ZqTransfer::Kind::OnDemand).begin();
        }
    }
    void expectRight(ZqRangeReader& reader) {
        const uint64 first = reader.getPos();
        std::string buffer(RANGE, '\0');
        ASSERT_EQ(reader.readAll(buffer.data(), RANGE, nullptr), RANGE);
        EXPECT_TRUE(buffer == bytes.substr(first, RANGE)) << "from " << first;
    }
    /// Leaves so many connections idle.
    void connect(int n) {
        server.setLatency(100);
        Readers readers;
        begin(&readers, n);
        for (ZqRangeReader& reader : readers)
            expectRight(reader);
        server.setLatency(0);
        ASSERT_EQ(proxy->getNConnections(), n);
    }

    TestRandom random;
    const std::string bytes = random.bytes(3'000'000);
    TempDir dir;
    ZqFileServer server{dir.prefix()};
    std::unique_ptr<LinkProxy> proxy;
    SxPtr<ZqNetLink> link = SxPtr<ZqNetLink>::create(patientSettings());
    SxPtr<ZqRemoteFile> file;
};

} // namespace

TEST_F(DeadConnection, fiveOfThemCostOneWait) {
    connect(5);
    proxy->forgetConnections();
    const uint64 nBefore = link->getFigures().nRequests;
    const int64 start = nowMs();
    for (int i = 0; i < 5; ++i) {
        Readers one;
        begin(&one, 1);
        expectRight(one.front());
    }
    EXPECT_GE(nowMs() - start, 300);
    EXPECT_LT(nowMs() - start, 1500);
    EXPECT_EQ(link->getFigures().nRequests - nBefore, 6u);
}

TEST_F(DeadConnection, theyCostNoMoreWhereAllAreAskedAtOnce) {
    connect(5);
    proxy->forgetConnections();
    const int64 start = nowMs();
    Readers readers;
    begin(&readers, 5);
    for (ZqRangeReader& reader : readers)
        expectRight(reader);
    EXPECT_LT(nowMs() - start, 1500);
}

TEST_F(DeadConnection, goesOnInTheMiddleOfARange) {
    server.setRate(2'000'000);
    const int64 start = nowMs();
    std::string buffer(1'500'000, '\0');
    ZqRangeReader reader(*file, 1000, 1000 + buffer.size(), ZqTransfer::Kind::OnDemand);
    ASSERT_EQ(reader.read(buffer.data(), 300'000, nullptr), 300'000u);
    proxy->forgetConnections();
    ASSERT_EQ(reader.read(buffer.data() + 300'000, buffer.size(), nullptr), buffer.size() - 300'000);
    EXPECT_TRUE(buffer == bytes.substr(1000, buffer.size()));
    EXPECT_LT(nowMs() - start, 2500);
}

TEST_F(DeadConnection, theFirstOfBothThatAnswersIsTaken) {
    // Both requests are answered, and the first of both answers is enough.
    server.setLatency(500);
    Readers late;
    begin(&late, 1);
    expectRight(late.front());
    EXPECT_EQ(link->getFigures().nRequests, 2u);
    // The figures count what both have brought.
    EXPECT_GE(link->getFigures().nBytes, RANGE);
    server.setLatency(0);
}

TEST_F(DeadConnection, neverHasAThirdBesideIt) {
    ZqNetSettings settings = patientSettings();
    settings.stallMs = 1'000;
    settings.nRangeTries = 1;
    const auto once = SxPtr<ZqNetLink>::create(settings);
    const ZqRemoteFile dead(once, SxString(proxy->url("data")));
    proxy->setDead(true);
    ZqRangeReader reader(dead, 0, RANGE, ZqTransfer::Kind::OnDemand);
    std::string buffer(RANGE, '\0');
    try {
        reader.readAll(buffer.data(), RANGE, nullptr);
        FAIL() << "it was answered";
    } catch (const SxException& e) {
        EXPECT_TRUE(e.hasTag(ZqNetLink::UNREACHABLE)) << e.what();
    }
    EXPECT_EQ(proxy->getNConnections(), 2);
    // A small file isn't asked for twice, nor is an ordered stream.
    for (const auto kind : {ZqTransfer::Kind::Small, ZqTransfer::Kind::Ordered}) {
        ZqRangeReader other(dead, 0, RANGE, kind);
        const int64 start = nowMs();
        EXPECT_ANY_THROW(other.readAll(buffer.data(), RANGE, [&] { return nowMs() - start > 600; }));
    }
    EXPECT_EQ(proxy->getNConnections(), 4);
}

TEST_F(DeadConnection, aSecondThatIsRefusedLeavesTheFirstAlone) {
    server.setFault(ZqFileServer::Stall);
    ZqRangeReader reader(*file, 0, RANGE, ZqTransfer::Kind::OnDemand);
    std::string buffer(RANGE, '\0');
    ASSERT_EQ(reader.read(buffer.data(), RANGE / 4, nullptr), RANGE / 4);
    server.setFault(ZqFileServer::Error403);
    int nLooks = 0;
    const auto goOn = [&] {
        if (server.getNRequests() > 1 && ++nLooks == 10) server.setFault(ZqFileServer::Stall, false);
        return false;
    };
    EXPECT_EQ(reader.read(buffer.data() + RANGE / 4, RANGE, goOn), RANGE - RANGE / 4);
    EXPECT_TRUE(buffer == bytes.substr(0, RANGE));
    EXPECT_EQ(server.getNRequests(), 2u);
}

TEST_F(DeadConnection, aStalledStreamGoesOnOverAFreshOne) {
    ZqNetSettings settings = quickSettings();
    settings.stallMs = 500;
    link = SxPtr<ZqNetLink>::create(settings);
    file = SxPtr<ZqRemoteFile>::create(link, SxString(proxy->url("data")));
    server.setRate(4'000'000);
    std::string all;
    int64 start = 0;
    {
        // Streams that have ended leave connections idle, each of which would cost a stall.
        server.setLatency(100);
        Readers others;
        for (int i = 0; i < 6; ++i)
            others.emplace_back(*file, 0, RANGE, ZqTransfer::Kind::Ordered).begin();
        for (ZqRangeReader& reader : others)
            expectRight(reader);
        server.setLatency(0);
    }
    ASSERT_GE(proxy->getNConnections(), 4);
    file->stream(0, [&](const char* piece, int64 n) {
        if (start == 0 && all.size() > 500'000) {
            proxy->forgetConnections();
            start = nowMs();
        }
        all.append(piece, static_cast<size_t>(n));
        return true;
    });
    EXPECT_TRUE(all == bytes);
    EXPECT_LT(nowMs() - start, 2000);
}
