#include "ControlServer.h"

#include "DriverLog.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/ControlServer";
constexpr int TICK_MS = 100;
/// Where there are so many, the oldest one is cut off for a new one: a client that was only idle connects
/// anew.
constexpr size_t MAX_CONNECTIONS = 512;

[[noreturn]] void fail(const SxString& what) {
    throw SxException(what + ": " + SxOs::errorText(errno), UNIT, __LINE__);
}

/// A client that connects and asks for nothing keeps the service so long.
constexpr int FIRST_REQUEST_MS = 10'000;
/// A client that doesn't take its answer, as one that was stopped, keeps a service that ends so long.
constexpr int64 ANSWER_MS = 1000;

bool isSameUser(int fd) {
    ucred peer = {};
    socklen_t size = sizeof peer;
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

} // namespace

/// One client's thread of requests.
class ControlServer::Connection : public SxSystemThread {
public:
    Connection(ControlServer* server_, int fd_) : server(server_), fd(fd_) { setThreadName("client"); }
    ~Connection() override { ::close(fd); }
    /// Ends the thread's wait for a request; one under way is still answered.
    void hangUp() { ::shutdown(fd, SHUT_RD); }
    /// Ends an answer that was under way when this was called before and still is.
    void dropAnswer() {
        const bool isStill = wasAnswering && isAnswering;
        wasAnswering = isAnswering;
        if (isStill) ::shutdown(fd, SHUT_RDWR);
    }

protected:
    void main() override {
        serve();
        // A client whose request the service no longer begins needn't wait until the service is gone.
        ::shutdown(fd, SHUT_RDWR);
    }

private:
    void serve() {
        ucred peer = {};
        socklen_t size = sizeof peer;
        ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        // A new connection counts as a request, so that the service can't end before the first one has come.
        pollfd first = {fd, POLLIN, 0};
        Counted counted(server);
        if (::poll(&first, 1, FIRST_REQUEST_MS) <= 0) counted.end();
        while (const auto request = ZqDriveWire::receive(fd)) {
            if (!counted.begin()) return;
            const bool sent = answer(*request, peer.pid);
            counted.end();
            if (!sent) return;
        }
    }

    /// A request that has begun. Whatever ends it, it counts no longer: else the service would never end.
    class Counted {
    public:
        explicit Counted(ControlServer* server_) : server(server_) {}
        ~Counted() { end(); }
        /// False where the service ends.
        bool begin() {
            if (!isOn) isOn = server->begin();
            return isOn;
        }
        void end() {
            if (isOn) server->done();
            isOn = false;
        }
        Counted(const Counted&) = delete;
        Counted& operator=(const Counted&) = delete;

    private:
        ControlServer* const server;
        bool isOn = true;
    };

    bool answer(const ZqDriveWire::Message& request, int64 peer) {
        try {
            if (request.version != ZqDriveWire::VERSION &&
                !ZqDriveWire::isOfAllVersions(static_cast<ZqDriveWire::Call>(request.kind))) {
                throw SxException("The drive service (process " + SxString(SxOs::processId()) +
                                      ") is of another version than this program: take its drives away, and "
                                      "it ends",
                                  UNIT, __LINE__);
            }
            return send(ZqDriveWire::SUCCESS, server->service->handle(request.kind, request.body, peer));
        } catch (const SxException& e) {
            const bool isMounted = e.hasTag(ZqDiskStatus::ALREADY_MOUNTED);
            return send(isMounted ? ZqDriveWire::ALREADY_MOUNTED : ZqDriveWire::FAILURE,
                        e.toString(SxException::ShowMessage, ": ").str());
        } catch (const std::exception& e) {
            driverLog("a request failed: " + SxString(e.what()));
            return send(ZqDriveWire::FAILURE, e.what());
        }
    }

    bool send(unsigned kind, std::string_view body) {
        isAnswering = true;
        const bool sent = ZqDriveWire::send(fd, kind, body);
        isAnswering = false;
        return sent;
    }

    ControlServer* server;
    int fd;
    std::atomic<bool> isAnswering{false};
    bool wasAnswering = false; ///< at the last dropAnswer()
};

/// Does the service's regular work, on a thread of its own: the end of a disk may take long, and must keep no
/// client waiting.
class ControlServer::Ticker : public SxSystemThread {
public:
    Ticker(Service* service_, int64 passMs_) : service(service_), passMs(passMs_) { setThreadName("tick"); }
    ~Ticker() override {
        stopping = true;
        wait();
    }

protected:
    void main() override {
        while (!stopping) {
            try {
                service->tick();
            } catch (const std::exception& e) {
                driverLog(e.what());
            }
            SxTime::msleep(passMs);
        }
    }

private:
    Service* service;
    const int64 passMs;
    std::atomic<bool> stopping{false};
};

ControlServer::ControlServer(Service* service_, const std::string& folder_, int64 idleMs_)
    : service(service_),
      folder(folder_),
      idleMs(idleMs_),
      lastNs(SxClock::get().steadyNs()) {
}

ControlServer::~ControlServer() {
    end();
}

void ControlServer::end() {
    {
        const SxMutexBlock block(&mutex);
        closing = true;
    }
    if (listener >= 0) {
        ::unlink((folder + ZqServiceFolder::SOCKET).c_str());
        ::close(listener);
    }
    listener = -1;
    for (const auto& connection : connections)
        connection->hangUp();
    // All drives go before the answers that clients still wait for: a request may hang on the disk of its
    // image, or its answer be taken by nobody.
    service->end();
    const auto haveEnded = [this] {
        return std::none_of(connections.begin(), connections.end(),
                            [](const auto& connection) { return connection->isRunning(); });
    };
    while (!SxWait::pass(ANSWER_MS, haveEnded)) {
        for (const auto& connection : connections)
            connection->dropAnswer();
    }
    for (const auto& connection : connections)
        connection->wait();
    connections.clear();
    // It may wait for the end of a disk, too.
    ticker.reset();
}

void ControlServer::listen() {
    const std::string path = folder + ZqServiceFolder::SOCKET;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw SxException("The path '" + SxString(path) + "' is too long for a socket", UNIT, __LINE__);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) fail("Cannot make a socket");
    // Nobody listens at a socket that a dead service has left.
    ::unlink(path.c_str());
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0)
        fail("Cannot listen at '" + SxString(path) + "'");
}

void ControlServer::accept() {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        // Where no descriptor is left it would be tried again at once.
        SxTime::msleep(SxWait::LOOK_MS);
        return;
    }
    if (!isSameUser(fd)) {
        ::close(fd);
        return;
    }
    if (connections.size() >= MAX_CONNECTIONS) connections.front()->hangUp();
    // One client for whom there is no memory must not end the drives of all.
    std::unique_ptr<Connection> connection;
    bool begun = false;
    try {
        connection = std::make_unique<Connection>(this, fd);
        connections.emplace_back();
        begun = begin();
        connection->start();
        connections.back() = std::move(connection);
    } catch (const std::exception& e) {
        if (begun) done();
        if (!connections.empty() && !connections.back()) connections.pop_back();
        if (!connection) ::close(fd);
        driverLog(e.what());
    }
}

void ControlServer::collect() {
    connections.remove_if([](const std::unique_ptr<Connection>& connection) {
        if (connection->isRunning()) return false;
        connection->wait();
        return true;
    });
}

bool ControlServer::begin() {
    const SxMutexBlock block(&mutex);
    if (closing) return false;
    ++nActive;
    return true;
}

void ControlServer::done() {
    const SxMutexBlock block(&mutex);
    --nActive;
    lastNs = SxClock::get().steadyNs();
}

bool ControlServer::isIdle() const {
    return nActive == 0 &&
           (service->isRetiring() || SxClock::get().steadyNs() - lastNs >= idleMs * 1'000'000);
}

/// Ends a service that has nothing to do, under the start lock: looks once more for clients, and removes the
/// socket. A client that finds the socket gone starts the next service under the same lock, so there are
/// never two at a time, and repeats what was not answered.
bool ControlServer::endIfIdle() {
    {
        const SxMutexBlock block(&mutex);
        if (!isIdle()) return false;
    }
    if (service->hasDisks()) return false;
    SxOs& os = SxOs::get();
    const int lock =
        os.open(folder + ZqServiceFolder::START_LOCK, SxOs::Read | SxOs::Write | SxOs::Create, 0600);
    if (lock < 0) return false;
    bool ended = false;
    if (os.lockRange(lock, 0, 1, SxOs::Lock::Exclusive) == 0) {
        const std::string path = folder + ZqServiceFolder::SOCKET, away = path + ".ending";
        const SxMutexBlock block(&mutex);
        // A mount that came meanwhile has moved the time of the last request. A client that found the socket
        // just before it went is in the queue now.
        if (isIdle() && ::rename(path.c_str(), away.c_str()) == 0) {
            pollfd pending = {listener, POLLIN, 0};
            ended = ::poll(&pending, 1, 0) == 0;
            closing = ended;
            if (ended) {
                ::unlink(away.c_str());
            } else if (::rename(away.c_str(), path.c_str()) != 0) {
                driverLog("The socket can't be put back: " + SxOs::errorText(errno));
            }
        }
    }
    os.close(lock);
    return ended;
}

void ControlServer::run(const std::atomic<bool>& stop) {
    const auto passMs = static_cast<int>(std::clamp<int64>(idleMs, 1, TICK_MS));
    ticker = std::make_unique<Ticker>(service, passMs);
    ticker->start();
    while (!stop) {
        pollfd waiting = {listener, POLLIN, 0};
        if (::poll(&waiting, 1, passMs) > 0) accept();
        collect();
        if (endIfIdle()) return;
    }
}
