#include "Builders.h"
#include "Failure.h"
#include "NetLab.h"
#include "SxClock.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqRangeReader.h"
#include "ZqRemoteFile.h"
#include "ZqRemoteImage.h"
#include "ZqTransfer.h"

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <new>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

using FilePtr = SxPtr<ZqRemoteFile>;

} // namespace

// Headers and bodies that no file server sends by itself.
TEST(RemoteFileHostile, refusesAnswersThatAreNoAnswers) {
    const std::string data(1000, 'x');
    const std::string head = "HTTP/1.1 206 Partial Content\r\nConnection: close\r\n";
    const std::string range = "Content-Range: bytes 10-19/1000\r\n";
    const std::pair<std::string, const char*> cases[] = {
        {head + "Content-Length: 10\r\n\r\n" + data.substr(0, 10), "doesn't say which bytes"},
        {head + "Content-Range: bytes 18446744073709551615-1/2\r\n\r\n", "doesn't say which bytes"},
        {head + "Content-Range: lines 10-19/1000\r\n\r\n", "doesn't say which bytes"},
        {head + range + "Content-Length: 11\r\n\r\n" + data.substr(0, 11), "announces 11 bytes"},
        {head + range + "\r\n" + data, "more than it was asked for"},
        {head + range + "Content-Length: 10\r\n\r\n12345", "gave up after 3 tries"},
        {head + range + "Content-Encoding: gzip\r\nContent-Length: 10\r\n\r\n0123456789", "encoded (gzip)"},
        {"HTTP/1.1 206\r\n\r\n", "doesn't say which bytes"},
        {"HTTP/1.1 418 Teapot\r\nContent-Length: 0\r\n\r\n", "the server answers 418"},
        {"", "Gave up after 3 tries"},
        {"HTTP/1.1 302 Found\r\nLocation: file:///etc/passwd\r\nContent-Length: 0\r\n\r\n", "file"},
    };
    for (const auto& [response, text] : cases) {
        const ScriptedServer server([&response = response](const std::string&) { return response; });
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
        char buffer[10];
        const std::string failure = exceptionOf([&] { file->read(10, 10, buffer); }).what();
        EXPECT_THAT(SxString(failure).changeCase(false).str(),
                    HasSubstr(SxString(text).changeCase(false).str()))
            << response;
    }
}

TEST(RemoteFileFailure, isOfTheKindThatTellsWhatToDo) {
    const auto answered = [](const std::string& status, const std::string& more = "") {
        return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: 0\r\n" + more + "\r\n";
    };
    const std::string page = "HTTP/1.1 200 OK\r\nContent-Length: 8\r\nConnection: close\r\n\r\n<html>\r\n";
    struct Case {
        std::string response;
        const char *tag, *text;
    };
    const Case cases[] = {
        {answered("404 Not Found"), ZqNetLink::NOT_FOUND, "the server answers 404"},
        {answered("410 Gone"), ZqNetLink::NOT_FOUND, "the server answers 410"},
        {answered("401 Unauthorized"), ZqNetLink::REFUSED, "the server wants to know who asks"},
        {answered("403 Forbidden"), ZqNetLink::REFUSED, "the server answers 403"},
        {answered("407 Authenticate"), ZqNetLink::REFUSED, "the proxy answers 407"},
        {answered("451 Unavailable"), ZqNetLink::REFUSED, "the server answers 451"},
        {answered("302 Found", "Location: /again\r\n"), ZqNetLink::REFUSED, "redirects"},
        {answered("302 Found", "Location: ftp://127.0.0.1/f\r\n"), ZqNetLink::REFUSED, "ftp"},
        {answered("408 Timeout"), ZqNetLink::UNREACHABLE, "the server answers 408"},
        {answered("429 Too Many"), ZqNetLink::UNREACHABLE, "the server answers 429"},
        {answered("503 Unavailable"), ZqNetLink::UNREACHABLE, "the server answers 503"},
        {answered("204 No Content"), ZqNetLink::WRONG, "the server answers 204"},
        {answered("304 Not Modified"), ZqNetLink::WRONG, "the server answers 304"},
        {page, ZqNetLink::WRONG, "the whole file"},
        {"SSH-2.0-OpenSSH\r\n", ZqNetLink::WRONG, "HTTP/0.9"},
        {"", ZqNetLink::BROKEN, "Empty reply"},
    };
    for (const Case& each : cases) {
        const ScriptedServer server([&](const std::string&) { return each.response; });
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
        char buffer[10];
        const SxException e = exceptionOf([&] { file->read(10, 10, buffer); });
        EXPECT_TRUE(e.hasTag(each.tag)) << each.response << e.what();
        EXPECT_THAT(SxString(e.what()).changeCase(false).str(),
                    HasSubstr(SxString(each.text).changeCase(false).str()));
    }
    // A store that doesn't list its files tells by 403 that there is none.
    const ScriptedServer store([&](const std::string&) { return answered("403 Forbidden"); });
    const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(store.url("f")));
    file->getFacts()->allowAbsence();
    const SxException absence = exceptionOf([&] { file->get(10); });
    EXPECT_TRUE(absence.hasTag(ZqNetLink::NOT_FOUND));
    EXPECT_TRUE(absence.hasTag(ZqNetLink::REFUSED)) << "it may pass";
}

// What a server says need not be what it was asked for, as long as it tells what it is.
TEST(RemoteFileAnswer, isTakenWhereTheBytesCanBeTold) {
    TestRandom random;
    const std::string data = random.bytes(1000);
    const auto said = [&](const std::string& range, uint64 first, uint64 end) {
        return "HTTP/1.1 206 Partial Content\r\nConnection: close\r\nContent-Length: " +
               std::to_string(end - first) + "\r\nContent-Range: " + range + "\r\n\r\n" +
               data.substr(first, end - first);
    };
    const std::string whole = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1000\r\n\r\n" + data;
    const std::string unsized = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + data;
    // Each of these answers a request for bytes 100-299.
    const std::pair<const char*, std::string> cases[] = {
        {"more on both sides", said("bytes 50-399/1000", 50, 400)},
        {"all", said("bytes 0-999/1000", 0, 1000)},
        {"no total", said("bytes 100-299/*", 100, 300)},
        {"more, and no total", said("bytes 0-499/*", 0, 500)},
        {"another case", said("Bytes 100-299/1000", 100, 300)},
        {"blanks", said("BYTES  100 - 299 / 1000 ", 100, 300)},
        {"an equals sign", said("bytes=100-299/1000", 100, 300)},
        {"the whole", whole},
        {"the whole, of no stated size", unsized},
    };
    for (const auto& [name, response] : cases) {
        SCOPED_TRACE(name);
        const ScriptedServer server([&response = response](const std::string&) { return response; });
        const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()),
                                          SxString(server.url("f")), SxArray<SxString>(), 1000);
        for (int i = 0; i < 2; ++i) {
            std::string buffer(200, '\0');
            file->read(100, 200, buffer.data());
            EXPECT_TRUE(buffer == data.substr(100, 200));
        }
        EXPECT_EQ(server.requests().size(), 2u);
    }
    // Where a large file is expected such an answer may be anything, as a page to log in to.
    {
        const ScriptedServer server([&](const std::string&) { return unsized; });
        const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()),
                                          SxString(server.url("f")), SxArray<SxString>(), 1'000'000'000);
        char byte = 0;
        const SxException e = exceptionOf([&] { file->read(0, 1, &byte); });
        EXPECT_TRUE(e.hasTag(ZqNetLink::WRONG)) << e.what();
    }
    // Some servers label a file that holds zstd with what it holds, which is no encoding of it.
    for (const char* name : {"f.zst?a=b", "f"}) {
        const ScriptedServer server([&](const std::string& request) {
            return ScriptedServer::ranged(request, data, "Content-Encoding: zstd\r\n");
        });
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url(name)));
        char byte = 0;
        const SxException e = exceptionOf([&] { file->read(5, 1, &byte); });
        EXPECT_EQ(e.hasTag(ZqNetLink::WRONG), std::string(name) == "f") << e.what();
    }
    // This server gives at most 64 bytes at once, and says no total.
    const auto sparing = [&](const std::string& request) {
        const size_t at = request.find("bytes=");
        if (at == std::string::npos) return unsized;
        const uint64 first = std::stoull(request.substr(at + 6));
        if (first >= 1000) {
            return std::string(
                "HTTP/1.1 416 Range\r\nContent-Length: 0\r\nContent-Range: bytes */1000\r\n\r\n");
        }
        const uint64 end = std::min<uint64>(first + 64, 1000);
        return said("bytes " + std::to_string(first) + "-" + std::to_string(end - 1) + "/*", first, end);
    };
    const ScriptedServer server(sparing);
    const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
    std::string buffer(900, '\0'), streamed;
    file->read(100, 900, buffer.data());
    EXPECT_TRUE(buffer == data.substr(100));
    file->stream(1, [&](const char* piece, int64 n) {
        streamed.append(piece, static_cast<size_t>(n));
        return true;
    });
    EXPECT_TRUE(streamed == data.substr(1));
    // A whole file is asked for without a range, which a cache may need that hasn't got it yet.
    EXPECT_EQ(SxString(file->get(1000)).str(), data);
    EXPECT_THAT(server.requests().back(), Not(HasSubstr("Range:")));
}

// Two answers tell a version of the file each. Where these differ the test that was set says whether the
// bytes are the same.
TEST(RemoteFileVersion, isComparedLikeWithLike) {
    const std::string data(1000, 'x'), time = "Last-Modified: Sat, 01 Jan 2022 10:00:00 GMT\r\n",
                                       later = "Last-Modified: Sat, 01 Jan 2022 10:00:01 GMT\r\n",
                                       tag = "ETag: \"a\"\r\n", weak = "ETag: W/\"a\"\r\n",
                                       other = "ETag: \"b\"\r\n";
    enum Verdict { Same, Asks, AsksWithoutCommon };
    const struct {
        std::string first, then;
        Verdict verdict;
    } cases[] = {
        {tag + time, tag + time, Same},
        {tag, weak, Same},
        {weak, tag, Same},
        {tag + time, tag + later, Same},
        {tag + time, time, Same},
        {time, tag + time, Same},
        {"", "", Same},
        {tag, other, Asks},
        {time, later, Asks},
        {tag + time, other + time, Asks},
        {tag + time, later, Asks},
        {tag, time, AsksWithoutCommon},
        {time, "", AsksWithoutCommon},
        {"", tag, AsksWithoutCommon},
    };
    enum Means { Nothing, StillSame, Changed, NotNow };
    for (const auto& each : cases) {
        for (const Means means : {Nothing, StillSame, Changed, NotNow}) {
            SCOPED_TRACE(each.first + "then " + each.then + std::to_string(means));
            std::atomic<int> nAnswers{0}, nAsked{0};
            const ScriptedServer server([&](const std::string& request) {
                return ScriptedServer::ranged(request, data, nAnswers++ == 0 ? each.first : each.then);
            });
            const auto file =
                FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
            if (means != Nothing) {
                file->getFacts()->setSameTest([&](const ZqStopTest&) {
                    if (++nAsked == 1 && means == NotNow) {
                        throw SxException(ZqNetLink::UNREACHABLE, "not now", "test", __LINE__);
                    }
                    return means != Changed;
                });
            }
            std::string buffer(300, '\0');
            file->read(0, 100, buffer.data());
            bool hasChanged = false;
            for (uint64 i = 1; i < 3; ++i) {
                const SxException e = exceptionOf([&] { file->read(100 * i, 100, &buffer[100 * i]); });
                hasChanged = hasChanged || e.hasTag(ZqNetLink::CHANGED);
            }
            const bool isAsked = means != Nothing && each.verdict != Same;
            EXPECT_EQ(hasChanged,
                      (isAsked && means == Changed) || (means == Nothing && each.verdict == Asks));
            EXPECT_EQ(nAsked, !isAsked ? 0 : means == StillSame ? 1 : 2);
            EXPECT_TRUE(hasChanged || buffer == data.substr(0, 300));
        }
    }
}

TEST(RemoteFileVersion, isVouchedForOnlyToTheNextAnswer) {
    const std::string data(1000, 'x'), busy = "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n";
    for (const std::string& lost : {std::string(), busy}) {
        std::atomic<int> nAnswers{0}, nAsked{0};
        const ScriptedServer server([&](const std::string& request) {
            const int nth = nAnswers++;
            if (nth == 2) return lost;
            return ScriptedServer::ranged(request, data, "ETag: \"" + std::to_string(nth) + "\"\r\n");
        });
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
        file->getFacts()->setSameTest([&](const ZqStopTest&) { return ++nAsked == 1; });
        char buffer[10];
        file->read(0, 10, buffer);
        // The second version was found to be right. The test doesn't vouch for the next one.
        const SxException e = exceptionOf([&] { file->read(0, 10, buffer); });
        EXPECT_TRUE(e.hasTag(ZqNetLink::CHANGED)) << e.what();
        EXPECT_EQ(nAsked, 2);
    }
}

TEST(RemoteFileVersion, aDifferentSizeIsNeverTaken) {
    for (const bool isSame : {true, false}) {
        std::atomic<int> nAnswers{0};
        const ScriptedServer server([&](const std::string& request) {
            return ScriptedServer::ranged(request, std::string(nAnswers++ == 0 ? 1000 : 999, 'x'));
        });
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
        file->getFacts()->setSameTest([&](const ZqStopTest&) { return isSame; });
        char buffer[10];
        file->read(0, 10, buffer);
        const SxException e = exceptionOf([&] { file->read(0, 10, buffer); });
        EXPECT_TRUE(e.hasTag(isSame ? ZqNetLink::WRONG : ZqNetLink::CHANGED)) << e.what();
    }
}

// Two mirrors in turn, each of which breaks off now and then.
TEST(RemoteFileMirrors, aRangeIsOfOneOfThem) {
    const std::string one(1000, '1'), two(1000, '2');
    std::atomic<int> nAnswers{0};
    const ScriptedServer server([&](const std::string& request) {
        const int i = nAnswers++;
        std::string answer = i % 2 == 0 ? ScriptedServer::ranged(request, one, "ETag: \"1\"\r\n")
                                        : ScriptedServer::ranged(request, two, "ETag: \"2\"\r\n");
        return i % 4 == 0 ? answer.substr(0, answer.size() - 100) : answer;
    });
    const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url("f")));
    file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
    for (int i = 0; i < 6; ++i) {
        std::string buffer(400, '\0');
        file->read(200, 400, buffer.data());
        EXPECT_TRUE(buffer == one.substr(0, 400) || buffer == two.substr(0, 400)) << buffer;
        const std::string all = SxString(file->get(1000)).str();
        EXPECT_TRUE(all == one || all == two) << all;
    }
}

// Stretches that come with one request, as those that follow what is on demand do. Each byte tells its place.
TEST(RemoteFileMirrors, eachUnitOfARequestIsOfOneOfThemAndInItsPlace) {
    constexpr uint64 UNIT = 100, N_UNITS = 9, FIRST = 50;
    std::string one(1000, '\0'), two(1000, '\0');
    for (size_t i = 0; i < one.size(); ++i) {
        one[i] = static_cast<char>(2 * (i % 125));
        two[i] = static_cast<char>(one[i] + 1);
    }
    for (const uint64 nSent : {60U, 99U, 100U, 101U, 150U, 230U}) {
        SCOPED_TRACE("each answer ends after " + std::to_string(nSent));
        std::atomic<int> nAnswers{0};
        const ScriptedServer server([&](const std::string& request) {
            const int i = nAnswers++;
            const bool isOther = i / 3 % 2 == 1;
            const std::string answer = ScriptedServer::ranged(
                request, isOther ? two : one, isOther ? "ETag: \"2\"\r\n" : "ETag: \"1\"\r\n");
            const size_t head = answer.find("\r\n\r\n") + 4;
            return answer.substr(0, std::min(answer.size(), head + nSent));
        });
        ZqNetSettings settings = quickSettings();
        settings.nRangeTries = settings.nBrokenTries = 0;
        const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(settings), SxString(server.url("f")));
        file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
        ZqRangeReader reader(*file, FIRST, FIRST + N_UNITS * UNIT, ZqTransfer::Kind::OnDemand);
        for (uint64 at = FIRST; at < FIRST + N_UNITS * UNIT; at += UNIT) {
            std::string unit(UNIT, '\0');
            ASSERT_EQ(reader.read(unit.data(), UNIT, nullptr), UNIT);
            EXPECT_TRUE(unit == one.substr(at, UNIT) || unit == two.substr(at, UNIT)) << "from " << at;
        }
    }
}

// Answers end before all is there. They come of mirrors that take turns, or that answer once each.
TEST(RemoteFileMirrors, thatTakeTurnsGiveARangeOrEndIt) {
    TestRandom random;
    const std::string data = random.bytes(1000);
    std::atomic<int> nAnswers{0};
    std::atomic<int> nMirrors{1};
    std::atomic<bool> isBreaking{false};
    const ScriptedServer server([&](const std::string& request) {
        const std::string tag = "ETag: \"" + std::to_string(nAnswers++ % nMirrors) + "\"\r\n";
        const size_t at = request.find("bytes=");
        if (!isBreaking && at != std::string::npos) {
            const uint64 first = std::stoull(request.substr(at + 6));
            return ScriptedServer::partial(data, first, std::min<uint64>(first + 149, 999), tag);
        }
        // An answer with the whole file can't say that it is a part, so it breaks off.
        const std::string answer = ScriptedServer::ranged(request, data, tag);
        return answer.substr(0, std::min(answer.size(), answer.find("\r\n\r\n") + 4 + 150));
    });
    ZqNetSettings settings = quickSettings();
    settings.nRangeTries = 5;
    const auto link = SxPtr<ZqNetLink>::create(settings);
    const auto unitsOf = [](const SxPtr<ZqRemoteFile>& file, uint64 size, bool isChecked) {
        ZqRangeReader reader(*file, 0, 1000, ZqTransfer::Kind::OnDemand);
        if (isChecked) reader.setChecked();
        std::string got(1000, '\0');
        for (uint64 at = 0; at < 1000; at += size)
            EXPECT_EQ(reader.read(&got[at], size, nullptr), size);
        return got;
    };
    const std::function<std::string(const FilePtr&)> ways[] = {
        [](const FilePtr& file) { return SxString(file->get(1000)).str(); },
        [&](const FilePtr& file) { return unitsOf(file, 1000, false); },
        [&](const FilePtr& file) { return unitsOf(file, 500, false); },
        [&](const FilePtr& file) { return unitsOf(file, 500, true); },
    };
    for (const int of : {2, 1000}) {
        for (const bool breaks : {false, true}) {
            for (size_t way = 0; way < std::size(ways); ++way) {
                SCOPED_TRACE(std::to_string(of) + (breaks ? " that break off, way " : ", way ") +
                             std::to_string(way));
                nMirrors = of;
                isBreaking = breaks;
                nAnswers = 0;
                const auto file = FilePtr::create(link, SxString(server.url("f")));
                file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
                std::string got;
                const SxException failure = exceptionOf([&] { got = ways[way](file); });
                // Of a thousand mirrors no two answers are of one version.
                const bool isEnded = of > 2 && way < 3;
                EXPECT_EQ(failure.hasTag(ZqNetLink::BROKEN), isEnded) << failure.what();
                EXPECT_TRUE(got == (isEnded ? "" : data)) << failure.what();
                EXPECT_LE(nAnswers, 40);
            }
        }
    }
}

// The proxy of a process is told by its environment.
TEST(RemoteFileProxy, isToldAsWhoRefuses) {
    const auto answered = [](const std::string& status, const std::string& more = "") {
        return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: 0\r\n" + more + "\r\n";
    };
    const struct {
        const char *variable, *url;
        std::string response;
        const char *tag, *text;
    } cases[] = {
        {"https_proxy", "https://example.test/f", answered("403 Forbidden"), ZqNetLink::REFUSED,
         "the proxy 127.0.0.1:PORT answers 403"},
        {"https_proxy", "https://example.test/f", answered("407 Authenticate"), ZqNetLink::REFUSED,
         "the proxy 127.0.0.1:PORT answers 407"},
        {"https_proxy", "https://example.test/f", answered("503 Unavailable"), ZqNetLink::UNREACHABLE,
         "the proxy 127.0.0.1:PORT answers 503"},
        {"http_proxy", "http://example.test/f", answered("407 Authenticate"), ZqNetLink::REFUSED,
         "the proxy answers 407"},
        {"http_proxy", "http://example.test/f",
         answered("403 Forbidden", "X-Squid-Error: ERR_ACCESS_DENIED 0\r\n"), ZqNetLink::REFUSED,
         "the proxy answers 403"},
        {"http_proxy", "http://example.test/f",
         answered("502 Bad", "Proxy-Status: cache; error=connection_refused\r\n"), ZqNetLink::UNREACHABLE,
         "the proxy answers 502"},
        {"http_proxy", "http://example.test/f", answered("403 Forbidden"), ZqNetLink::REFUSED,
         "the server answers 403"},
    };
    for (const auto& each : cases) {
        const ScriptedServer proxy([&](const std::string&) { return each.response; });
        const std::string address = proxy.url();
        ::setenv(each.variable, address.c_str(), 1);
        const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(each.url));
        const SxException e = exceptionOf([&] { file->get(10); });
        ::unsetenv(each.variable);
        std::string text = each.text;
        const size_t at = text.find("PORT"), colon = address.rfind(':') + 1;
        if (at != std::string::npos) text.replace(at, 4, address.substr(colon, address.size() - 1 - colon));
        EXPECT_TRUE(e.hasTag(each.tag)) << e.what();
        EXPECT_THAT(std::string(e.what()), HasSubstr(text));
    }
}

TEST(RemoteFileProxy, thatOfTheSettingsHoldsWhereTheEnvironmentNamesNone) {
    const ScriptedServer proxy([](const std::string&) {
        return std::string("HTTP/1.1 403 No\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
    });
    ZqNetSettings settings = quickSettings();
    settings.access.spareProxy = SxString(proxy.url());
    const auto count = [&] {
        const auto file =
            FilePtr::create(SxPtr<ZqNetLink>::create(settings), SxString("http://example.test/f"));
        exceptionOf([&] { file->get(10); });
        return proxy.requests().size();
    };
    ::setenv("https_proxy", "http://127.0.0.1:1", 1);
    EXPECT_EQ(count(), 1u);
    ::setenv("all_proxy", "http://127.0.0.1:1", 1);
    EXPECT_EQ(count(), 1u);
    ::unsetenv("all_proxy");
    settings.access.proxy = "http://127.0.0.1:1";
    EXPECT_EQ(count(), 1u);
    ::unsetenv("https_proxy");
}

TEST(RemoteFileSecrets, areSentAndNotTold) {
    const std::string data(100, 'x');
    std::atomic<bool> isGone{false};
    const ScriptedServer server([&](const std::string& request) {
        if (isGone) return std::string("HTTP/1.1 404 None\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
        if (request.starts_with("GET /near")) {
            return "HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: " + server.url("far?token=hidden") +
                   "\r\nContent-Length: 0\r\n\r\n";
        }
        return ScriptedServer::ranged(request, data);
    });
    std::string url = server.url("near?token=hidden");
    url.insert(url.find("127"), "me:hidden@");
    const auto file = FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(url));
    char buffer[10];
    for (uint64 i = 0; i < 3; ++i)
        file->read(i * 10, 10, buffer);
    const std::vector<std::string> requests = server.requests();
    EXPECT_EQ(requests.size(), 4u) << "the redirect is followed once";
    for (const std::string& request : requests)
        EXPECT_THAT(request, AllOf(HasSubstr("Authorization: Basic"), HasSubstr("token=hidden")));
    isGone = true;
    const std::string text = exceptionOf([&] { file->read(0, 10, buffer); }).what();
    EXPECT_THAT(text, AllOf(HasSubstr("/near?...'"), HasSubstr("answers 404"), Not(HasSubstr("hidden"))));
}

TEST(RemoteFileRedirect, isForgottenWhereItsTargetIsGone) {
    const std::string data(1000, 'x');
    auto target = std::make_unique<ScriptedServer>(
        [&](const std::string& request) { return ScriptedServer::ranged(request, data); });
    const ScriptedServer mirror(
        [&](const std::string& request) { return ScriptedServer::ranged(request, data); });
    std::atomic<bool> isMoved{false};
    const std::string first = target->url("far"), second = mirror.url("far");
    const ScriptedServer origin([&](const std::string&) {
        return "HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: " + (isMoved ? second : first) +
               "\r\nContent-Length: 0\r\n\r\n";
    });
    const auto file =
        FilePtr::create(SxPtr<ZqNetLink>::create(quickSettings()), SxString(origin.url("near")));
    char buffer[10];
    file->read(0, 10, buffer);
    isMoved = true;
    target = nullptr;
    file->read(10, 10, buffer);
    EXPECT_EQ(origin.requests().size(), 2u);
    EXPECT_EQ(mirror.requests().size(), 1u);
}

TEST(RemoteFileRedirect, isFollowedOnceAndTakesNoSecretsAlong) {
    const std::string data(1000, 'x');
    const ScriptedServer target(
        [&](const std::string& request) { return ScriptedServer::ranged(request, data); });
    const ScriptedServer origin([&](const std::string&) {
        return "HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: " + target.url("far") +
               "\r\nContent-Length: 0\r\n\r\n";
    });
    const auto link = SxPtr<ZqNetLink>::create(quickSettings());
    const auto file = FilePtr::create(link, SxString(origin.url("near")),
                                      SxArray<SxString>{"Authorization: Basic c2VjcmV0", "X-Channel: 7"});
    char buffer[10];
    for (uint64 i = 0; i < 3; ++i)
        file->read(i * 10, 10, buffer);
    EXPECT_EQ(origin.requests().size(), 1u);
    EXPECT_THAT(origin.requests()[0], HasSubstr("Authorization: Basic"));
    ASSERT_EQ(target.requests().size(), 3u);
    for (const std::string& request : target.requests())
        EXPECT_THAT(request,
                    AllOf(HasSubstr("GET /far"), HasSubstr("X-Channel: 7"), Not(HasSubstr("Authorization"))));
}

TEST(RemoteImageRanges, areLookedForOnceAndWithoutPatience) {
    const std::string zqf = TestRandom().bytes(3 << 20);
    const TempDir dir;
    dir.write("img.zqf", zqf);
    for (const bool hasRanges : {true, false}) {
        SCOPED_TRACE(hasRanges);
        ZqFileServer server{dir.prefix()};
        server.start();
        if (!hasRanges) server.setFault(ZqFileServer::Whole);
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), server.getUrl(), zqf.size());
        const auto look = [&] { return exceptionOf([&] { image.requireRanges(); }); };
        EXPECT_STREQ(look().what(), "");
        EXPECT_EQ(server.getNRequests("img.zqf"), 0U) << "nothing has come that raises a doubt";
        image.stream(0, [](const char*, int64) { return false; });
        server.stop();
        EXPECT_STREQ(look().what(), "") << "a server that is away tells nothing";
        server.start();
        const uint64 nBefore = server.getNRequests("img.zqf");
        EXPECT_EQ(look().hasTag(ZqNetLink::WRONG), !hasRanges);
        // The stream itself asks for a range, so a server that has these is asked for nothing more.
        EXPECT_EQ(server.getNRequests("img.zqf") - nBefore, hasRanges ? 0U : 1U);
    }
}

// Want of memory is raised as another exception than failures are. Nobody may wait for ever then.
TEST(RemoteFileWant, endsNoThreadThatOthersWaitFor) {
    const std::string data(1000, 'x');
    std::atomic<int> nAnswers{0};
    const ScriptedServer server([&](const std::string& request) {
        return ScriptedServer::ranged(request, data, "ETag: \"" + std::to_string(nAnswers++) + "\"\r\n");
    });
    const auto link = SxPtr<ZqNetLink>::create(quickSettings());
    const auto late = [endNs = SxClock::get().steadyNs() + 10'000'000'000] {
        return SxClock::get().steadyNs() >= endNs;
    };
    // It comes on the thread of the network.
    ZqTransfer::Request request;
    request.url = SxString(server.url("f"));
    request.maxBuffered = 1000;
    request.check = [](const ZqTransfer::Response&) { throw std::bad_alloc(); };
    const auto transfer = SxPtr<ZqTransfer>::create(request);
    link->add(transfer);
    ASSERT_TRUE(SxWait::pass(10'000, [&] { return transfer->isFinished(); }));
    const ZqTransfer::State state = transfer->getState();
    EXPECT_TRUE(state.failed && state.nBuffered == 0 && state.failure.hasTag(ZqNetLink::BROKEN))
        << state.failure.what();
    // It comes where a doubt about the file is settled.
    ZqRemoteFile file(link, SxString(server.url("f")));
    bool hasMemory = false;
    file.getFacts()->setSameTest([&](const ZqStopTest&) {
        if (!hasMemory) throw std::bad_alloc();
        return true;
    });
    char buffer[10];
    EXPECT_EQ(failureOf([&] { file.read(0, 10, buffer, late); }), "");
    EXPECT_THROW(file.read(0, 10, buffer, late), std::bad_alloc);
    hasMemory = true;
    EXPECT_EQ(failureOf([&] { file.read(0, 10, buffer, late); }), "");
}
