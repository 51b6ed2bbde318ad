#include "Builders.h"
#include "SxClock.h"
#include "SxException.h"
#include "ZqFileServer.h"

#include <arpa/inet.h>
#include <cctype>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {
using std::string;

struct Response {
    int status = 0; ///< 0 where the connection ended without one
    std::map<string, string> fields;
    string body;
};

/// A connection that says just what a test wants.
class Client {
public:
    explicit Client(uint64 port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { ::close(fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Response get(const string& path, const string& fields = "", const string& method = "GET") {
        const string text = method + " /" + path + " HTTP/1.1\r\nHost: x\r\n" + fields + "\r\n";
        ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        return receive(method != "HEAD");
    }
    bool connected = false;

private:
    Response receive(bool hasBody) {
        Response response;
        size_t end = string::npos;
        while ((end = buffer.find("\r\n\r\n")) == string::npos)
            if (!more()) return response;
        parse(buffer.substr(0, end + 2), &response);
        buffer.erase(0, end + 4);
        const size_t n = hasBody ? std::stoul("0" + response.fields["content-length"]) : 0;
        while (buffer.size() < n && more())
            continue;
        response.body = buffer.substr(0, n);
        buffer.erase(0, n);
        return response;
    }
    bool more() {
        char bytes[65536];
        const ssize_t n = ::recv(fd, bytes, sizeof bytes, 0);
        if (n > 0) buffer.append(bytes, static_cast<size_t>(n));
        return n > 0;
    }
    static void parse(const string& head, Response* response) {
        response->status = std::stoi(head.substr(head.find(' ')));
        for (size_t at = head.find("\r\n") + 2; at < head.size();) {
            const size_t end = head.find("\r\n", at), colon = head.find(": ", at);
            string name = head.substr(at, colon - at);
            for (char& c : name)
                c = static_cast<char>(std::tolower(c));
            response->fields[name] = head.substr(colon + 2, end - colon - 2);
            at = end + 2;
        }
    }

    int fd;
    string buffer;
};

class FileServerTest : public testing::Test {
protected:
    void SetUp() override {
        dir.write("served/a.bin", bytes);
        dir.write("served/sub/empty", "");
        dir.write("served/img.json", "{}");
    }
    const string bytes = TestRandom().bytes(100'000);
    const TempDir dir;
};
} // namespace

TEST_F(FileServerTest, RangesAreThoseOfTheStandard) {
    ZqFileServer server(SxString(dir.path("served")));
    server.start();
    Client client(server.getPort());
    const Response whole = client.get("a.bin");
    ASSERT_EQ(whole.status, 200);
    EXPECT_TRUE(whole.body == bytes);
    EXPECT_EQ(whole.fields.at("accept-ranges"), "bytes");
    const string tag = whole.fields.at("etag"), date = whole.fields.at("last-modified");
    EXPECT_THAT(date, testing::MatchesRegex("[A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} .* GMT"));

    const struct {
        string fields;
        int status;
        size_t first, n;
    } cases[] = {{"Range: bytes=0-0\r\n", 206, 0, 1},
                 {"Range: bytes=1000-70000\r\n", 206, 1000, 69001},
                 {"Range: bytes=99999-\r\n", 206, 99999, 1},
                 {"Range: bytes=99000-99999999\r\n", 206, 99000, 1000},
                 {"Range: bytes=-10\r\n", 206, 99990, 10},
                 {"Range: bytes=-200000\r\n", 206, 0, 100'000},
                 {"Range: bytes=100000-\r\n", 416, 0, 0},
                 {"Range: bytes=-0\r\n", 416, 0, 0},
                 {"Range: bytes=1-2,5-6\r\n", 200, 0, 100'000},
                 {"Range: bytes=5-6\r\nIf-Range: " + tag + "\r\n", 206, 5, 2},
                 {"Range: bytes=5-6\r\nIf-Range: " + date + "\r\n", 206, 5, 2},
                 {"Range: bytes=5-6\r\nIf-Range: \"other\"\r\n", 200, 0, 100'000}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.fields);
        const Response got = client.get("a.bin", one.fields);
        EXPECT_EQ(got.status, one.status);
        if (one.status == 416) {
            EXPECT_EQ(got.fields.at("content-range"), "bytes */100000");
            continue;
        }
        EXPECT_TRUE(got.body == bytes.substr(one.first, one.n));
        if (one.status != 206) continue;
        EXPECT_EQ(got.fields.at("content-range"), "bytes " + std::to_string(one.first) + "-" +
                                                      std::to_string(one.first + one.n - 1) + "/100000");
    }
    const Response head = client.get("a.bin", "Range: bytes=5-6\r\n", "HEAD");
    EXPECT_EQ(head.status, 206);
    EXPECT_EQ(head.fields.at("content-length"), "2");
    const Response empty = client.get("sub/empty");
    EXPECT_EQ(empty.status, 200);
    EXPECT_EQ(empty.fields.at("content-length"), "0");
    EXPECT_EQ(client.get("sub/empty", "Range: bytes=0-\r\n").status, 416);
    EXPECT_EQ(client.get("img.json").body, "{}");
    EXPECT_EQ(server.getNConnections(), 1U);
    EXPECT_EQ(client.get("a.bin", "Content-Length: 3\r\n", "POST").status, 405);
}

TEST_F(FileServerTest, NothingOutsideOfTheFolderIsServed) {
    dir.write("secret", "secret");
    dir.write("served2/secret", "secret");
    std::filesystem::create_symlink(dir.path("secret"), dir.path("served/out"));
    std::filesystem::create_symlink("../served2", dir.path("served/beside"));
    std::filesystem::create_symlink("a.bin", dir.path("served/in"));
    ZqFileServer server(SxString(dir.path("served/")));
    server.start();
    Client client(server.getPort());
    for (const string path : {"../secret", "..%2fsecret", "%2e%2e/secret", "sub/../../secret", "out",
                              "beside/secret", "", "sub", "sub/", "none", "a.bin%00", "a.bin/"}) {
        const Response got = client.get(path);
        EXPECT_EQ(got.status, 404) << path;
        EXPECT_EQ(got.body, "There is no such file\n") << path;
    }
    EXPECT_EQ(client.get("in").body.size(), bytes.size());
    EXPECT_EQ(client.get("sub/../a.bin").status, 200);
    EXPECT_THROW(ZqFileServer(SxString(dir.path("secret"))), SxException);
}

TEST_F(FileServerTest, ItComesBackOnTheSamePort) {
    ZqFileServer server(SxString(dir.path("served")));
    server.start();
    const uint64 port = server.getPort();
    Client kept(port);
    EXPECT_EQ(kept.get("a.bin").status, 200);
    EXPECT_THROW(ZqFileServer(SxString(dir.path("served")), {.port = port}).start(), SxException);
    for (int i = 0; i < 3; ++i) {
        server.stop();
        EXPECT_EQ(kept.get("a.bin").status, 0);
        EXPECT_FALSE(Client(port).connected);
        server.start();
        EXPECT_EQ(server.getPort(), port);
        EXPECT_EQ(Client(port).get("a.bin").status, 200);
    }
    EXPECT_EQ(server.getNRequests("a.bin"), 4U);
    EXPECT_EQ(server.getNBytes(), 400'000U);
}

TEST_F(FileServerTest, ConnectionsShareTheRate) {
    ZqFileServer server(SxString(dir.path("served")), {.rate = 1'000'000});
    server.start();
    const int64 startNs = SxClock::get().steadyNs();
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i)
        clients.emplace_back([&] { EXPECT_TRUE(Client(server.getPort()).get("a.bin").body == bytes); });
    for (std::thread& client : clients)
        client.join();
    // Too fast is always a fault; too slow may come from other work on the machine.
    EXPECT_GE(SxClock::get().steadyNs() - startNs, 392'000'000);
}
