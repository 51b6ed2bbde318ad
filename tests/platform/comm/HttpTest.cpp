#include "Failure.h"
#include "Loopback.h"
#include "NetLab.h"
#include "NginxServer.h"
#include "SxClock.h"
#include "ZqHttp.h"
#include "ZqLog.h"

#include <gmock/gmock.h>
#include <unistd.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string answer(const std::string& status, const std::string& body, const std::string& more = "") {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + more + "\r\n" + body;
}

ZqHttpLimits within(int64 ms) {
    ZqHttpLimits limits;
    limits.totalMs = ms;
    return limits;
}

/// A port of the loopback interface on which nobody listens.
int freePort() {
    int port = 0;
    ::close(Loopback::listen(&port));
    return port;
}

} // namespace

TEST(Http, TheRequestIsSentAsItWasGiven) {
    const ScriptedServer server([](const std::string&) { return answer("200 OK", "{\"a\": [1]}"); });
    const std::string body = "{\"text\":\"" + std::string(2 << 20, 'x') + "\"}";
    const ZqHttp::Headers headers = [] {
        ZqHttp::Headers list;
        list("Authorization") = "Bearer a:b";
        list("X-Empty") = "";
        return list;
    }();
    const auto posted = ZqHttp::POST(SxString(server.url("runs?key=1")), headers, SxString(body));
    EXPECT_EQ(posted->statusCode(), 200);
    EXPECT_EQ(posted->toJSON().getElem("a").toIntList(), SxList<int64>{1});
    ZqHttp::Headers own;
    own("content-type") = "text/plain";
    EXPECT_EQ(ZqHttp::PATCH(SxString(server.url("runs/7")), own, "b")->getResponse(), "{\"a\": [1]}");

    const std::vector<std::string> seen = server.requests();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_THAT(seen[0].substr(0, 2000),
                AllOf(testing::StartsWith("POST /runs?key=1 HTTP/1.1\r\n"),
                      HasSubstr("\r\nAuthorization: Bearer a:b\r\n"), HasSubstr("\r\nX-Empty:\r\n"),
                      HasSubstr("\r\nContent-Type: application/json\r\n"), Not(HasSubstr("Expect:"))));
    EXPECT_TRUE(seen[0].ends_with("\r\n\r\n" + body));
    EXPECT_THAT(seen[1], AllOf(testing::StartsWith("PATCH /runs/7 HTTP/1.1\r\n"),
                               HasSubstr("\r\ncontent-type: text/plain\r\n"),
                               Not(HasSubstr("application/json")), testing::EndsWith("\r\n\r\nb")));
}

TEST(Http, EveryStatusIsAnAnswerAndNoRedirectIsFollowed) {
    for (const std::string status : {"201 Created", "302 Found", "307 Temporary Redirect", "500 Oh no"}) {
        SCOPED_TRACE(status);
        std::string url;
        const ScriptedServer server(
            [&](const std::string&) { return answer(status, "text", "Location: " + url + "\r\n"); });
        url = server.url("elsewhere");
        const auto response = ZqHttp::POST(SxString(server.url()), {}, "{}");
        EXPECT_EQ(response->statusCode(), std::stoi(status));
        EXPECT_EQ(response->getResponse(), "text");
        EXPECT_EQ(server.requests().size(), 1U);
        EXPECT_EQ(failureOf([&] { response->toJSON(); }), "The service's answer isn't JSON");
    }
}

TEST(Http, AnAnswerThatIsNoneEndsWithinTheLimits) {
    constexpr size_t MIB = 1 << 20;
    struct Case {
        std::string response;
        const char* failure;
    };
    const Case cases[] = {
        {ScriptedServer::SILENCE, "No whole answer within 0.3 s"},
        {ScriptedServer::TRICKLE + answer("200 OK", std::string(1000, '1')), "No whole answer within 0.3 s"},
        {answer("200 OK", std::string(MIB, '1')), ""},
        {answer("200 OK", std::string(MIB + 1, '1')), "The answer has more than 1048576 bytes"},
        {"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + std::string(3 * MIB, '1'),
         "more than 1048576 bytes"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 9000000000000000000\r\n\r\n{}",
         "the connection broke in the middle"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{}", "the connection broke in the middle"},
        {"", "Empty reply from server"},
        {"none of HTTP\r\n\r\n", "HTTP/0.9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.response.substr(0, 80) + " -> " + c.failure);
        const ScriptedServer server([&](const std::string&) { return c.response; });
        const int64 begunMs = SxClock::get().steadyMs();
        const std::string failure =
            failureOf([&] { ZqHttp::POST(SxString(server.url("secret")), {}, "{}", within(300)); });
        EXPECT_LT(SxClock::get().steadyMs() - begunMs, 5000);
        EXPECT_THAT(failure, HasSubstr(c.failure));
        EXPECT_EQ(failure.empty(), *c.failure == '\0') << failure;
    }
    std::string endless = "HTTP/1.1 200 OK\r\n";
    while (endless.size() < 2 * MIB)
        endless += "X-Line: " + std::string(1000, 'x') + "\r\n";
    const ScriptedServer server([&](const std::string&) { return endless; });
    EXPECT_NE(failureOf([&] { ZqHttp::POST(SxString(server.url()), {}, "{}", within(5000)); }), "");
}

TEST(Http, AStopTakesEffectAtOnce) {
    const ScriptedServer server([](const std::string&) { return ScriptedServer::SILENCE; });
    const int64 begunMs = SxClock::get().steadyMs();
    ZqHttpLimits limits;
    limits.stop = [&] { return SxClock::get().steadyMs() - begunMs > 100; };
    const SxException e = exceptionOf([&] { ZqHttp::PATCH(SxString(server.url()), {}, "{}", limits); });
    EXPECT_TRUE(e.hasTag(SxException::STOPPED)) << e.what();
    EXPECT_LT(SxClock::get().steadyMs() - begunMs, 2000);
}

TEST(Http, WhatCannotBeSentIsRefusedBeforeAConnectionIsMade) {
    const ScriptedServer server([](const std::string&) { return answer("200 OK", "{}"); });
    const std::string good = server.url();
    struct Case {
        std::string url, name, value;
        const char* failure;
    };
    const Case cases[] = {
        {"file:///etc/passwd", "", "", "must begin with http:// or https://"},
        {"ftp://127.0.0.1/x", "", "", "must begin with http:// or https://"},
        {"gopher-of-my-own://127.0.0.1/x", "", "", "must begin with http:// or https://"},
        {"127.0.0.1/x", "", "", "must begin with http:// or https://"},
        {"", "", "", "must begin with http:// or https://"},
        {"http://", "", "", "isn't valid"},
        {"http://127.0.0.1:99999/", "", "", "isn't valid"},
        {good + "a\r\nX-Forged: 1", "", "", "The address holds a control character"},
        {good, "X-Key", "a\r\nX-Forged: 1", "The header 'X-Key' holds a control character"},
        {good, "X-Key", std::string("a\0b", 3), "The header 'X-Key' holds a control character"},
        {good, "X Key", "1", "A header has no name"},
        {good, "X-Key\r\nX-Forged", "1", "A header has no name"},
        {good, "", "1", "A header has no name"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url + " " + c.name);
        ZqHttp::Headers headers;
        if (!c.name.empty() || !c.value.empty()) headers(SxString(c.name)) = SxString(c.value);
        EXPECT_THAT(failureOf([&] { ZqHttp::POST(SxString(c.url), headers, "{}"); }), HasSubstr(c.failure));
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST(Http, FailuresAndLogHaveNothingOfTheRequestButItsHost) {
    std::string log;
    ZqLog::setSink([&](const SxString&, const SxString& text) { log += text.str() + "\n"; });
    const std::string host = "127.0.0.1:" + std::to_string(freePort());
    ZqHttp::Headers headers;
    headers("X-Key") = "secret";
    const std::string urls[] = {"http://secret:secret@" + host + "/secret?secret#secret",
                                "http://secret:sec#ret@" + host + "/", "http://sec ret@" + host + "/secret",
                                "secret://secret@" + host};
    for (const std::string& url : urls) {
        const std::string failure = failureOf([&] { ZqHttp::POST(SxString(url), headers, "secret"); });
        EXPECT_NE(failure, "");
        EXPECT_THAT(failure,
                    AllOf(Not(HasSubstr("secret")), Not(HasSubstr("sec#ret")), Not(HasSubstr("sec ret"))));
    }
    EXPECT_EQ(failureOf([&] { ZqHttp::POST(SxString(urls[0]), headers, "secret"); }),
              "POST to 'http://" + host + "' failed: Connection refused");
    EXPECT_EQ(log, "");
    ZqLog::setSink({});
}

TEST(Http, ACertificateIsVerified) {
    const TempDir dir;
    dir.write("runs", "");
    const NginxServer server(dir.path());
    const auto post = [&](const ZqHttpLimits& limits) {
        return ZqHttp::POST(SxString(server.url() + "runs"), {}, "{}", limits)->statusCode();
    };
    EXPECT_THAT(failureOf([&] { post({}); }), HasSubstr("certificate"));
    ZqHttpLimits limits;
    limits.trustFile = SxString(server.authority());
    // It has files only, which can't be posted to.
    EXPECT_EQ(post(limits), 405);
}
