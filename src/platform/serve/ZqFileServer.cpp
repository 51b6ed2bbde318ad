#include "ZqFileServer.h"

#include "SxArray.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxMutex.h"
#include "SxOs.h"
#include "SxSystemThread.h"
#include "SxTime.h"
#include "ZqLinkRate.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>
#include <httplib.h>
#include <map>
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
constexpr int64 WRONG_BY = 4096;       ///< bytes by which a wrong range is off
constexpr int BACKLOG = 128;
constexpr int SEND_AHEAD =
    8 << 10; ///< bytes that wait in a connection of a link with a rate; the system doubles it
constexpr uint64 DROPPED_OF = 10;

struct FaultName {
    const char* name;
    ZqFileServer::Fault fault;
};
constexpr std::array<FaultName, 11> FAULT_NAMES = {{{"stall", ZqFileServer::Stall},
                                                    {"close", ZqFileServer::Close},
                                                    {"drop10", ZqFileServer::Drop10},
                                                    {"short", ZqFileServer::Short},
                                                    {"wrong-range", ZqFileServer::WrongRange},
                                                    {"200", ZqFileServer::Whole},
                                                    {"truncate", ZqFileServer::Truncate},
                                                    {"500", ZqFileServer::Error500},
                                                    {"changed", ZqFileServer::Changed},
                                                    {"login", ZqFileServer::Login},
                                                    {"403", ZqFileServer::Error403}}};

/// A time as HTTP has it (RFC 9110, 5.6.7), whatever the locale.
std::string httpDate(int64 milliseconds) {
    static constexpr const char* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t seconds = milliseconds / 1000;
    std::tm t = {};
    ::gmtime_r(&seconds, &t);
    return SxString::sprintf("%s, %02d %s %d %02d:%02d:%02d GMT", DAYS[t.tm_wday], t.tm_mday,
                             MONTHS[t.tm_mon], t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec)
        .str();
}

/// Bytes of a file, `n` from `first` on.
struct Range {
    int64 first = 0, n = 0;
};

bool parseNumber(std::string_view text, int64* value) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && stop == text.data() + text.size() && *value >= 0;
}

enum class RangeKind { None, Satisfiable, Unsatisfiable };

/// The one range of a Range field for a file of `size` bytes; a field that isn't understood, or has several,
/// is passed over, as RFC 9110 (14.2) allows.
RangeKind parseRange(std::string_view field, int64 size, Range* range) {
    constexpr std::string_view UNIT_NAME = "bytes=";
    if (!field.starts_with(UNIT_NAME)) return RangeKind::None;
    field.remove_prefix(UNIT_NAME.size());
    const size_t dash = field.find('-');
    if (dash == std::string_view::npos) return RangeKind::None;
    const std::string_view from = field.substr(0, dash), to = field.substr(dash + 1);
    int64 first = 0, last = size - 1, suffix = 0;
    if (from.empty()) {
        if (!parseNumber(to, &suffix)) return RangeKind::None;
        first = size - std::min(suffix, size);
    } else {
        if (!parseNumber(from, &first)) return RangeKind::None;
        if (!to.empty() && (!parseNumber(to, &last) || last < first)) return RangeKind::None;
        last = std::min(last, size - 1);
    }
    *range = {first, last - first + 1};
    return range->n > 0 ? RangeKind::Satisfiable : RangeKind::Unsatisfiable;
}

/// A file of the folder while it is sent.
struct OpenFile {
    explicit OpenFile(int fd_) : fd(fd_) {}
    ~OpenFile() { SxOs::get().close(fd); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    const int fd;
    std::string name; ///< relative to the folder
    SxStat info;
    Range range; ///< what is sent of it
};

void text(httplib::Response* response, int status, const std::string& line) {
    response->status = status;
    response->set_content(line + "\n", "text/plain");
}

} // namespace

/// What is served and how; all connections share it.
class ZqFileServer::Served {
public:
    Served(const SxString& folder, const Options& options)
        : faults(options.faults),
          latencyMs(options.latencyMs) {
        SxStat info;
        int result = SxOs::get().canonical(SxOs::hostPath(folder), &root);
        if (result == 0) result = SxOs::get().stat(root, &info);
        if (result == 0 && info.kind != SxStat::Dir) result = -ENOTDIR;
        if (result < 0) {
            throw SxException("Cannot serve folder '" + folder + "': " + SxOs::errorText(result), UNIT,
                              __LINE__);
        }
        if (!root.ends_with('/')) root += '/';
        link.set(options.rate);
    }

    bool has(Fault fault) const { return (faults & fault) != 0; }

    /// Answers a GET or HEAD; what is sent later comes through the response's content provider.
    void respond(const httplib::Request& request, httplib::Response* response);

    std::atomic<unsigned> faults;
    std::atomic<uint64> latencyMs, nConnections{0};
    ZqLinkRate link;

    struct Counts {
        uint64 requests = 0, bytes = 0;
    };
    /// Counts of one file, or with an empty name of all requests.
    Counts getCounts(const std::string& name) const {
        const SxMutexBlock block(&mutex);
        const auto found = counts.find(name);
        return found == counts.end() ? Counts() : found->second;
    }
    /// Gives how many requests there have been.
    uint64 countRequest(const std::string& name) {
        const SxMutexBlock block(&mutex);
        return ++counts[name].requests;
    }

private:
    std::shared_ptr<OpenFile> open(const std::string& path) const;
    bool isChanged(const OpenFile& file) const {
        return has(Changed) && getCounts(file.name).bytes >= static_cast<uint64>(file.info.size) / 2;
    }
    int chooseRange(const httplib::Request& request, const std::string& tag, const std::string& date,
                    OpenFile* file, httplib::Response* response) const;
    bool send(const OpenFile& file, int64 at, int64 n, httplib::DataSink* sink);

    std::string root; ///< canonical, with a trailing slash
    mutable SxMutex mutex;
    std::map<std::string, Counts> counts SX_GUARDED_BY(mutex);
};

std::shared_ptr<OpenFile> ZqFileServer::Served::open(const std::string& path) const {
    SxOs& os = SxOs::get();
    std::string real;
    if (path.find('\0') != std::string::npos || os.canonical(root + path, &real) < 0) return nullptr;
    if (!real.starts_with(root)) return nullptr;
    const int fd = os.open(real, SxOs::Read | SxOs::NoFollow, 0);
    if (fd < 0) return nullptr;
    auto file = std::make_shared<OpenFile>(fd);
    file->name = real.substr(root.size());
    const bool plain = os.statFd(fd, &file->info) == 0 && file->info.kind == SxStat::File;
    return plain ? file : nullptr;
}

void ZqFileServer::Served::respond(const httplib::Request& request, httplib::Response* response) {
    if (has(Error500)) return text(response, 500, "This server has a fault");
    if (has(Error403)) return text(response, 403, "Not without a word");
    if (has(Login)) return response->set_content("<html><body>Log in</body></html>\n", "text/html");
    const auto file = open(request.path);
    if (!file) return text(response, 404, "There is no such file");
    countRequest(file->name);

    const bool changed = isChanged(*file);
    const SxStat& info = file->info;
    const std::string tag = "\"" + std::to_string(info.inode) + "-" + std::to_string(info.size) + "-" +
                            std::to_string(info.modifiedMs) + (changed ? "-2" : "") + "\"";
    const std::string date = httpDate(info.modifiedMs + (changed ? 1000 : 0));
    response->set_header("ETag", tag);
    response->set_header("Last-Modified", date);
    response->set_header("Accept-Ranges", "bytes");
    response->status = chooseRange(request, tag, date, file.get(), response);
    if (response->status == 416) return text(response, 416, "The file ends before that range");

    const char* type = file->name.ends_with(".json") ? "application/json" : "application/octet-stream";
    if (file->range.n == 0) return response->set_content("", type);
    response->set_content_provider(
        static_cast<size_t>(file->range.n), type, [this, file](size_t at, size_t n, httplib::DataSink& sink) {
            return send(*file, static_cast<int64>(at), static_cast<int64>(n), &sink);
        });
}

/// Sets the file's range by the request and the faults, and gives the status.
int ZqFileServer::Served::chooseRange(const httplib::Request& request, const std::string& tag,
                                      const std::string& date, OpenFile* file,
                                      httplib::Response* response) const {
    const int64 size = has(Truncate) ? file->info.size / 2 : file->info.size;
    Range& range = file->range;
    const std::string condition = request.get_header_value("If-Range");
    const bool wanted = condition.empty() || condition == tag || condition == date;
    const RangeKind kind =
        wanted && !has(Whole) ? parseRange(request.get_header_value("Range"), size, &range) : RangeKind::None;
    if (kind == RangeKind::None) {
        range = {0, size};
        return 200;
    }
    const std::string total = "/" + std::to_string(size);
    if (kind == RangeKind::Unsatisfiable) {
        response->set_header("Content-Range", "bytes *" + total);
        return 416;
    }
    if (has(Short)) range.n = std::max<int64>(range.n / 2, 1);
    if (has(WrongRange)) {
        if (range.first > 0) {
            range.first -= std::min(range.first, WRONG_BY);
        } else {
            range.first = std::min(WRONG_BY, size - 1);
            range.n = std::min(range.n, size - range.first);
        }
    }
    response->set_header("Content-Range", "bytes " + std::to_string(range.first) + "-" +
                                              std::to_string(range.first + range.n - 1) + total);
    return 206;
}

/// Sends some of the `n` bytes that are left from `at` on, in the range that the response has; false ends the
/// connection.
bool ZqFileServer::Served::send(const OpenFile& file, int64 at, int64 n, httplib::DataSink* sink) {
    const int64 middle = file.range.n / 2;
    while (has(Stall) && at >= middle) {
        if (!sink->is_writable()) return false;
        SxTime::msleep(SxWait::LOOK_MS);
    }
    n = std::min(n, link.get() > 0 ? SLOW_CHUNK : CHUNK);
    if (has(Stall)) n = std::min(n, middle - at);
    SxArray<char> bytes(n);
    if (SxOs::get().readAt(file.fd, bytes.data(), n, file.range.first + at) != n) return false;
    if (isChanged(file)) {
        for (char& byte : bytes)
            byte = static_cast<char>(~byte);
    }
    {
        // Before the sending, so that whoever has got the bytes finds them counted.
        const SxMutexBlock block(&mutex);
        counts[file.name].bytes += static_cast<uint64>(n);
        counts[""].bytes += static_cast<uint64>(n);
    }
    return sink->write(bytes.data(), static_cast<size_t>(n));
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
        last = !readOnly || served->has(Close); // another method's body may follow
        dropped = served->countRequest("") % DROPPED_OF == 0 && served->has(Drop10);
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
                text(&response, 405, "Only GET and HEAD are served");
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
    for (const FaultName& entry : FAULT_NAMES)
        if (name == entry.name) return entry.fault;
    throw SxException("There is no fault '" + name + "'; there are: " + SxString::join(getFaultNames(), ", "),
                      UNIT, __LINE__);
}

SxList<SxString> ZqFileServer::getFaultNames() {
    SxList<SxString> names;
    for (const FaultName& entry : FAULT_NAMES)
        names << SxString(entry.name);
    return names;
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
    if (on) {
        served->faults |= fault;
    } else {
        served->faults &= ~static_cast<unsigned>(fault);
    }
}

void ZqFileServer::setRate(uint64 bytesPerSecond) {
    served->link.set(bytesPerSecond);
}

void ZqFileServer::setLatency(uint64 milliseconds) {
    served->latencyMs = milliseconds;
}

uint64 ZqFileServer::getNRequests() const {
    return served->getCounts("").requests;
}

uint64 ZqFileServer::getNBytes() const {
    return served->getCounts("").bytes;
}

uint64 ZqFileServer::getNRequests(const SxString& name) const {
    return served->getCounts(name.str()).requests;
}

uint64 ZqFileServer::getNBytes(const SxString& name) const {
    return served->getCounts(name.str()).bytes;
}

uint64 ZqFileServer::getNConnections() const {
    return served->nConnections;
}
