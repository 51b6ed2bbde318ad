#include "DriveRun.h"
#include "ZqDriveWire.h"
#include "ZqServiceFolder.h"

#include <cstring>
#include <list>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// Stands between the service and its clients, and makes each see the other's messages as those of another
/// version.
class Estranged {
public:
    explicit Estranged(string folder)
        : path(std::move(folder) + ZqServiceFolder::SOCKET),
          real(path + ".real") {
        fs::rename(path, real);
        listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener, 16), 0);
        acceptor = std::thread([this] { accept(); });
    }
    ~Estranged() {
        stopping = true;
        acceptor.join();
        for (const int fd : ends)
            ::shutdown(fd, SHUT_RDWR);
        for (std::thread& thread : relays)
            thread.join();
        for (const int fd : ends)
            ::close(fd);
        ::close(listener);
        std::error_code none; // the service may have ended
        fs::rename(real, path, none);
    }
    Estranged(const Estranged&) = delete;
    Estranged& operator=(const Estranged&) = delete;

private:
    static constexpr unsigned OTHER = ZqDriveWire::VERSION + 1;

    static sockaddr_un addressOf(const string& path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    static void sendAsOther(int fd, const ZqDriveWire::Message& message) {
        string bytes;
        const auto add = [&](uint64 value, int n) {
            for (int i = 0; i < n; ++i)
                bytes += static_cast<char>(value >> (8 * i));
        };
        add(message.body.size(), 4);
        add(message.kind, 2);
        add(OTHER, 2);
        bytes += message.body;
        [[maybe_unused]] const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void accept() {
        while (!stopping) {
            pollfd waiting = {listener, POLLIN, 0};
            if (::poll(&waiting, 1, 20) <= 0) continue;
            const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            const int service = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const sockaddr_un address = addressOf(real);
            ends.insert(ends.end(), {client, service});
            if (::connect(service, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                ::shutdown(client, SHUT_RDWR);
                continue;
            }
            relays.emplace_back([client, service] {
                while (const auto request = ZqDriveWire::receive(client)) {
                    sendAsOther(service, *request);
                    const auto answer = ZqDriveWire::receive(service);
                    if (!answer) break;
                    sendAsOther(client, *answer);
                }
                ::shutdown(client, SHUT_RDWR);
                ::shutdown(service, SHUT_RDWR);
            });
        }
    }

    const string path, real;
    int listener = -1;
    std::list<int> ends;
    std::list<std::thread> relays;
    std::atomic<bool> stopping{false};
    std::thread acceptor;
};

using OtherVersion = DriveRun;

} // namespace

TEST_F(OtherVersion, theDrivesOfItsServiceAreSeenAndTakenAway) {
    const string image = build("image", "ext4", {"--free", std::to_string(16 << 20)}),
                 other = build("other", "erofs");
    const string content = TestRandom(5).bytes(4 << 20);
    std::ofstream(mount(image, {"--mode", "rtw"}) + "/saved", std::ios::binary) << content;
    mount(other);
    {
        const Estranged estranged(ZqServiceFolder::of(ZqMachineRoot::get().str()));
        EXPECT_THAT(done({"status"}), testing::AllOf(HasSubstr(image), HasSubstr(other)));
        const Outcome refused = run({"mount", build("third", "erofs")});
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr("is of another version than this program: take its drives away"));
        EXPECT_EQ(done({"umount", image}), "Unmounted\n");
        EXPECT_EQ(done({"umount", other, "--hard"}), "Unmounted\n");
        EXPECT_THAT(leftovers(), testing::IsEmpty());
        EXPECT_EQ(done({"umount", image}), "Not mounted\n");
        EXPECT_TRUE(eventually([] { return processesOf(false).empty(); })) << "it doesn't end";
    }
    EXPECT_TRUE(TempDir::readFile(mount(image, {"--mode", "rtw"}) + "/saved") == content);
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
}
