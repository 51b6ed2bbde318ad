#include "Failure.h"
#include "NetLab.h"
#include "RemoteImageReading.h"
#include "SxClock.h"
#include "SxTime.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>

// The cases say what comes of the packed form by what is asked for: its front, its last bytes, its frames.
TEST(RemoteImageTable, holdsUpNothingWhereItDoesNotCome) {
    TestRandom random;
    const std::string zqf = halfRandom(&random, 12 * STRETCH + 345), packed = PackedImage(zqf).bytes();
    const std::string refused = statusOnly("403 Forbidden");
    const std::string busy = statusOnly("503 Busy");
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
    // The stream begins at the image's first byte and in a frame's middle, in turns.
    uint64 from = 0;
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.name) + " from " + std::to_string(from));
        const std::string tailAt = std::to_string(packed.size() - ZqSeekTable::maxTail(zqf.size()));
        const ScriptedServer server([&](const std::string& request) {
            if (request.find("img.zqf.zst") == std::string::npos) return ScriptedServer::ranged(request, zqf);
            if (request.find("bytes=0-43\r") != std::string::npos) return each.front(request);
            if (request.find("bytes=" + tailAt + "-") != std::string::npos) return each.tail(request);
            EXPECT_EQ(request.find("bytes=-"), std::string::npos) << "few servers know that";
            return each.frames(request);
        });
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
        EXPECT_TRUE(streamOf(image, from) == zqf.substr(from));
        // The stream needs no table from the first byte on, so that may come after it.
        EXPECT_TRUE(!each.isPacked || SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
        ZqRemoteImage other(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
        EXPECT_TRUE(readOf(other, from, 5 * STRETCH) == zqf.substr(from, 5 * STRETCH));
        from = 2 * STRETCH + 17 - from;
    }
}

// Both forms of an image, of which each may be made to fail. The table is there.
class TwoForms : public testing::Test {
protected:
    struct Form {
        std::string fault; ///< a status, "cut", or silence; empty where all is well
        int nRight = 0, nFailed = 0;
        int nUntilRight = 0; ///< when both forms have failed so often, this one is there; 0 for never
    };

    TwoForms() { awaitPacked(); }
    std::string answer(const std::string& request) {
        const bool isPacked = request.find("img.zqf.zst") != std::string::npos;
        SxMutexBlock lock(&mutex);
        Form& form = isPacked ? packed : plain;
        const int nBoth = std::min(packed.nFailed, plain.nFailed);
        if (form.fault.empty() || (form.nUntilRight > 0 && nBoth >= form.nUntilRight)) {
            ++form.nRight;
            return ScriptedServer::ranged(request, isPacked ? zst : zqf);
        }
        ++form.nFailed;
        if (form.fault == "cut") return "";
        if (form.fault == ScriptedServer::SILENCE) return form.fault;
        return statusOnly(form.fault);
    }
    void set(const Form& packed_, const Form& plain_) {
        SxMutexBlock lock(&mutex);
        packed = packed_;
        plain = plain_;
    }
    int countPlain() {
        SxMutexBlock lock(&mutex);
        return plain.nRight;
    }
    void awaitPacked() {
        image.announce({}, {});
        EXPECT_TRUE(SxWait::pass(10'000, [&] { return image.getFigures().isPacked; }));
    }
    static ZqStopTest late() {
        const int64 endNs = SxClock::get().steadyNs() + 20'000'000'000;
        return [endNs] { return SxClock::get().steadyNs() >= endNs; };
    }
    void expectStream() {
        std::string all;
        EXPECT_EQ(failureOf([&] {
                      image.stream(
                          0,
                          [&](const char* bytes, int64 n) {
                              all.append(bytes, static_cast<size_t>(n));
                              return true;
                          },
                          late());
                  }),
                  "");
        EXPECT_TRUE(all == zqf);
        image.forget(0, zqf.size());
    }
    /// A stretch on demand, asked for again as the manager of underflows does.
    void expectRead(uint64 idx, bool mayFail = false) {
        std::string got(STRETCH, '\0'), failure;
        const ZqStopTest stop = late();
        do {
            failure = failureOf([&] { image.read(idx * STRETCH, STRETCH, got.data(), stop); });
        } while (mayFail && !failure.empty() && !stop());
        EXPECT_EQ(failure, "");
        EXPECT_TRUE(got == zqf.substr(idx * STRETCH, STRETCH)) << idx;
    }

    TestRandom random;
    const std::string zqf = halfRandom(&random, 12 * STRETCH + 345), zst = PackedImage(zqf).bytes();
    SxMutex mutex;
    Form packed, plain;
    ScriptedServer server{[this](const std::string& request) { return answer(request); }};
    ZqRemoteImage image{SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size()};
};

TEST_F(TwoForms, thePackedOneIsntWaitedForWhileThePlainOneIsThere) {
    const std::function<void()> stream = [&] { expectStream(); }, read = [&] { expectRead(4); }, anew = [&] {
        const SxPtr<SxArray<char>> bytes = image.fetchAnew(5, late());
        EXPECT_TRUE(std::string(bytes->data(), STRETCH) == zqf.substr(5 * STRETCH, STRETCH));
    };
    // Each use with a failure, and the two that wait by themselves with silence.
    const std::pair<std::string, std::function<void()>> cases[] = {{"500 Broken", stream},
                                                                   {"500 Broken", anew},
                                                                   {"403 Forbidden", read},
                                                                   {"cut", read},
                                                                   {ScriptedServer::SILENCE, stream},
                                                                   {ScriptedServer::SILENCE, read}};
    for (const auto& [fault, use] : cases) {
        SCOPED_TRACE(fault);
        set({fault}, {});
        use();
        EXPECT_GT(countPlain(), 0);
        EXPECT_FALSE(image.getFigures().isPacked);
        set({}, {});
        awaitPacked();
        use();
        EXPECT_EQ(countPlain(), 0) << "it is in use again";
        image.forget(0, zqf.size());
    }
}

TEST_F(TwoForms, haveTurnsWhereNeitherComes) {
    struct Case {
        std::string fault;
        bool isPackedBack, isStream;
    };
    // All pairs.
    for (const Case& each :
         {Case{"500 Broken", true, true}, Case{"500 Broken", false, false},
          Case{ScriptedServer::SILENCE, true, false}, Case{ScriptedServer::SILENCE, false, true}}) {
        SCOPED_TRACE(each.fault + (each.isPackedBack ? ", then packed" : ", then plain"));
        const Form back = {each.fault, 0, 0, 3}, away = {each.fault};
        set(each.isPackedBack ? back : away, each.isPackedBack ? away : back);
        if (each.isStream) expectStream();
        if (!each.isStream) expectRead(7, true);
        set({}, {});
        awaitPacked();
        image.forget(0, zqf.size());
    }
}

// A server may have the packed form alone.
TEST_F(TwoForms, aPlainOneThatIsntThereIsntTakenForAnAnswer) {
    for (const bool isStream : {true, false}) {
        set({"500 Broken", 0, 0, 2}, {"404 None"});
        if (isStream) expectStream();
        if (!isStream) expectRead(7, true);
        EXPECT_THAT(failureOf([&] { expectRead(8); }), "");
        image.forget(0, zqf.size());
    }
    set({"500 Broken"}, {"404 None"});
    std::string got(STRETCH, '\0');
    const SxException failure = exceptionOf([&] { image.read(3 * STRETCH, STRETCH, got.data(), late()); });
    EXPECT_TRUE(failure.hasTag(ZqNetLink::UNREACHABLE)) << failure.what();
}
