#include "Builders.h"
#include "Failure.h"
#include "FaultOs.h"
#include "LinkProxy.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxMd5.h"
#include "TempDir.h"
#include "ZqAppParams.h"
#include "ZqFileServer.h"
#include "ZqImageRecords.h"
#include "ZqLog.h"
#include "ZqOrderHints.h"
#include "ZqPackedMap.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <thread>

namespace {

std::string answered(const std::string& status, const std::string& body = "") {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// Fetches all records into the folder; gives why not.
std::string failureOfFetch(const SxString& folder, const SxString& url) {
    ZqImageRecords records(SxPtr<ZqNetLink>::create(quickSettings()), folder, url, {});
    return failureOf([&] {
        bool isConfirmed = false;
        records.fetchRest(records.fetchApp(false, &isConfirmed, nullptr), nullptr);
    });
}

} // namespace

TEST(ImageRecords, tellWhetherTheServerHasAnotherVersion) {
    TempDir dir;
    ZqAppParams own;
    own.sizeZqf = 409'600;
    own.sizeIdx = 800;
    own.checksumMnt = "a";
    own.checksumIdx = "b";
    own.checksumZqf = "c";
    own.write(dir.prefix());
    const std::string same = dir.read("app.json");
    const TreeSnapshot before = dir.snapshot();
    const auto changed = [&](const char* from, const char* to) {
        return answered("200 OK", SxString(same).substitute(from, to).str());
    };
    const struct {
        const char* name;
        std::string response;
        bool isSame;
        const char* tag;
    } cases[] = {
        {"the same", answered("200 OK", same), true, ""},
        {"another delay", changed("\"delay\": 5", "\"delay\": 6"), true, ""},
        {"another size", changed("409600", "413696"), false, ""},
        {"other content", changed("\"mnt\": \"a\"", "\"mnt\": \"x\""), false, ""},
        {"another order", changed("\"idx\": \"b\"", "\"idx\": \"x\""), false, ""},
        // With no other digests it alone tells.
        {"other blocks", changed("\"zqf\": \"c\"", "\"zqf\": \"x\""), false, ""},
        {"blocks of which it says nothing", changed("\"zqf\": \"c\"", "\"zqf\": \"\""), true, ""},
        {"a login page", answered("200 OK", "<html>Welcome"), false, ZqNetLink::WRONG},
        {"none", answered("404 None"), false, ZqNetLink::NOT_FOUND},
        {"busy", answered("503 Busy"), false, ZqNetLink::UNREACHABLE},
    };
    // Nothing is written for it, so a full disk doesn't keep it from an answer.
    FaultOs full(dir.prefix().str());
    full.setDiskLeft(0);
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const ScriptedServer server([&](const std::string&) { return each.response; });
        const ZqImageRecords records(SxPtr<ZqNetLink>::create(quickSettings()), dir.prefix(),
                                     SxString(server.url("game?token=hidden")), {});
        try {
            EXPECT_EQ(records.isSameOnServer(own, nullptr), each.isSame);
            EXPECT_STREQ(each.tag, "");
        } catch (const SxException& e) {
            EXPECT_STRNE(each.tag, "") << e.what();
            EXPECT_TRUE(e.hasTag(each.tag)) << e.what();
            EXPECT_THAT(std::string(e.what()), testing::Not(testing::HasSubstr("hidden")));
        }
        EXPECT_THAT(server.requests().back(), testing::StartsWith("GET /game/app.json?token=hidden HTTP"));
        EXPECT_EQ(dir.read("app.json"), same);
        EXPECT_EQ(dir.snapshot(), before) << "it leaves something";
    }
}

TEST(ImageRecords, WhereThereIsNoneTheNextStepIsSaid) {
    const std::pair<std::string, const char*> cases[] = {
        {answered("200 OK"), "No image at this address"}, // an empty file
        {answered("200 OK", "hello"), "No image at this address"},
        {answered("404 None"), "No image at this address"},
        {answered("401 Unauthorized"), "--header"},
    };
    for (const auto& each : cases) {
        const ScriptedServer server([&](const std::string&) { return each.first; });
        TempDir dir;
        EXPECT_THAT(failureOfFetch(dir.prefix(), SxString(server.url())), testing::HasSubstr(each.second));
    }
}

TEST(ImageRecords, thatAreWrongOnTheServerAreToldAsTheServers) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 40);
    const SxString served = dir.prefix() + "served/";
    const std::pair<const char*, std::string> cases[] = {
        {"served/img.json", "<html>Welcome"},
        {"served/img.idx", game.idxBytes() + game.idxBytes()},
        {"served/img.idx", std::string(game.idxBytes().size(), 'x')},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name + std::to_string(bytes.size()));
        game.write(served);
        dir.write(name, bytes);
        std::filesystem::remove_all(dir.path("game"));
        std::filesystem::create_directory(dir.path("game"));
        ZqFileServer server(served);
        server.start();
        ZqImageRecords records(SxPtr<ZqNetLink>::create(quickSettings()), dir.prefix() + "game",
                               server.getUrl(), {});
        bool isConfirmed = false;
        const ZqAppParams app = records.fetchApp(false, &isConfirmed, nullptr);
        try {
            records.fetchRest(app, nullptr);
            FAIL() << "it was taken";
        } catch (const SxException& e) {
            EXPECT_TRUE(e.hasTag(ZqNetLink::WRONG)) << e.what();
        }
    }
}

// As of a stale cache, or damaged on the way.
TEST(ImageRecords, thatCameWrongAreAskedForOnceMorePastCaches) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 40);
    game.write(dir.prefix() + "served/");
    const std::string map = game.idxBytes(), digest = SxMd5::get(SxString(map)).str();
    ZqAppParams stated(dir.prefix() + "served/"), unstated = stated;
    unstated.checksumIdx = SxString();
    ZqPackedMap::pack(dir.prefix() + "served/img.idx", dir.prefix() + "pack", {});
    const std::string pack = dir.read("pack");
    std::string badPack = pack;
    badPack.back() ^= 1;
    const std::string flipped(map.size(), 'x');
    const struct {
        const char* name;
        bool isStated;    ///< whether app.json has the map's digest
        const char* file; ///< the one that comes wrong once
        std::string wrong;
        bool hasPack;
        bool hasBlocks;
    } cases[] = {
        {"app.json", true, "app.json", "{", false, false},
        {"app.json of another version", true, "app.json",
         SxString(dir.read("served/app.json")).substitute(stated.checksumMnt, "0").str(), false, true},
        {"a page", true, "img.json", "<html>Welcome", false, false},
        {"the map", true, "img.idx", flipped, false, false},
        {"the packed map", true, "img.idx.zst", badPack, true, false},
        {"the digest", false, "img.idx.md5", std::string(32, '0'), false, false},
        {"a page for the digest", false, "img.idx.md5", "<html>Welcome", false, false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        (each.isStated ? stated : unstated).write(dir.prefix() + "served/");
        const std::map<std::string, std::string> files = {{"app.json", dir.read("served/app.json")},
                                                          {"img.json", dir.read("served/img.json")},
                                                          {"img.idx", map},
                                                          {"img.idx.zst", each.hasPack ? pack : ""},
                                                          {"img.idx.md5", digest}};
        std::map<std::string, int> nAsked;
        const ScriptedServer server([&](const std::string& request) {
            const std::string name = request.substr(5, request.find(' ', 5) - 5);
            const auto found = files.find(name);
            if (found == files.end() || found->second.empty()) return answered("404 None");
            const bool isFresh = request.find("Cache-Control: no-cache") != std::string::npos;
            const bool isWrong = name == each.file && !isFresh;
            ++nAsked[name];
            return answered("200 OK", isWrong ? each.wrong : found->second);
        });
        std::filesystem::remove_all(dir.path("game"));
        std::filesystem::create_directory(dir.path("game"));
        if (each.hasBlocks) game.write(dir.prefix() + "game/", 5);
        EXPECT_EQ(failureOfFetch(dir.prefix() + "game", SxString(server.url())), "");
        EXPECT_EQ(nAsked[each.file], 2);
        EXPECT_TRUE(dir.read("game/img.idx") == map);
        EXPECT_EQ(dir.exists("game/img.idx.md5") ? dir.read("game/img.idx.md5") : digest, digest);
        EXPECT_EQ(nAsked["img.idx"] > 0, !each.hasPack && !each.hasBlocks);
    }
}

// `app.json` need not state it.
TEST(ImageRecords, haveTheMapThatItsOwnDigestIsOf) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 40), former(random, 40);
    game.write(dir.prefix() + "served/");
    ZqAppParams params(dir.prefix() + "served/");
    params.checksumIdx = SxString();
    params.write(dir.prefix() + "served/");
    const std::string map = game.idxBytes(), digest = SxMd5::get(SxString(map)).str();
    ASSERT_EQ(map.size(), former.idxBytes().size());
    dir.write("former.idx", former.idxBytes());
    ZqPackedMap::pack(dir.prefix() + "former.idx", dir.prefix() + "served/img.idx.zst", {});
    dir.write("served/img.idx.md5", digest);
    ZqFileServer server(dir.prefix() + "served");
    server.start();
    enum { Nothing, FormerMap, FormerBoth, FormerMapRightDigest };
    for (const auto there : {Nothing, FormerMap, FormerBoth, FormerMapRightDigest}) {
        SCOPED_TRACE(there);
        std::filesystem::remove_all(dir.path("game"));
        std::filesystem::create_directory(dir.path("game"));
        const std::string formerMap = former.idxBytes();
        if (there != Nothing) dir.write("game/img.idx", formerMap);
        if (there == FormerBoth) dir.write("game/img.idx.md5", SxMd5::get(SxString(formerMap)).str());
        if (there == FormerMapRightDigest) dir.write("game/img.idx.md5", digest);
        EXPECT_EQ(failureOfFetch(dir.prefix() + "game", server.getUrl()), "");
        EXPECT_TRUE(dir.read("game/img.idx") == map);
        EXPECT_EQ(dir.read("game/img.idx.md5"), digest);
    }
}

TEST(ImageRecords, hintsAreTakenWhereTheyAreOfTheOrder) {
    TestRandom random;
    const TestImage game(random, 200), former(random, 200);
    const TempDir made;
    game.write(made.prefix());
    const ZqAppParams app(made.prefix());
    const auto hintsOf = [&](const SxString& digest, uint32 end) {
        ZqOrderHints hints(digest);
        hints.groups = {{0, end, {0}, {}}};
        hints.write(made.prefix());
        return made.read("img.hints");
    };
    const std::string right = hintsOf(app.checksumIdx, 1), foreign = hintsOf(std::string(32, 'f'), 1);
    const std::string beyond = hintsOf(app.checksumIdx, 1000), large(2'000'001, 'x');
    const struct {
        const char* name;
        std::string here, there, fresh; ///< in the folder, on the server, and there past caches
        int nAsked;
        bool hasCome;
    } cases[] = {
        {"the server's", "", right, right, 1, true},
        {"those of an earlier run", right, "", "", 0, true},
        {"damaged here", right.substr(1), right, right, 1, true},
        {"another order's here, and a stale cache", foreign, foreign, right, 2, true},
        {"another order's, and none of this", foreign, "", "", 1, false},
        {"none", "", "", "", 1, false},
        {"another order's on the server", "", foreign, foreign, 2, false},
        {"beyond the image's end", "", beyond, beyond, 2, false},
        {"a page", "", "<html>Welcome", "<html>Welcome", 2, false},
        {"too large", "", large, large, -1, false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        int nAsked = 0;
        const ScriptedServer server([&](const std::string& request) {
            ++nAsked;
            const bool isFresh = request.find("Cache-Control: no-cache") != std::string::npos;
            const std::string& bytes = isFresh ? each.fresh : each.there;
            return bytes.empty() ? answered("404 None") : answered("200 OK", bytes);
        });
        const TempDir dir;
        if (!each.here.empty()) dir.write("img.hints", each.here);
        std::vector<std::string> lines;
        ZqLog::setSink([&](const SxString&, const SxString& text) { lines.push_back(text.str()); });
        const ZqImageRecords records(SxPtr<ZqNetLink>::create(quickSettings()), dir.path(),
                                     SxString(server.url()), {});
        const auto hints = records.fetchHints(app, nullptr);
        ZqLog::setSink({});
        EXPECT_EQ(hints.has_value(), each.hasCome);
        if (each.nAsked >= 0) {
            EXPECT_EQ(nAsked, each.nAsked);
        }
        EXPECT_LE(nAsked, 5);
        ASSERT_EQ(dir.exists("img.hints"), each.hasCome);
        if (each.hasCome) {
            EXPECT_EQ(dir.read("img.hints"), right);
        }
        // That there are none is the common case.
        const bool isUsual = each.here.empty() && (each.there.empty() || each.there == right);
        EXPECT_EQ(std::any_of(lines.begin(), lines.end(),
                              [](const auto& line) { return line.find("hints") != std::string::npos; }),
                  !isUsual && each.here != right);
    }
}

TEST(ImageRecords, thatWereDamagedHereAreFetchedAnew) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 40);
    game.write(dir.prefix() + "served/");
    ZqFileServer server(dir.prefix() + "served/");
    server.start();
    for (const char* name : {"img.json", "img.idx"}) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all(dir.path("game"));
        std::filesystem::copy(dir.path("served"), dir.path("game"));
        dir.write(std::string("game/") + name, "{\"cut");
        EXPECT_EQ(failureOfFetch(dir.prefix() + "game", server.getUrl()), "");
        EXPECT_TRUE(dir.read(std::string("game/") + name) == dir.read(std::string("served/") + name));
    }
}

// Whoever can play waits some seconds for the server's word, and anybody else as long as it takes.
TEST(ImageRecords, holdUpNoStartThatNeedsNone) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 40);
    game.write(dir.prefix() + "game/");
    ZqFileServer stalling(dir.prefix() + "game");
    stalling.setFault(ZqFileServer::Stall);
    stalling.start();
    const ScriptedServer busy([](const std::string&) { return answered("503 Busy"); });
    // Each try brings bytes, so that none is one in vain.
    const ScriptedServer drop([&](const std::string& request) {
        const std::string all = ScriptedServer::ranged(request, dir.read("game/app.json"));
        return all.substr(0, all.find("\r\n\r\n") + 5);
    });
    struct Case {
        std::string name;
        SxString url;
        bool mayPlay;
        int64 ms;           ///< until it is stopped
        bool isGoneWithout; ///< whether it goes on with what is there
        int64 tookMs = -1;
        std::string failure = "not run";
    };
    std::vector<Case> cases = {
        {"busy", SxString(busy.url()), true, 15'000, true},
        {"stalling", stalling.getUrl(), true, 15'000, true},
        {"dropping", SxString(drop.url()), true, 15'000, true},
        {"busy, and stopped", SxString(busy.url()), true, 500, false},
        {"busy, and only downloaded", SxString(busy.url()), false, 6'000, false},
    };
    std::vector<std::thread> threads;
    for (Case& each : cases) {
        threads.emplace_back([&each, &dir] {
            ZqNetSettings settings;
            settings.nBrokenTries = 0;
            ZqImageRecords records(SxPtr<ZqNetLink>::create(settings), dir.prefix() + "game", each.url, {});
            const auto elapsedMs = [beginNs = SxClock::get().steadyNs()] {
                return (SxClock::get().steadyNs() - beginNs) / 1'000'000;
            };
            bool isConfirmed = true;
            each.failure = failureOf(
                [&] { records.fetchApp(each.mayPlay, &isConfirmed, [&] { return elapsedMs() > each.ms; }); });
            each.tookMs = elapsedMs();
            EXPECT_EQ(isConfirmed, !each.isGoneWithout) << each.name;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_LT(each.tookMs, each.isGoneWithout ? 10'000 : each.ms + 4'000);
        EXPECT_EQ(each.failure.empty(), each.isGoneWithout) << each.failure;
    }
}

// Two mirrors of other validators that take turns and break off, as a proxy under load does.
TEST(ImageRecords, comeTogetherOfMirrors) {
    TempDir dir;
    TestRandom random;
    const TestImage game(random, 100);
    game.write(dir.prefix() + "served/");
    for (const bool hasDigest : {true, false}) {
        SCOPED_TRACE(hasDigest ? "with a digest" : "without");
        ZqAppParams params(dir.prefix() + "served/");
        params.checksumIdx = hasDigest ? SxMd5::get(SxString(game.idxBytes())) : SxString();
        params.write(dir.prefix() + "served/");
        std::map<std::string, int> nAnswers;
        const ScriptedServer server([&](const std::string& request) {
            const std::string name = request.substr(5, request.find(' ', 5) - 5);
            if (!dir.exists("served/" + name)) return answered("404 None");
            const char* mirror = nAnswers[name]++ % 2 == 0 ? "ETag: \"1\"\r\n" : "ETag: \"2\"\r\n";
            const std::string answer = ScriptedServer::ranged(request, dir.read("served/" + name), mirror);
            return answer.substr(0, std::min(answer.size(), answer.find("\r\n\r\n") + 4 + 120));
        });
        std::filesystem::remove_all(dir.path("game"));
        std::filesystem::create_directory(dir.path("game"));
        EXPECT_EQ(failureOfFetch(dir.prefix() + "game", SxString(server.url())), "");
        for (const char* name : {"app.json", "img.json", "img.idx"}) {
            EXPECT_TRUE(dir.read(std::string("game/") + name) == dir.read(std::string("served/") + name))
                << name;
            EXPECT_GE(nAnswers[name], 3) << "it came of one answer";
        }
    }
}

// Whoever waits for bytes waits for what they are doubted by.
TEST(ImageRecords, areAskedForTwiceWhereADoubtMeetsADeadConnection) {
    TempDir dir;
    TestRandom random;
    TestImage(random, 10).write(dir.prefix());
    ZqFileServer server(dir.prefix());
    server.start();
    LinkProxy proxy(server.getPort());
    ZqNetSettings settings = quickSettings();
    settings.secondMs = 300;
    settings.stallMs = 5'000;
    const ZqImageRecords records(SxPtr<ZqNetLink>::create(settings), dir.prefix(), SxString(proxy.url("")),
                                 {});
    const ZqAppParams own(dir.prefix());
    EXPECT_TRUE(records.isSameOnServer(own, nullptr));
    proxy.forgetConnections();
    const int64 start = SxClock::get().steadyNs();
    EXPECT_TRUE(records.isSameOnServer(own, nullptr));
    EXPECT_LT(SxClock::get().steadyNs() - start, 3'000'000'000);
    EXPECT_EQ(proxy.getNConnections(), 2);
}

// A server that doesn't answer for the digest alone; without it the map waits for nothing.
TEST(ImageRecords, theMapComesThoughItsDigestHasToWait) {
    TestRandom random;
    const TestImage game(random, 40);
    const std::string map = game.idxBytes(), digest = SxMd5::get(SxString(map)).str();
    for (const bool isRight : {true, false}) {
        TempDir dir;
        game.write(dir.prefix() + "served/");
        ZqAppParams unstated(dir.prefix() + "served/");
        unstated.checksumIdx = SxString();
        unstated.write(dir.prefix() + "served/");
        std::filesystem::create_directory(dir.path("game"));
        std::atomic<int> nMaps{0};
        const ScriptedServer server([&](const std::string& request) {
            const std::string name = request.substr(5, request.find(' ', 5) - 5);
            if (name == "img.idx.md5") {
                return nMaps > 0 ? answered("200 OK", digest) : answered("500 Broken");
            }
            if (name == "img.idx") {
                const bool isFirst = nMaps++ == 0;
                return answered("200 OK", isFirst && !isRight ? std::string(map.size(), 'x') : map);
            }
            return dir.exists("served/" + name) ? answered("200 OK", dir.read("served/" + name))
                                                : answered("404 None");
        });
        ZqImageRecords records(SxPtr<ZqNetLink>::create(quickSettings()), dir.prefix() + "game",
                               SxString(server.url()), {});
        const ZqStopTest late = [endNs = SxClock::get().steadyNs() + 20'000'000'000] {
            return SxClock::get().steadyNs() >= endNs;
        };
        EXPECT_EQ(failureOf([&] {
                      bool isConfirmed = false;
                      records.fetchRest(records.fetchApp(false, &isConfirmed, late), late);
                  }),
                  "");
        EXPECT_TRUE(dir.exists("game/img.idx") && dir.read("game/img.idx") == map) << isRight;
        EXPECT_TRUE(dir.exists("game/img.idx.md5") && dir.read("game/img.idx.md5") == digest);
        EXPECT_EQ(nMaps, isRight ? 1 : 2);
    }
}
