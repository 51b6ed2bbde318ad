#include "Builders.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqNetGate.h"
#include "ZqRemoteFile.h"
#include "ZqTransfer.h"

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <thread>

using testing::HasSubstr;

namespace {

constexpr int64 MS = 1'000'000, SECOND = 1'000 * MS;

int64 nowMs() {
    return SxClock::get().steadyNs() / MS;
}

std::string refusal(int status, const std::string& lines = "") {
    return "HTTP/1.1 " + std::to_string(status) + " No\r\nConnection: close\r\nContent-Length: 0\r\n" +
           lines + "\r\n";
}

std::string whole(const std::string& file) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(file.size()) +
           "\r\n\r\n" + file;
}

std::string answer(const std::string& request, const std::string& file) {
    return request.find("Range:") == std::string::npos ? whole(file) : ScriptedServer::ranged(request, file);
}

/// How often the threads of this process that have that name have gone to sleep.
int64 wakeUpsOf(const std::string& name) {
    int64 n = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm"), status(task.path() / "status");
        std::string line;
        if (!std::getline(comm, line) || line != name) continue;
        while (std::getline(status, line)) {
            if (line.starts_with("voluntary_ctxt_switches:"))
                n += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return n;
}

ZqTransfer::Response responseOf(std::initializer_list<const char*> lines) {
    ZqTransfer::Response response;
    for (const char* line : lines)
        response.takeHeader(line);
    return response;
}

} // namespace

TEST(BusyServer, saysHowLongToWait) {
    constexpr int64 SYSTEM_MS = 1'700'000'000'000; // Tue, 14 Nov 2023 22:13:20 GMT
    const char* const then = "Retry-After: Tue, 14 Nov 2023 22:13:50 GMT";
    const struct {
        std::initializer_list<const char*> lines;
        int64 ms;
    } cases[] = {
        {{"HTTP/1.1 503 No"}, -1},
        {{"Retry-After: 120"}, 120'000},
        {{"retry-after:0\r\n"}, 0},
        {{"Retry-After: soon"}, -1},
        {{"Retry-After: -5"}, -1},
        {{"Retry-After: 12 s"}, -1},
        {{"Retry-After: 99999999999999999"}, int64{365} * 86'400'000},
        {{then}, 30'000},
        // The time counts by the server's own clock, which may be wrong.
        {{then, "Date: Tue, 14 Nov 2023 22:13:40 GMT"}, 10'000},
        {{"Date: Tue, 14 Nov 2023 22:14:40 GMT", then}, 0},
        {{then, "Date: yesterday"}, 30'000},
    };
    for (const auto& [lines, ms] : cases)
        EXPECT_EQ(responseOf(lines).retryAfterMs(SYSTEM_MS), ms) << *lines.begin();
}

TEST(BusyServer, isAskedStepByStep) {
    ZqNetGate gate{ZqNetSettings()};
    const ZqNetGate::Request waitedFor{true, false}, ahead{false, false}, ordered{false, true};
    int64 now = 100 * SECOND;
    EXPECT_TRUE(gate.mayBegin(ahead, 50, now));
    // The server asks for an hour, which is more than is sensible.
    gate.refused(now - SECOND, 3'600'000, 7, now);
    EXPECT_FALSE(gate.mayBegin(waitedFor, 0, now + 9 * SECOND));
    EXPECT_TRUE(gate.mayBegin(waitedFor, 0, now + 11 * SECOND));
    EXPECT_FALSE(gate.mayBegin(waitedFor, 1, now + 11 * SECOND));
    EXPECT_FALSE(gate.mayBegin(ordered, 0, now + 299 * SECOND));
    EXPECT_TRUE(gate.mayBegin(ordered, 0, now + 301 * SECOND));
    // An answer to a request that was sent before tells nothing; one to a later request opens it.
    gate.answered(now - SECOND, now + SECOND);
    EXPECT_FALSE(gate.mayBegin(ordered, 0, now + 20 * SECOND));
    now += 11 * SECOND;
    gate.answered(now, now + MS);
    EXPECT_TRUE(gate.mayBegin(ordered, 0, now + MS));
    // Half of the eight requests may go at once, and with time more.
    now += SECOND;
    gate.refused(now - MS, -1, 7, now);
    now += 4 * SECOND / 10;
    EXPECT_TRUE(gate.mayBegin(ahead, 3, now));
    EXPECT_FALSE(gate.mayBegin(ahead, 4, now));
    gate.answered(now, now + 2 * SECOND);
    EXPECT_TRUE(gate.mayBegin(ahead, 5, now + 2 * SECOND));
    EXPECT_FALSE(gate.mayBegin(ahead, 6, now + 2 * SECOND));
    gate.answered(now, now + 60 * SECOND);
    EXPECT_TRUE(gate.mayBegin(ahead, 50, now + 60 * SECOND));
}

TEST(BusyServer, isAskedForWhatMayBeginWhoeverStandsBefore) {
    ZqNetGate gate{ZqNetSettings()};
    const int64 now = 100 * SECOND, old = now - 5 * SECOND;
    using Request = ZqNetGate::Request;
    const auto ahead = [](int64 since) { return Request{false, false, false, since}; };
    const auto onDemand = [](int64 since) { return Request{true, false, true, since}; };
    const auto ordered = [](int64 since) { return Request{false, true, false, since}; };
    EXPECT_EQ(gate.choose({}, 0, now), 0u);
    EXPECT_EQ(gate.choose({ahead(now), ordered(now), onDemand(now)}, 0, now), 2u);
    EXPECT_EQ(gate.choose({ahead(old), onDemand(now)}, 0, now), 0u) << "its turn";
    // During a pause only what somebody waits for is tried, however old the others are.
    gate.refused(now - SECOND, 60'000, 7, now);
    const int64 later = now + 11 * SECOND;
    EXPECT_EQ(gate.choose({ahead(old), ordered(old), onDemand(now)}, 0, later), 2u);
    EXPECT_EQ(gate.choose({ahead(old), ordered(old)}, 0, later), 2u) << "none";
    // Beyond the halved number the ordered stream still has its place.
    const int64 open = now + 61 * SECOND;
    EXPECT_EQ(gate.choose({ahead(old), ordered(old)}, 50, open), 1u);
}

TEST(BusyServer, isLookedAtAgainWhenARequestMayBegin) {
    constexpr int64 NEVER = ZqNetGate::NEVER;
    const ZqNetGate::Request waitedFor{true, false}, ahead{false, false}, ordered{false, true};
    const int64 now = 100 * SECOND;
    ZqNetGate gate{ZqNetSettings()};
    EXPECT_EQ(gate.findNextNs({}, 0, now), NEVER);
    EXPECT_EQ(gate.findNextNs({ahead}, 50, now), now);
    gate.refused(now - SECOND, 60'000, 7, now);
    // During a pause only what somebody waits for is tried, and only if nothing else is under way.
    EXPECT_EQ(gate.findNextNs({ordered, waitedFor}, 0, now), now + 10 * SECOND);
    EXPECT_EQ(gate.findNextNs({ordered, waitedFor}, 1, now), now + 60 * SECOND);
    EXPECT_EQ(gate.findNextNs({ahead}, 0, now + 59 * SECOND), now + 60 * SECOND);
    // After it half of the eight requests may go at once, and they begin half as often.
    ZqNetGate slow{ZqNetSettings()};
    for (int i = 10; i >= 0; --i)
        slow.noteBegin(now - i * SECOND / 20);
    slow.refused(now - SECOND, -1, 7, now);
    slow.noteBegin(now + SECOND);
    const int64 next = slow.findNextNs({ahead}, 0, now + SECOND);
    EXPECT_GT(next, now + SECOND + 100 * MS);
    EXPECT_LT(next, now + 2 * SECOND);
    EXPECT_TRUE(slow.mayBegin(ahead, 0, next));
    EXPECT_FALSE(slow.mayBegin(ahead, 0, next - MS));
    EXPECT_EQ(slow.findNextNs({ahead}, 4, now + SECOND), NEVER) << "until one of them ends";
    EXPECT_EQ(slow.findNextNs({ahead, ordered}, 4, now + SECOND), next);
}

TEST(BusyServer, isWaitedForWithoutLooking) {
    const ScriptedServer server([](const std::string&) { return refusal(503, "Retry-After: 100\r\n"); });
    const auto link = SxPtr<ZqNetLink>::create(ZqNetSettings());
    ZqRemoteFile remote(link, SxString(server.url("f")));
    std::atomic<bool> stopped{false};
    std::thread stream([&] {
        EXPECT_ANY_THROW(remote.stream(
            0, [](const char*, int64) { return true; }, [&] { return stopped.load(); }));
    });
    EXPECT_TRUE(SxWait::pass(5000, [&] { return link->getRefusedNs() != 0; }));
    // The stream's next request is queued then, once its first back-off is over.
    EXPECT_TRUE(SxWait::pass(5000, [&] { return link->getFigures().nRetries > 0; }));
    SxTime::msleep(300);
    const int64 nBefore = wakeUpsOf("zqnetio");
    SxTime::msleep(1'000);
    EXPECT_LE(wakeUpsOf("zqnetio") - nBefore, 20);
    stopped = true;
    stream.join();
}

TEST(BusyServer, getsFewRequestsBeyondItsLimit) {
    TestRandom random;
    const std::string file = random.bytes(100'000);
    // The server takes five requests a second.
    std::deque<int64> taken;
    std::atomic<int> nRefused{0}, nTaken{0};
    const ScriptedServer server([&](const std::string& request) {
        const int64 now = nowMs();
        while (!taken.empty() && now - taken.front() >= 1000)
            taken.pop_front();
        if (taken.size() >= 5) {
            ++nRefused;
            return refusal(nRefused % 2 == 0 ? 503 : 429);
        }
        ++nTaken;
        taken.push_back(now);
        return answer(request, file);
    });
    const auto link = SxPtr<ZqNetLink>::create(ZqNetSettings());
    const int64 endMs = nowMs() + 5'000;
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&, i] {
            ZqRemoteFile remote(link, SxString(server.url("f")));
            std::string buffer(1000, '\0');
            for (uint64 offset = static_cast<uint64>(i); nowMs() < endMs; offset += 1000) {
                remote.read(offset % 90'000, 1000, buffer.data());
                EXPECT_TRUE(buffer == file.substr(offset % 90'000, 1000));
            }
        });
    }
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_LE(nRefused, 12);
    EXPECT_GE(nTaken, 10);
}

// A balancer answers 503 for the one of its servers that is gone, and a server does that is asked too much.
TEST(BusyServer, thatMayBeOneOfManyIsAskedOnceMoreAtOnce) {
    TestRandom random;
    const std::string file = random.bytes(100'000);
    const struct {
        const char* name;
        std::string refusal;
        int nEach; ///< so many of each `nAll` requests are refused, the first ones
        int nAll;
        bool holdsBack; ///< whether the link leaves the server alone for a while
    } cases[] = {
        {"every second", refusal(503), 1, 2, false},
        {"two in a row", refusal(503), 2, 3, true},
        {"with a time", refusal(503, "Retry-After: 1\r\n"), 1, 2, true},
        {"too many", refusal(429), 1, 2, true},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        std::atomic<int> nth{0};
        const ScriptedServer server([&](const std::string& request) {
            return nth++ % each.nAll < each.nEach ? each.refusal : answer(request, file);
        });
        ZqNetSettings settings;
        settings.firstBackOffMs = 1'000;
        const auto link = SxPtr<ZqNetLink>::create(settings);
        ZqRemoteFile remote(link, SxString(server.url("f")));
        const int64 beginMs = nowMs();
        std::string buffer(1000, '\0');
        for (uint64 i = 0; i < (each.holdsBack ? 1 : 10); ++i) {
            remote.read(i * 1000, 1000, buffer.data());
            EXPECT_TRUE(buffer == file.substr(i * 1000, 1000));
        }
        EXPECT_EQ(link->getRefusedNs() != 0, each.holdsBack);
        EXPECT_EQ(nowMs() - beginMs >= 900, each.holdsBack) << nowMs() - beginMs << " ms";
    }
}

TEST(BusyServer, isLeftAloneByAllAsLongAsItAsks) {
    const std::string file(1000, 'x');
    std::atomic<int64> refusedMs{0}, againMs{0};
    const ScriptedServer server([&](const std::string& request) {
        if (refusedMs == 0) {
            refusedMs = nowMs();
            return refusal(503, "Retry-After: 1\r\n");
        }
        if (againMs == 0) againMs = nowMs();
        return answer(request, file);
    });
    const auto link = SxPtr<ZqNetLink>::create(quickSettings());
    std::thread other([&] {
        ZqRemoteFile remote(link, SxString(server.url("other")));
        ASSERT_TRUE(SxWait::pass(5000, [&] { return link->getRefusedNs() != 0; }));
        EXPECT_EQ(remote.get(1000).getSize(), 1000);
    });
    std::string status;
    std::thread watcher([&] {
        SxWait::pass(5000, [&] {
            status = link->getStatus().str();
            return !status.empty();
        });
    });
    char buffer[10];
    ZqRemoteFile(link, SxString(server.url("f"))).read(0, 10, buffer);
    other.join();
    watcher.join();
    EXPECT_GE(againMs - refusedMs, 990);
    EXPECT_LT(againMs - refusedMs, 2'500);
    EXPECT_THAT(status, HasSubstr("the server answers 503, and asks to wait 1 s"));
    EXPECT_EQ(link->getStatus().str(), "");
}

TEST(BusyServer, isWaitedForNoLongerThanAStop) {
    const ScriptedServer server([](const std::string&) { return refusal(429, "Retry-After: 100\r\n"); });
    for (const auto kind : {ZqTransfer::Kind::OnDemand, ZqTransfer::Kind::Small, ZqTransfer::Kind::Ordered}) {
        const auto link = SxPtr<ZqNetLink>::create(ZqNetSettings());
        ZqRemoteFile remote(link, SxString(server.url("f")));
        std::atomic<bool> stopped{false};
        std::atomic<int64> stoppedMs{0}, endedMs{0};
        std::thread reader([&] {
            const ZqStopTest stop = [&] { return stopped.load(); };
            char buffer[10];
            try {
                if (kind == ZqTransfer::Kind::OnDemand) remote.read(0, 10, buffer, stop);
                if (kind == ZqTransfer::Kind::Small) remote.get(10, stop);
                remote.stream(
                    0, [](const char*, int64) { return true; }, stop);
                ADD_FAILURE() << "it was answered";
            } catch (const SxException& e) {
                EXPECT_TRUE(e.hasTag(SxException::STOPPED)) << e.what();
            }
            endedMs = nowMs();
        });
        EXPECT_TRUE(SxWait::pass(5000, [&] { return link->getRefusedNs() != 0; }));
        SxTime::msleep(300);
        stoppedMs = nowMs();
        stopped = true;
        reader.join();
        EXPECT_LE(endedMs - stoppedMs, 100);
    }
}

TEST(BusyServer, andOneThatBreaksOffGivesSmallFilesAsItGivesRanges) {
    TestRandom random;
    const std::string file = random.bytes(10'000);
    const struct {
        const char* name;
        std::function<std::string(int nth, const std::string& request)> answer;
    } cases[] = {
        {"asked too much",
         [&](int nth, const std::string& request) { return nth < 5 ? refusal(503) : answer(request, file); }},
        {"breaks off later each time",
         [&](int nth, const std::string& request) {
             const std::string all = answer(request, file);
             const size_t left = all.size() - all.find("\r\n\r\n");
             return nth < 8 ? all.substr(0, all.size() - left + left * static_cast<size_t>(nth + 1) / 10)
                            : all;
         }},
    };
    for (const auto& each : cases) {
        for (const bool isRange : {false, true}) {
            SCOPED_TRACE(std::string(each.name) + (isRange ? ", a range" : ", a file"));
            int nth = 0;
            const ScriptedServer server(
                [&](const std::string& request) { return each.answer(nth++, request); });
            // A request ends after three tries in vain.
            ZqNetSettings settings = quickSettings();
            settings.busyMs = 60'000;
            ZqRemoteFile remote(SxPtr<ZqNetLink>::create(settings), SxString(server.url("f")));
            std::string bytes(file.size(), '\0');
            try {
                if (isRange) {
                    remote.read(0, file.size(), bytes.data());
                } else {
                    bytes = SxString(remote.get(10'000)).str();
                }
            } catch (const SxException& e) {
                ADD_FAILURE() << e.what();
            }
            EXPECT_TRUE(bytes == file);
        }
    }
}
