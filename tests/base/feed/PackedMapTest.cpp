#include "BaseTest.h"
#include "Builders.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFileServer.h"
#include "ZqImageMapFetch.h"
#include "ZqPackedMap.h"

#include <cstring>
#include <zstd.h>

namespace {

constexpr size_t FRAME = 1 << 20;

/// Runs of blocks that follow each other, in random order, with entries that aren't stored.
std::string orderedMap(TestRandom& random, size_t nEntries) {
    std::vector<uint64> map(nEntries, ~uint64{0});
    uint64 next = 0;
    for (int pass = 0; pass < 4; ++pass) {
        bool isTaken = false;
        for (size_t i = 0; i < nEntries; ++i) {
            if (i % 64 == 0) isTaken = pass == 3 || random.chance(0.3);
            if (isTaken && map[i] == ~uint64{0}) map[i] = next++;
        }
    }
    for (size_t i = 0; i < nEntries; i += 97)
        map[i] = ~uint64{0};
    return {reinterpret_cast<const char*>(map.data()), nEntries * 8};
}

std::string packed(const std::string& map) {
    const TempDir dir;
    const uint64 size =
        ZqPackedMap::pack(dir.write("map", map), dir.path("packed"), SxMd5::get(SxString(map)));
    EXPECT_EQ(size, dir.read("packed").size());
    return dir.read("packed");
}

/// As the format's page has it, by plain zstd.
std::string unpackByHand(std::string bytes) {
    std::string map;
    bytes.erase(0, 44);
    while (!bytes.empty()) {
        const size_t n = ZSTD_findFrameCompressedSize(bytes.data(), bytes.size());
        std::string plain(ZSTD_getFrameContentSize(bytes.data(), n), '\0');
        EXPECT_EQ(ZSTD_decompress(plain.data(), plain.size(), bytes.data(), n), plain.size());
        uint64 entry = 0, difference = 0;
        for (size_t i = 0; i < plain.size(); i += 8) {
            std::memcpy(&difference, plain.data() + i, 8);
            entry += difference;
            map.append(reinterpret_cast<const char*>(&entry), 8);
        }
        bytes.erase(0, n);
    }
    return map;
}

/// What a decoder makes of `bytes` in pieces of `piece`; its failure where it refuses them.
std::string decoded(const std::string& bytes, const std::string& map, size_t piece = 1 << 20) {
    std::string out;
    ZqPackedMap::Decoder decoder(map.size(), SxMd5::get(SxString(map)),
                                 [&](const char* at, int64 n) { out.append(at, static_cast<size_t>(n)); });
    const std::string failure = failureOf([&] {
        for (size_t i = 0; i < bytes.size(); i += piece)
            decoder.take(bytes.data() + i, static_cast<int64>(std::min(piece, bytes.size() - i)));
        decoder.finish();
    });
    EXPECT_LE(out.size(), map.size());
    return failure.empty() ? out : failure;
}

std::string frameOf(const std::string& plain) {
    std::string frame(ZSTD_compressBound(plain.size()), '\0');
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
    frame.resize(ZSTD_compress2(context, frame.data(), frame.size(), plain.data(), plain.size()));
    ZSTD_freeCCtx(context);
    return frame;
}

} // namespace

TEST(PackedMap, IsWhatTheFormatSays) {
    TestRandom random(3);
    TRACE_SEED(random);
    for (const size_t nEntries : {1U, 2U, 131'071U, 131'072U, 131'073U, 300'000U}) {
        SCOPED_TRACE(nEntries);
        const std::string ordered = orderedMap(random, nEntries), noise = random.bytes(nEntries * 8);
        for (const std::string& map : {ordered, noise}) {
            const std::string bytes = packed(map);
            EXPECT_EQ(bytes.substr(0, 44),
                      std::string("\x50\x2a\x4d\x18\x24\0\0\0idx=", 12) + SxMd5::get(SxString(map)).str());
            EXPECT_TRUE(unpackByHand(bytes) == map);
            EXPECT_LE(bytes.size(), ZqPackedMap::maxSize(map.size()));
            for (const size_t piece : {size_t{1} << 24, size_t{4097}, size_t{43}})
                EXPECT_TRUE(decoded(bytes, map, piece) == map) << piece;
        }
        if (nEntries == 300'000) {
            EXPECT_LT(packed(ordered).size() * 15, ordered.size());
        }
    }
}

TEST(PackedMap, WhatIsNoneIsRefused) {
    TestRandom random(5);
    TRACE_SEED(random);
    const std::string map = orderedMap(random, 140'000), right = packed(map), other = packed(map.substr(8));
    const std::string frame = frameOf(std::string(FRAME, '\0')), head = right.substr(0, 44);
    const std::pair<std::string, std::string> cases[] = {
        {"", "It ends after 0 of 1120000 bytes"},
        {right.substr(0, 43), "It ends after 0 of"},
        {right.substr(0, right.size() - 1), "It ends after 1048576 of"},
        {right + '\0', "goes on beyond the map's end"},
        {right + right.substr(44), "goes on beyond the map's end"},
        {right.substr(44), "wasn't packed of this map"},
        {other, "wasn't packed of this map"},
        {head + other.substr(44), "doesn't declare 71424 bytes"},
        {head + frame + frame, "doesn't declare 71424 bytes"},
        {head + frame + frameOf(std::string(71'424, '\1')), "Its map has another digest"},
        {head + frameOf(std::string(4 * FRAME, '\0')), "doesn't declare 1048576 bytes"},
        {head + std::string(3 * FRAME, '\x28'), "No zstd frame"},
        // Blocks that never end.
        {head + std::string("\x28\xb5\x2f\xfd\xa4\0\0\x10\0", 9) + std::string(4 * FRAME, '\0'),
         "has no end"},
    };
    for (const auto& [bytes, says] : cases) {
        SCOPED_TRACE(says);
        EXPECT_THAT(decoded(bytes, map).substr(0, 200), HasSubstr(says));
        EXPECT_THAT(decoded(bytes, map, 50'000).substr(0, 200), HasSubstr(says));
    }
    // A frame of another content, whichever bit it is.
    for (int i = 0; i < 40; ++i) {
        std::string damaged = right;
        damaged[44 + random.below(right.size() - 44)] ^= static_cast<char>(1 << random.below(8));
        EXPECT_FALSE(decoded(damaged, map) == map);
    }
    const TempDir dir;
    EXPECT_THAT(failureOf([&] { ZqPackedMap::pack(dir.write("odd", map.substr(1)), dir.path("to"), ""); }),
                HasSubstr("isn't a number of entries"));
    EXPECT_THAT(failureOf([&] { ZqPackedMap::pack(dir.write("map", map), dir.path("to"), "another"); }),
                HasSubstr("and not another"));
    EXPECT_FALSE(dir.exists("to") || dir.exists("to.tmp"));
}

namespace {

ZqAppParams appOf(const std::string& map) {
    ZqAppParams app;
    app.sizeIdx = map.size();
    app.checksumIdx = SxMd5::get(SxString(map));
    return app;
}

/// Fetches the map into `folder`; gives the failure.
std::string fetchMap(const SxString& url, const SxString& folder, const ZqAppParams& app,
                     const ZqStopTest& stop = nullptr) {
    ZqImageMapFetch job(SxPtr<ZqNetLink>::create(quickSettings()), folder, url, {}, app, stop);
    job.start();
    return failureOf([&] { job.finish(); });
}

/// A folder that a map is to come into, and a server that has it.
class MapFetch : public testing::Test {
protected:
    MapFetch() {
        dir.write("served/img.idx", map);
        dir.write("served/img.idx.zst", small);
        fs::create_directories(dir.path("got"));
        server.start();
    }
    std::string fetch(const ZqStopTest& stop = nullptr) {
        return fetchMap(server.getUrl(), dir.path("got/"), app, stop);
    }
    void expectMap() {
        EXPECT_TRUE(dir.read("got/img.idx") == map);
        EXPECT_EQ(dir.snapshot("got").size(), 1U) << "what came of it is gone";
        fs::remove(dir.path("got/img.idx"));
    }
    uint64 served(const char* name) { return server.getNBytes(name); }

    TestRandom random{11};
    const std::string map = orderedMap(random, 500'000), small = packed(map);
    ZqAppParams app = appOf(map);
    TempDir dir;
    ZqFileServer server{(fs::create_directories(dir.path("served")), dir.path("served"))};
};

} // namespace

TEST_F(MapFetch, TakesThePackedFormWhereItIsOfThisMap) {
    EXPECT_EQ(fetch(), "");
    expectMap();
    EXPECT_EQ(served("img.idx"), 0U);
    EXPECT_EQ(served("img.idx.zst"), small.size());

    std::string damaged = small, stale = packed(map.substr(8));
    damaged[small.size() / 2] ^= 1;
    for (const std::string& bad : {std::string(), std::string("no map"), damaged, stale,
                                   small.substr(0, small.size() / 2), small + small, "<html>" + map}) {
        SCOPED_TRACE(bad.substr(0, 6));
        const uint64 nBefore = served("img.idx");
        dir.write("served/img.idx.zst", bad);
        EXPECT_EQ(fetch(), "");
        expectMap();
        EXPECT_EQ(served("img.idx") - nBefore, map.size());
    }
    fs::remove(dir.path("served/img.idx.zst"));
    EXPECT_EQ(fetch(), "");
    expectMap();
    dir.write("served/img.idx", map.substr(8) + map.substr(0, 8));
    EXPECT_THAT(fetch(), HasSubstr("isn't that of this image"));
    EXPECT_TRUE(dir.snapshot("got").empty());
}

TEST_F(MapFetch, GoesOnWhereItStoppedAlsoInTheNextRun) {
    for (const bool isPacked : {true, false}) {
        SCOPED_TRACE(isPacked);
        const char* name = isPacked ? "img.idx.zst" : "img.idx";
        const std::string part = std::string("got/") + name + ".new", whole = isPacked ? small : map;
        if (!isPacked) fs::remove(dir.path("served/img.idx.zst"));
        const uint64 nBefore = served(name);
        server.setRate(whole.size());
        const auto cut = [&] { return dir.exists(part) && fs::file_size(dir.path(part)) > whole.size() / 4; };
        EXPECT_THAT(fetch(cut), HasSubstr("stopped"));
        const uint64 nKept = fs::file_size(dir.path(part));
        // What it still sends to nobody counts, too, until it is cut off.
        server.stop();
        server.setRate(0);
        EXPECT_FALSE(dir.exists("got/img.idx"));
        const uint64 nFirst = served(name) - nBefore;
        server.start();
        EXPECT_EQ(fetch(), "");
        expectMap();
        EXPECT_LE(served(name) - nBefore - nFirst, whole.size() - nKept);

        // What was left is of another map, longer than any, or all there.
        for (const std::string& left : {std::string(nKept, 'x'), std::string(9 << 20, 'x'), whole}) {
            dir.write(part, left);
            EXPECT_EQ(fetch(), "");
            expectMap();
        }
        // Without a digest nothing would tell.
        app.checksumIdx = "";
        dir.write(part, std::string(nKept, 'x'));
        EXPECT_EQ(fetch(), "");
        expectMap();
        app.checksumIdx = SxMd5::get(SxString(map));
        // Nothing is written beyond a link.
        dir.write("elsewhere", "mine");
        fs::create_symlink(dir.path("elsewhere"), dir.path(part));
        EXPECT_EQ(fetch(), "");
        expectMap();
        EXPECT_EQ(dir.read("elsewhere"), "mine");
    }
}

TEST(MapFetchRefused, NoFormIsWaitedForThatIsRefused) {
    TestRandom random(13);
    const std::string map = orderedMap(random, 1000);
    for (const char* status : {"403 Forbidden", "404 Not Found", "410 Gone", "401 Unauthorized"}) {
        SCOPED_TRACE(status);
        ScriptedServer server([&](const std::string& request) {
            if (request.find("img.idx.zst") == std::string::npos) return ScriptedServer::ranged(request, map);
            return std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n";
        });
        const TempDir dir;
        EXPECT_EQ(fetchMap(server.url(), dir.prefix(), appOf(map)), "");
        EXPECT_TRUE(dir.read("img.idx") == map);
        EXPECT_EQ(server.requests().size(), 2U);
    }
}

// A few tries, then the other form; where neither comes, in turns; none of them may be missing meanwhile.
TEST(MapFetchTurns, NoFormIsWaitedForThatDoesntAnswerWhileTheOtherMay) {
    TestRandom random(19);
    const std::string map = orderedMap(random, 1000), small = packed(map);
    const std::string none = "404 None", broken = "500 Broken", silence = ScriptedServer::SILENCE;
    const struct {
        std::string ofPacked, ofPlain;
        int nPacked, nPlain; ///< how often each must have failed before the one that may come does
        bool isPackedBack, isPlainBack;
    } cases[] = {
        {broken, "", 1, 0, false, true},
        {silence, "", 1, 0, false, true},
        {"", "", 0, 0, true, true},
        {"cut", "", 1, 0, false, true},
        {broken, broken, 4, 4, true, false},
        {broken, broken, 4, 4, false, true},
        {silence, silence, 2, 2, true, false},
        {silence, silence, 2, 2, false, true},
        {broken, none, 8, 1, true, false},
        {none, broken, 1, 8, false, true},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.ofPacked + " " + each.ofPlain + (each.isPackedBack ? " packed" : " plain"));
        std::atomic<int> nPacked{0}, nPlain{0};
        ScriptedServer server([&](const std::string& request) -> std::string {
            const bool isPacked = request.find("img.idx.zst") != std::string::npos;
            const bool isBack = nPacked >= each.nPacked && nPlain >= each.nPlain;
            if (isBack && (isPacked ? each.isPackedBack : each.isPlainBack))
                return ScriptedServer::ranged(request, isPacked ? small : map);
            ++(isPacked ? nPacked : nPlain);
            const std::string& fault = isPacked ? each.ofPacked : each.ofPlain;
            if (fault == silence || fault == "cut") return fault == silence ? fault : "";
            return "HTTP/1.1 " + fault + "\r\nContent-Length: 0\r\n\r\n";
        });
        const TempDir dir;
        const ZqStopTest late = [endNs = SxClock::get().steadyNs() + 20'000'000'000] {
            return SxClock::get().steadyNs() >= endNs;
        };
        EXPECT_EQ(fetchMap(server.url(), dir.prefix(), appOf(map), late), "");
        EXPECT_TRUE(dir.exists("img.idx") && dir.read("img.idx") == map);
        if (each.nPlain == 0) {
            EXPECT_LE(nPacked, 3) << "a few tries";
        }
    }
}

TEST(MapFetchMirrors, OneOfAnotherMapCostsNoMoreThanAnotherTry) {
    TestRandom random(17);
    const std::string map = orderedMap(random, 1000), other = orderedMap(random, 1000);
    std::atomic<int> nAnswers{0};
    ScriptedServer server([&](const std::string& request) {
        if (request.find("img.idx.zst") != std::string::npos)
            return std::string("HTTP/1.1 404 None\r\nContent-Length: 0\r\n\r\n");
        if (nAnswers++ > 0) return ScriptedServer::ranged(request, map, "ETag: \"1\"\r\n");
        const std::string answer = ScriptedServer::ranged(request, other, "ETag: \"2\"\r\n");
        return answer.substr(0, answer.size() / 2);
    });
    const TempDir dir;
    EXPECT_EQ(fetchMap(server.url(), dir.prefix(), appOf(map)), "");
    EXPECT_TRUE(dir.read("img.idx") == map);
}
