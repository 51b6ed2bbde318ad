#include "Builders.h"
#include "Failure.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqRemoteFile.h"

#include <atomic>
#include <gmock/gmock.h>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

using FilePtr = SxPtr<ZqRemoteFile>;

int64 nowMs() {
    return SxClock::get().steadyNs() / 1'000'000;
}

class RemoteFile : public testing::Test {
protected:
    RemoteFile() {
        dir.write("data", bytes);
        server.start();
    }
    FilePtr open(uint64 expected = ZqRemoteFile::UNKNOWN) {
        return FilePtr::create(link, server.getUrl() + "data", SxArray<SxString>(), expected);
    }
    std::string read(const FilePtr& file, uint64 offset, uint64 size) {
        std::string buffer(size, '\0');
        file->read(offset, size, buffer.data());
        return buffer;
    }
    std::string stream(const FilePtr& file, uint64 offset) {
        std::string all;
        file->stream(offset, [&](const char* piece, int64 n) {
            all.append(piece, static_cast<size_t>(n));
            return true;
        });
        return all;
    }

    TestRandom random;
    const std::string bytes = random.bytes(3'000'000);
    TempDir dir;
    ZqFileServer server{dir.prefix()};
    SxPtr<ZqNetLink> link = SxPtr<ZqNetLink>::create(quickSettings());
};

} // namespace

TEST_F(RemoteFile, givesWhatTheServerHas) {
    const FilePtr file = open(bytes.size());
    const std::pair<uint64, uint64> ranges[] = {
        {0, 1}, {1000, 204'800}, {bytes.size() - 1, 1}, {0, bytes.size()}};
    for (const auto& [offset, size] : ranges)
        EXPECT_TRUE(read(file, offset, size) == bytes.substr(offset, size)) << offset << "+" << size;
    EXPECT_EQ(file->getSize(), bytes.size());
    EXPECT_TRUE(stream(file, 0) == bytes);
    EXPECT_TRUE(stream(file, 2'999'999) == bytes.substr(2'999'999));
    EXPECT_EQ(SxString(file->get(3'000'000)).str(), bytes);
    // Ranges one after the other share a connection, and so does what comes after the stream.
    EXPECT_LE(server.getNConnections(), 3u);

    dir.write("empty", "");
    const auto empty = FilePtr::create(link, server.getUrl() + "empty");
    for (const FilePtr& each : {file, empty})
        each->fetchTo(dir.path(each == file ? "copy" : "empty copy"));
    EXPECT_TRUE(dir.read("copy") == bytes);
    EXPECT_EQ(dir.read("empty copy"), "");
    EXPECT_EQ(empty->get(10).getSize(), 0);
}

TEST_F(RemoteFile, saysWhatIsWrongWithAnAnswer) {
    struct Case {
        unsigned fault;
        const char* text;
    };
    const Case cases[] = {
        {ZqFileServer::WrongRange, "asked for bytes 1502000-1503999 and sends 1497904-1499903"},
        {ZqFileServer::Whole, "with the whole file (200)"},
        {ZqFileServer::Truncate, "has 1500000 bytes instead of 3000000"},
        {ZqFileServer::Error500, "Gave up after 3 tries: the server answers 500"},
    };
    for (const Case& each : cases) {
        const FilePtr file = open(bytes.size());
        server.setFault(static_cast<ZqFileServer::Fault>(each.fault));
        const SxException e = exceptionOf([&] { read(file, 1'502'000, 2000); });
        server.setFault(static_cast<ZqFileServer::Fault>(each.fault), false);
        EXPECT_THAT(std::string(e.what()), AllOf(HasSubstr(each.text), HasSubstr("/data'")));
        EXPECT_TRUE(read(file, 1000, 2000) == bytes.substr(1000, 2000)) << each.text;
    }
    // Each try brings half of what is left. Only tries that bring nothing are counted.
    server.setFault(ZqFileServer::Stall);
    EXPECT_THAT(std::string(exceptionOf([&] { read(open(), 1000, 2); }).what()),
                HasSubstr("Gave up after 3 tries: no data"));
    server.setFault(ZqFileServer::Stall, false);
    EXPECT_EQ(link->getStatus().str(), "");

    const auto none = FilePtr::create(link, server.getUrl() + "none");
    for (const auto& act : std::initializer_list<std::function<void()>>{
             [&] { none->get(10); }, [&] { read(none, 0, 1); }, [&] { none->fetchTo(dir.path("none")); }}) {
        EXPECT_TRUE(exceptionOf(act).hasTag(ZqNetLink::NOT_FOUND));
    }
    EXPECT_FALSE(dir.exists("none"));
    std::string secured = server.getUrl().str();
    secured.replace(0, 4, "https");
    EXPECT_THAT(std::string(exceptionOf([&] { FilePtr::create(link, secured + "data")->get(10); }).what()),
                AllOf(HasSubstr("may begin with http://"), Not(HasSubstr("Gave up"))));
    EXPECT_THAT(std::string(exceptionOf([&] { open()->get(2'999'999); }).what()),
                HasSubstr("has 3000000 bytes, and no more than 2999999"));
    EXPECT_THAT(
        std::string(exceptionOf([&] { open()->fetchTo(dir.path("none"), nullptr, 2'999'999); }).what()),
        AllOf(HasSubstr("/data'"), HasSubstr("has 3000000 bytes, and no more than 2999999")));
    EXPECT_FALSE(dir.exists("none"));
    open()->fetchTo(dir.path("none"), nullptr, 3'000'000);
}

TEST_F(RemoteFile, noticesThatTheFileHasChanged) {
    const FilePtr file = open();
    read(file, 0, 1'600'000);
    server.setFault(ZqFileServer::Changed);
    const SxException e = exceptionOf([&] { read(file, 0, 100); });
    EXPECT_TRUE(e.hasTag(ZqNetLink::CHANGED)) << e.what();
    EXPECT_THAT(std::string(e.what()), HasSubstr("has changed on the server"));
}

TEST_F(RemoteFile, goesOnWhereItStopped) {
    const unsigned faults[] = {ZqFileServer::Close, ZqFileServer::Drop10,
                               ZqFileServer::Close | ZqFileServer::Drop10};
    for (const unsigned fault : faults) {
        server.setFault(static_cast<ZqFileServer::Fault>(fault));
        const FilePtr file = open();
        const uint64 nConnections = server.getNConnections();
        for (uint64 offset = 0; offset < bytes.size(); offset += 100'000)
            ASSERT_TRUE(read(file, offset, 100'000) == bytes.substr(offset, 100'000))
                << fault << " " << offset;
        EXPECT_TRUE(stream(file, 0) == bytes) << fault;
        EXPECT_GT(server.getNConnections() - nConnections, 2u) << "the fault does nothing";
        server.setFault(static_cast<ZqFileServer::Fault>(fault), false);
    }

    // The server goes away in the middle of a stream and comes back.
    server.setRate(4'000'000);
    const uint64 nBefore = server.getNBytes();
    std::string all, status;
    std::thread helper;
    open()->stream(0, [&](const char* piece, int64 n) {
        all.append(piece, static_cast<size_t>(n));
        if (all.size() > 500'000 && !helper.joinable()) {
            server.stop();
            helper = std::thread([&] {
                SxWait::pass(5000, [&] {
                    status = link->getStatus().str();
                    return link->getOutage().nTries == 2;
                });
                server.start();
            });
        }
        return true;
    });
    helper.join();
    EXPECT_TRUE(all == bytes);
    EXPECT_EQ(status, "waiting for the server: Connection refused");
    EXPECT_EQ(link->getStatus().str(), "");
    EXPECT_LT(server.getNBytes() - nBefore, bytes.size() + 1'500'000) << "it began anew";
}

TEST_F(RemoteFile, anOutageBeginsWithTheSilenceThatIsToldOnce) {
    const FilePtr file = open();
    read(file, 0, 1000);
    // Nothing is wanted in this time.
    SxTime::msleep(3000);
    server.setFault(ZqFileServer::Stall);
    int64 ms = 0;
    std::string status;
    std::thread helper([&] {
        SxWait::pass(5000, [&] {
            const ZqNetOutage outage = link->getOutage();
            ms = outage.ms;
            status = link->getStatus().str();
            return outage.nTries > 0;
        });
    });
    exceptionOf([&] { read(file, 1'000'000, 1); });
    helper.join();
    EXPECT_GE(ms, 350) << "the silence before the first request failed belongs to it";
    EXPECT_LT(ms, 2900);
    EXPECT_EQ(status, "waiting for the server: no data");
}

TEST_F(RemoteFile, endsAtOnceWhenStopped) {
    server.setFault(ZqFileServer::Stall);
    ZqNetSettings patient;
    patient.stallMs = 60'000;
    const auto slow = SxPtr<ZqNetLink>::create(patient);
    const auto file = FilePtr::create(slow, server.getUrl() + "data");
    // It is stopped by the caller's test, then by the link.
    for (const bool byLink : {false, true}) {
        const int64 start = nowMs();
        std::thread helper([&] {
            SxTime::msleep(100);
            if (byLink) slow->cancel();
        });
        const auto stop = [&] { return !byLink && nowMs() - start > 100; };
        std::string buffer(1000, '\0');
        const SxException e = exceptionOf([&] { file->read(0, 1000, buffer.data(), stop); });
        helper.join();
        EXPECT_TRUE(e.hasTag(SxException::STOPPED)) << e.what();
        EXPECT_LT(nowMs() - start, 600);
    }
    EXPECT_TRUE(exceptionOf([&] { file->get(5'000'000); }).hasTag(SxException::STOPPED));
}

TEST_F(RemoteFile, holdsTheRateOfStreamsOnly) {
    link->setRateLimit(2'000'000);
    const int64 start = nowMs();
    EXPECT_TRUE(stream(open(), 0) == bytes);
    const int64 elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 1350); // the rate limit lets a stream make up for 100 ms
    EXPECT_LE(elapsed, 3000);
    const int64 startOfRanges = nowMs();
    read(open(), 0, 3'000'000);
    EXPECT_LE(nowMs() - startOfRanges, 1000);
}

TEST_F(RemoteFile, sharesTheRateAmongStreams) {
    link->setRateLimit(1'000'000);
    std::atomic<bool> ending{false};
    std::atomic<uint64> nOther{0};
    std::thread other([&] {
        open()->stream(0, [&](const char*, int64 n) {
            nOther += static_cast<uint64>(n);
            return !ending;
        });
    });
    ASSERT_TRUE(SxWait::pass(5000, [&] { return nOther > 0; }));
    uint64 n = 0;
    open()->stream(0, [&](const char*, int64 nPiece) {
        n += static_cast<uint64>(nPiece);
        return n < 300'000 && nOther < 1'500'000;
    });
    EXPECT_GE(n, 300'000u) << "the other had " << nOther;
    ending = true;
    other.join();
}

TEST_F(RemoteFile, waitsForASlowConsumer) {
    dir.write("big", std::string(40 << 20, 'b'));
    ZqNetSettings settings = quickSettings();
    settings.maxBuffered = 1 << 20;
    const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(settings), server.getUrl() + "big");
    uint64 n = 0, nServed = 0;
    file->stream(0, [&](const char*, int64 nPiece) {
        if (n == 0) {
            // This is longer than the limit for a stall. A stream that its consumer holds isn't stalled.
            SxTime::msleep(600);
            nServed = server.getNBytes();
        }
        n += static_cast<uint64>(nPiece);
        return true;
    });
    EXPECT_EQ(n, uint64{40} << 20);
    EXPECT_LT(nServed, uint64{20} << 20); // more than the system's buffers take and a stream holds
}
