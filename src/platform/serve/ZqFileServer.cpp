#include "ZqFileServer.h"

#include "SxArray.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxSystemThread.h"
#include "SxTime.h"
#include "ZqLinkRate.h"
#include "ZqServedFiles.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <httplib.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/platform/serve/ZqFileServer";
constexpr const char* HOST = "127.0.0.1";
constexpr int64 CHUNK = 64 << 10;      ///< bytes of a file that are read at once
constexpr int64 SLOW_CHUNK = 16 << 10; ///< the same on a link with a rate
constexpr int BACKLOG = 128;
constexpr int SEND_AHEAD =
    8 << 10; ///< bytes that wait in a connection of a link with a rate; the system doubles it
constexpr uint64 DROPPED_OF = 10;

} // namespace

/// What is served and how; all connections share it.
class ZqFileServer::Served {
public:
    Served(const SxString& folder, const Options& options)
        : faults(options.faults),
          files(folder, faults),
          latencyMs(options.latencyMs) {
        link.set(options.rate);
    }

    /// Answers a GET or HEAD; what is sent later comes through the response's content provider.
    void respond(const httplib::Request& request, httplib::Response* response);

    ZqServerFaults faults;
    ZqServedFiles files;
    std::atomic<uint64> latencyMs, nConnections{0};
    ZqLinkRate link;

private:
    bool send(const ZqServedFiles::File& file, int64 at, int64 n, httplib::DataSink* sink);
};

void ZqFileServer::Served::respond(const httplib::Request& request, httplib::Response* response) {
    const ZqServedFiles::Answer answer =
        files.answer({request.path, request.get_header_value("Range"), request.get_header_value("If-Range")});
    response->status = answer.status;
    for (const auto& [name, value] : answer.fields)
        response->set_header(name, value);
    if (!answer.file) return response->set_content(answer.text, answer.type);
    response->set_content_provider(static_cast<size_t>(answer.nBytes), answer.type,
                                   [this, file = answer.file](size_t at, size_t n, httplib::DataSink& sink) {
                                       return send(*file, static_cast<int64>(at), static_cast<int64>(n),
                                                   &sink);
                                   });
}

/// Sends some of the `n` bytes that are left from `at` on, in the range that the response has; false ends the
/// connection.
bool ZqFileServer::Served::send(const ZqServedFiles::File& file, int64 at, int64 n, httplib::DataSink* sink) {
    while (files.isHeldUp(file, at)) {
        if (!sink->is_writable()) return false;
        SxTime::msleep(SxWait::LOOK_MS);
    }
    const SxArray<char> bytes = files.read(file, at, std::min(n, link.get() > 0 ? SLOW_CHUNK : CHUNK));
    return bytes.getSize() > 0 && sink->write(bytes.data(), static_cast<size_t>(bytes.getSize()));
}

/// One client: reads its requests one after the other and paces what goes back.
class ZqFileServer::Connection : public SxSystemThread, public httplib::Stream {
public:
    using Process = std::function<bool(Connection& connection, bool* closed)>;

    Connection(int fd_, Served* served_, Process process_)
        : fd(fd_),
          served(served_),
          process(std::move(process_)) {
        setThreadName("http client");
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // What the system takes in advance counts as passed, though no client has it: it would take the share
        // of others, and a client that holds one transfer for another would gain nothing by it.
        if (served->link.get() > 0) ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_AHEAD, sizeof SEND_AHEAD);
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    ~Connection() override { ::close(fd); }

    void hangUp() {
        stopped = true;
        ::shutdown(fd, SHUT_RDWR);
    }
    /// Looks at a request before its answer.
    void begin(const httplib::Request& request) {
        const bool readOnly = request.method == "GET" || request.method == "HEAD";
        last = !readOnly || served->faults.has(Close); // another method's body may follow
        dropped = served->files.countRequest() % DROPPED_OF == 0 && served->faults.has(Drop10);
    }

    bool is_readable() const override { return true; }
    bool is_writable() const override {
        pollfd state = {fd, POLLRDHUP, 0};
        return !stopped && ::poll(&state, 1, 0) == 0;
    }
    ssize_t read(char* ptr, size_t size) override {
        if (used == filled && !fill()) return 0;
        const size_t n = std::min(size, filled - used);
        std::copy_n(buffer.data() + used, n, ptr);
        used += n;
        return static_cast<ssize_t>(n);
    }
    using httplib::Stream::write;
    ssize_t write(const char* ptr, size_t size) override {
        if (dropped || !awaitLatency()) return -1;
        if (!busy) busy.emplace(&served->link);
        for (size_t sent = 0; sent < size;) {
            const auto n = static_cast<size_t>(
                served->link.take(static_cast<int64>(size - sent), [this] { return stopped.load(); }));
            if (n == 0 || !sendAll(ptr + sent, n)) return -1;
            sent += n;
        }
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string& ip, int&) const override { ip = HOST; }
    void get_local_ip_and_port(std::string& ip, int&) const override { ip = HOST; }
    socket_t socket() const override { return fd; }

protected:
    void main() override {
        while (used < filled || fill()) {
            requestNs = SxClock::get().steadyNs();
            latencyOver = dropped = false;
            bool closed = false;
            const bool written = process(*this, &closed);
            busy.reset();
            if (!written || closed || last || dropped) break;
        }
        ::shutdown(fd, SHUT_RDWR);
    }

private:
    bool fill() {
        for (;;) {
            const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
            if (n < 0 && (errno == EINTR || errno == EAGAIN) && !stopped) continue;
            used = 0;
            filled = n > 0 ? static_cast<size_t>(n) : 0;
            return filled > 0;
        }
    }

    bool sendAll(const char* ptr, size_t size) {
        while (size > 0 && !stopped) {
            const ssize_t n = ::send(fd, ptr, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno == EAGAIN) {
                awaitRoom();
            } else if (n > 0) {
                ptr += n;
                size -= static_cast<size_t>(n);
            } else if (n == 0 || errno != EINTR) {
                return false;
            }
        }
        return size == 0;
    }

    /// A client may well take its time; the link isn't busy with it meanwhile.
    void awaitRoom() {
        busy.reset();
        pollfd state = {fd, POLLOUT, 0};
        ::poll(&state, 1, static_cast<int>(SxWait::LOOK_MS));
        busy.emplace(&served->link);
    }

    bool awaitLatency() {
        for (; !latencyOver && !stopped;) {
            const int64 untilNs = requestNs + static_cast<int64>(served->latencyMs) * 1'000'000;
            const int64 leftNs = untilNs - SxClock::get().steadyNs();
            latencyOver = leftNs <= 0;
            if (!latencyOver) SxClock::get().sleepNs(std::min(leftNs, SxWait::LOOK_MS * 1'000'000));
        }
        return !stopped;
    }

    const int fd;
    Served* served;
    const Process process;
    std::atomic<bool> stopped{false};
    std::array<char, 4096> buffer;
    size_t used = 0, filled = 0;
    int64 requestNs = 0;
    bool latencyOver = false, dropped = false, last = false;
    std::optional<ZqLinkRate::Busy> busy;
};

/// The listening socket. The base, of cpp-httplib, parses requests and writes responses. How connections are
/// read and paced is ours: a link can't be played on the base's streams, and it looks at an idle connection
/// only every 10 ms, which would be half of a round trip.
class ZqFileServer::Server : public httplib::Server {
public:
    explicit Server(Served* served_) : served(served_), listener(this) {
        set_socket_options([](socket_t fd) {
            const int on = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        });
        new_task_queue = [] { return std::make_unique<Inline>().release(); };
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            if (request.method == "GET" || request.method == "HEAD") {
                served->respond(request, &response);
            } else {
                response.status = 405;
                response.set_content("Only GET and HEAD are served\n", "text/plain");
            }
            return HandlerResponse::Handled;
        });
    }

    /// Gives the port.
    int begin(int wanted) {
        const int bound = wanted == 0 ? bind_to_any_port(HOST) : bind_to_port(HOST, wanted) ? wanted : -1;
        if (bound < 0) {
            throw SxException(SxString("Cannot listen at ") + HOST + ":" + wanted + ": " +
                                  SxOs::errorText(errno),
                              UNIT, __LINE__);
        }
        ::listen(svr_sock_, BACKLOG);
        listener.start();
        SxWait::pass(10'000, [this] { return is_running() || !listener.isRunning(); });
        if (!is_running()) {
            listener.wait();
            throw SxException("The server has ended at once", UNIT, __LINE__);
        }
        return bound;
    }

    void end() {
        stop();
        listener.wait();
        for (const auto& connection : connections)
            connection->hangUp();
        for (const auto& connection : connections)
            connection->wait();
        connections.clear();
    }

private:
    /// Runs the acceptance of a connection where it is asked for; connections have threads of their own.
    class Inline : public httplib::TaskQueue {
    public:
        void enqueue(std::function<void()> accept) override { accept(); }
        void shutdown() override {}
    };

    class Listener : public SxSystemThread {
    public:
        explicit Listener(Server* server_) : server(server_) { setThreadName("http"); }

    protected:
        void main() override {
            // An interrupted accept would end the base's loop.
            sigset_t all;
            ::sigfillset(&all);
            ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
            server->listen_after_bind();
        }

    private:
        Server* server;
    };

    bool process_and_close_socket(socket_t fd) override {
        std::erase_if(connections, [](const auto& connection) {
            if (connection->isRunning()) return false;
            connection->wait();
            return true;
        });
        ++served->nConnections;
        const auto process = [this](Connection& connection, bool* closed) {
            return process_request(connection, false, *closed, [&](httplib::Request& request) {
                request.ranges.clear(); // the base takes ranges beyond the end of a file for data
                connection.begin(request);
            });
        };
        connections.push_back(std::make_unique<Connection>(fd, served, process));
        connections.back()->start();
        return true;
    }

    Served* served;
    Listener listener;
    std::vector<std::unique_ptr<Connection>> connections; ///< the listener's, and the owner's after its end
};

ZqFileServer::Fault ZqFileServer::stringToFault(const SxString& name) {
    return ZqServerFaults::fromName(name);
}

SxList<SxString> ZqFileServer::getFaultNames() {
    return ZqServerFaults::getNames();
}

ZqFileServer::ZqFileServer(const SxString& folder) : ZqFileServer(folder, Options()) {
}

ZqFileServer::ZqFileServer(const SxString& folder, const Options& options)
    : served(std::make_unique<Served>(folder, options)),
      port(options.port) {
    if (port > 65535) throw SxException(SxString("There is no port ") + port, UNIT, __LINE__);
}

ZqFileServer::~ZqFileServer() {
    stop();
}

void ZqFileServer::start() {
    if (server) throw SxException("The folder is served already", UNIT, __LINE__);
    auto made = std::make_unique<Server>(served.get());
    port = static_cast<uint64>(made->begin(static_cast<int>(port)));
    server = std::move(made);
}

void ZqFileServer::stop() {
    if (server) server->end();
    server.reset();
}

SxString ZqFileServer::getUrl() const {
    return SxString("http://") + HOST + ":" + port + "/";
}

void ZqFileServer::setFault(Fault fault, bool on) {
    served->faults.set(fault, on);
}

void ZqFileServer::setRate(uint64 bytesPerSecond) {
    served->link.set(bytesPerSecond);
}

void ZqFileServer::setLatency(uint64 milliseconds) {
    served->latencyMs = milliseconds;
}

uint64 ZqFileServer::getNRequests() const {
    return served->files.getCounts("").requests;
}

uint64 ZqFileServer::getNBytes() const {
    return served->files.getCounts("").bytes;
}

uint64 ZqFileServer::getNRequests(const SxString& name) const {
    return served->files.getCounts(name.str()).requests;
}

uint64 ZqFileServer::getNBytes(const SxString& name) const {
    return served->files.getCounts(name.str()).bytes;
}

uint64 ZqFileServer::getNConnections() const {
    return served->nConnections;
}
