#include "NetLab.h"
#include "RemoteImageReading.h"
#include "SxTime.h"

#include <atomic>

// What comes of the packed form, by the request: its front, its last bytes, its frames.
TEST(RemoteImageTable, holdsUpNothingWhereItDoesNotCome) {
    TestRandom random;
    const std::string zqf = halfRandom(&random, 12 * STRETCH + 345), packed = PackedImage(zqf).bytes();
    const std::string refused = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
    const std::string busy = "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n";
    const std::string login = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nlogin";
    const auto right = [&](const std::string& request) { return ScriptedServer::ranged(request, packed); };
    const auto bad = [&](const std::string& request) {
        return ScriptedServer::ranged(request, std::string(packed.size(), 'x'));
    };
    const auto unsized = [&](const std::string& request) {
        std::string answer = right(request);
        const std::string total = "/" + std::to_string(packed.size());
        return answer.replace(answer.find(total), total.size(), "/*");
    };
    const auto always = [](const std::string& answer) { return [=](const std::string&) { return answer; }; };
    const struct {
        const char* name;
        ScriptedServer::Answer front, tail, frames;
        bool isPacked;
    } cases[] = {
        {"all is well", right, right, right, true},
        {"a bad table", right, bad, right, false},
        {"a table that has to wait", right, always(busy), right, false},
        {"a table that is refused", right, always(refused), right, false},
        {"no sizes", unsized, unsized, unsized, false},
        {"a login page", always(login), always(login), always(login), false},
        {"a store without it", always(refused), always(refused), always(refused), false},
        {"bad frames", right, right, bad, false},
        {"frames that are refused", right, right, always(refused), false},
        {"frames that have to wait", right, always(busy), always(busy), false},
    };
    for (const auto& each : cases) {
        const std::string tailAt = std::to_string(packed.size() - ZqSeekTable::maxTail(zqf.size()));
        const ScriptedServer server([&](const std::string& request) {
            if (request.find("img.zqf.zst") == std::string::npos) return ScriptedServer::ranged(request, zqf);
            if (request.find("bytes=0-43\r") != std::string::npos) return each.front(request);
            if (request.find("bytes=" + tailAt + "-") != std::string::npos) return each.tail(request);
            EXPECT_EQ(request.find("bytes=-"), std::string::npos) << "few servers know that";
            return each.frames(request);
        });
        for (const uint64 from : {uint64{0}, 2 * STRETCH + 17}) {
            SCOPED_TRACE(std::string(each.name) + " from " + std::to_string(from));
            ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()),
                                zqf.size());
            EXPECT_TRUE(streamOf(image, from) == zqf.substr(from));
            EXPECT_TRUE(image.getFigures().isPacked || !each.isPacked);
            ZqRemoteImage other(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()),
                                zqf.size());
            EXPECT_TRUE(readOf(other, from, 5 * STRETCH) == zqf.substr(from, 5 * STRETCH));
        }
    }
}

TEST(RemoteImageTable, comesBackWhereItWasRefusedForAWhile) {
    TestRandom random;
    const std::string zqf = halfRandom(&random, 12 * STRETCH + 345), packed = PackedImage(zqf).bytes();
    for (const std::string status : {"403 Forbidden", "401 Unauthorized"}) {
        SCOPED_TRACE(status);
        std::atomic<bool> isRefused{true};
        const ScriptedServer server([&](const std::string& request) {
            if (request.find("img.zqf.zst") == std::string::npos) return ScriptedServer::ranged(request, zqf);
            if (isRefused) return "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n\r\n";
            return ScriptedServer::ranged(request, packed);
        });
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
        EXPECT_TRUE(readOf(image, 0, 5 * STRETCH) == zqf.substr(0, 5 * STRETCH));
        EXPECT_FALSE(image.getFigures().isPacked);
        isRefused = false;
        EXPECT_TRUE(SxWait::pass(20'000, [&] { return image.getFigures().isPacked; }));
        EXPECT_TRUE(readOf(image, 7 * STRETCH, STRETCH) == zqf.substr(7 * STRETCH, STRETCH));
    }
}
