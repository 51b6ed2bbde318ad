#include "ZqNetLoop.h"

#include "SxClock.h"
#include "ZqNetFailure.h"
#include "ZqNetPace.h"

#include <algorithm>
#include <array>
#include <curl/curl.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqNetLoop";
constexpr int64 MS = 1'000'000;
/// A request that the server doesn't answer for so long holds others no more.
constexpr int64 PRIORITY_NS = 1'000 * MS;
/// What the rate limit lets an ordered stream make good after a pause.
constexpr int64 CREDIT_NS = 100 * MS;
/// The streams stay held for so many round trips behind an answer, within these bounds: one who waits for
/// blocks mostly asks for the next ones then, and these would find the link full.
constexpr int64 QUIET_TRIPS = 10;
constexpr int64 MIN_QUIET_NS = 10 * MS, MAX_QUIET_NS = 250 * MS;
/// Where that has taken so much time of late, of which the time between gives back a half, it is a round trip
/// within a lower bound: an application that never ends asking must not keep the download back.
constexpr int64 QUIET_BUDGET_NS = 10'000 * MS, MAX_SHORT_QUIET_NS = 60 * MS;
constexpr int64 HASTENED_NS = 100 * MS;
constexpr int LOOK_MS = 100;
constexpr long MIN_BUFFER = 16'384, MAX_BUFFER = 131'072;
/// Bytes of an ordered stream's receive buffer.
constexpr double MIN_BUFFERED = 48 << 10, FIRST_BUFFERED = 64 << 10, MAX_BUFFERED = 64 << 20;

int64 nowNs() {
    return SxClock::get().steadyNs();
}

bool yields(ZqTransfer::Kind kind) {
    return kind == ZqTransfer::Kind::Ordered || kind == ZqTransfer::Kind::Ahead;
}

struct CloseEasy {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CloseMulti {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

/// A number that threads other than the network's may ask for.
template<class T>
void addTo(std::atomic<T>* number, T n) {
    number->store(number->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

} // namespace

class ZqNetLoop::Engine {
public:
    explicit Engine(const ZqNetSettings& settings_) : settings(settings_), multi(curl_multi_init()) {
        if (!multi) throw SxException("Cannot start libcurl", UNIT, __LINE__);
        curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, 16L);
    }

    // From any thread.
    void post(const SxPtr<ZqTransfer>& transfer, bool isNew) {
        {
            SxMutexBlock lock(&mutex);
            (isNew ? added : dropped).push_back(transfer);
        }
        wake();
    }
    void wake() noexcept { curl_multi_wakeup(multi.get()); }
    void end() noexcept {
        ending.store(true);
        wake();
    }

    void run();

    ZqNetPace pace;
    std::atomic<double> rateLimit{0.};
    std::atomic<int64> hastenedUntilNs{0}; ///< somebody waits for the ordered streams until then
    std::atomic<uint64> nBytes{0}, nOnDemandBytes{0}, nRequests{0};

private:
    struct Active {
        Engine* engine = nullptr;
        SxPtr<ZqTransfer> transfer;
        std::unique_ptr<CURL, CloseEasy> easy;
        std::unique_ptr<curl_slist, FreeList> headers;
        std::array<char, CURL_ERROR_SIZE> errorText{};
        ZqTransfer::Response response;
        bool checked = false;
        bool held = false;
        bool failed = false;
        SxException failure;
        int64 lastByteNs = 0; ///< for the stall limit: runs on while it is held
        int64 lastTakenNs = 0;
        curl_socket_t fd = CURL_SOCKET_BAD; ///< of one that yields and has begun
        ZqNetPace::Span span;

        ZqTransfer::Kind kind() const { return transfer->getKind(); }
        /// Whether others go ahead of it, or did when it was made.
        bool yields() const { return ::yields(transfer->getRequest().kind); }
    };

    void takePosted();
    void begin(const SxPtr<ZqTransfer>& transfer);
    void setOptions(Active* active);
    long streamBuffer() const;
    void remove(CURL* easy);
    void readMessages();
    void conclude(Active* active, CURLcode code);
    void beginQuiet();
    void failStalled();
    void releaseHeld();
    bool mustHold(const Active& active) const;
    bool isOnTheWire(ZqTransfer::Kind kind) const;
    int timeToWait() const;

    static curl_socket_t onOpenSocket(void* user, curlsocktype purpose, curl_sockaddr* address);
    static int onCloseSocket(void* user, curl_socket_t fd);
    static size_t onHeader(char* bytes, size_t size, size_t n, void* user);
    static size_t onBody(char* bytes, size_t size, size_t n, void* user);
    void check(Active* active);
    size_t take(Active* active, const char* bytes, size_t n);
    curl_socket_t socketOf(CURL* easy) const;
    void boundBuffer(const Active& active) const;
    void noteRoundTrip(CURL* easy);

    const ZqNetSettings settings;
    std::vector<curl_socket_t> sockets; ///< of all connections; used until libcurl has closed them
    std::unique_ptr<CURLM, CloseMulti> multi;
    std::atomic<bool> ending{false};
    std::unordered_map<CURL*, std::unique_ptr<Active>> actives;
    bool speaksHttp1 = false; ///< the last answer to a request that may be beside others
    int64 quietUntilNs = 0;   ///< the ordered streams are held until then for the next on-demand request
    int64 quietSinceNs = 0;   ///< when that began
    int64 quietBudgetNs = QUIET_BUDGET_NS;
    int64 limitedUntilNs = 0; ///< when the ordered streams may take bytes again

    SxMutex mutex;
    std::vector<SxPtr<ZqTransfer>> added SX_GUARDED_BY(mutex), dropped SX_GUARDED_BY(mutex);
};

void ZqNetLoop::Engine::run() {
    while (!ending.load()) {
        takePosted();
        int nRunning = 0;
        curl_multi_perform(multi.get(), &nRunning);
        readMessages();
        failStalled();
        releaseHeld();
        curl_multi_poll(multi.get(), nullptr, 0, timeToWait(), nullptr);
    }
    takePosted();
    for (auto& [easy, active] : actives) {
        curl_multi_remove_handle(multi.get(), easy);
        active->transfer->fail(SxException(SxException::STOPPED, "The network was stopped", UNIT, __LINE__));
    }
    actives.clear();
}

void ZqNetLoop::Engine::takePosted() {
    std::vector<SxPtr<ZqTransfer>> toAdd, toDrop;
    {
        SxMutexBlock lock(&mutex);
        toAdd.swap(added);
        toDrop.swap(dropped);
    }
    for (const SxPtr<ZqTransfer>& transfer : toAdd)
        begin(transfer);
    for (const SxPtr<ZqTransfer>& transfer : toDrop) {
        for (const auto& [easy, active] : actives) {
            if (!(active->transfer == transfer)) continue;
            remove(easy);
            break;
        }
    }
}

void ZqNetLoop::Engine::begin(const SxPtr<ZqTransfer>& transfer) {
    auto active = std::make_unique<Active>();
    active->engine = this;
    active->transfer = transfer;
    active->easy.reset(curl_easy_init());
    active->lastByteNs = nowNs();
    CURL* easy = active->easy.get();
    if (!easy) {
        transfer->fail(SxException("Out of memory", UNIT, __LINE__));
        return;
    }
    transfer->setWake([this] { wake(); });
    setOptions(active.get());
    const CURLMcode code = curl_multi_add_handle(multi.get(), easy);
    if (code != CURLM_OK) {
        transfer->fail(SxException(curl_multi_strerror(code), UNIT, __LINE__));
        return;
    }
    addTo<uint64>(&nRequests, 1);
    actives.emplace(easy, std::move(active));
}

void ZqNetLoop::Engine::setOptions(Active* active) {
    CURL* easy = active->easy.get();
    const ZqTransfer::Request& request = active->transfer->getRequest();
    const bool isHeldAtTimes = yields(request.kind);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.ascii());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "tavrin/" TAVRIN_VERSION);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // A name that is being resolved mustn't hold up a stop.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectMs));
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, active->errorText.data());
    // What yields has a connection of its own: held back there, bytes stay with the server, where an HTTP/2
    // stream would go on into memory, within a window of 32 MiB.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                     static_cast<long>(isHeldAtTimes ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_2TLS));
    // To wait for a connection that may take several requests pays over HTTP/2 only, and else lasts until the
    // first request has ended.
    const bool mayShare = !isHeldAtTimes && !speaksHttp1 && request.url.str().starts_with("https:");
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, mayShare ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, isHeldAtTimes ? streamBuffer() : MAX_BUFFER);
    if (request.fresh) curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    if (!request.range.isEmpty()) curl_easy_setopt(easy, CURLOPT_RANGE, request.range.ascii());
    for (const SxString& header : request.headers) {
        curl_slist* longer = curl_slist_append(active->headers.get(), header.ascii());
        if (!longer) break;
        (void)active->headers.release();
        active->headers.reset(longer);
    }
    if (active->headers) curl_easy_setopt(easy, CURLOPT_HTTPHEADER, active->headers.get());
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &Engine::onOpenSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &Engine::onCloseSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, active);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, active);
}

/// What libcurl reads at once of an ordered stream, and has in its hand while the stream is held.
long ZqNetLoop::Engine::streamBuffer() const {
    const double limit = rateLimit.load();
    const bool isSlow = limit > 0. && limit < MAX_BUFFER * 50.;
    const double quarter = std::min(pace.getTripBytes() / 4., 1e9);
    return isSlow ? MIN_BUFFER : std::clamp(static_cast<long>(quarter), MIN_BUFFER, MAX_BUFFER);
}

void ZqNetLoop::Engine::remove(CURL* easy) {
    curl_multi_remove_handle(multi.get(), easy);
    actives.erase(easy);
}

void ZqNetLoop::Engine::readMessages() {
    int nLeft = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi.get(), &nLeft)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        const auto found = actives.find(easy);
        if (found == actives.end()) continue;
        conclude(found->second.get(), message->data.result);
        remove(easy);
    }
}

void ZqNetLoop::Engine::conclude(Active* active, CURLcode code) {
    if (code == CURLE_OK && !active->checked) check(active);
    if (code == CURLE_OK && !active->failed) {
        active->transfer->finish();
        if (active->kind() == ZqTransfer::Kind::OnDemand) beginQuiet();
    } else {
        active->transfer->fail(
            active->failed
                ? active->failure
                : ZqNetFailure::of(active->easy.get(), code, active->errorText.data(), settings.connectMs));
    }
}

void ZqNetLoop::Engine::beginQuiet() {
    const int64 now = nowNs(), passed = now - quietSinceNs;
    const int64 held = std::min(passed, quietUntilNs - quietSinceNs);
    quietBudgetNs = std::clamp(quietBudgetNs - held + (passed - held) / 2, int64{0}, QUIET_BUDGET_NS);
    const int64 trip = pace.getRoundTripUs() * 1000;
    const bool isShort = quietBudgetNs == 0;
    quietSinceNs = now;
    quietUntilNs = now + (isShort ? std::clamp(trip, MIN_QUIET_NS, MAX_SHORT_QUIET_NS)
                                  : std::clamp(QUIET_TRIPS * trip, MIN_QUIET_NS, MAX_QUIET_NS));
}

void ZqNetLoop::Engine::failStalled() {
    const int64 now = nowNs();
    std::vector<CURL*> stalled;
    for (auto& [easy, active] : actives) {
        if (active->held) {
            active->lastByteNs = now;
        } else if (now - active->lastByteNs > settings.stallMs * MS) {
            stalled.push_back(easy);
        }
    }
    for (CURL* easy : stalled) {
        const double seconds = static_cast<double>(settings.stallMs) / 1e3;
        actives[easy]->transfer->fail(SxException(
            ZqNetLink::UNREACHABLE, SxString::sprintf("no data for %g s", seconds), UNIT, __LINE__));
        remove(easy);
    }
}

bool ZqNetLoop::Engine::isOnTheWire(ZqTransfer::Kind kind) const {
    const int64 now = nowNs();
    for (const auto& [easy, active] : actives) {
        if (active->kind() == kind && now - active->lastByteNs < PRIORITY_NS) return true;
    }
    return false;
}

bool ZqNetLoop::Engine::mustHold(const Active& active) const {
    if (!active.transfer->hasRoom()) return true;
    if (!yields(active.kind())) return false;
    const int64 now = nowNs();
    if (rateLimit.load() > 0. && limitedUntilNs > now) return true;
    if (isOnTheWire(ZqTransfer::Kind::OnDemand)) return true;
    const bool hastened = hastenedUntilNs.load() > now;
    if (active.kind() == ZqTransfer::Kind::Ahead) return hastened;
    if (hastened) return false;
    return quietUntilNs > now || isOnTheWire(ZqTransfer::Kind::Ahead);
}

void ZqNetLoop::Engine::releaseHeld() {
    std::vector<Active*> released;
    for (const auto& [easy, active] : actives) {
        if (active->held && !mustHold(*active)) released.push_back(active.get());
    }
    // Under the rate limit the first may use up what there is: they take turns.
    std::sort(released.begin(), released.end(),
              [](const Active* a, const Active* b) { return a->lastTakenNs < b->lastTakenNs; });
    for (Active* active : released) {
        if (mustHold(*active)) continue;
        active->held = false;
        active->lastByteNs = nowNs();
        curl_easy_pause(active->easy.get(), CURLPAUSE_CONT);
    }
}

int ZqNetLoop::Engine::timeToWait() const {
    if (actives.empty()) return 60'000;
    int64 wait = LOOK_MS;
    const int64 now = nowNs();
    for (const auto& [easy, active] : actives) {
        const int64 until = std::max(quietUntilNs, limitedUntilNs);
        if (active->held && until > now) wait = std::min(wait, (until - now) / MS + 1);
    }
    return static_cast<int>(wait);
}

curl_socket_t ZqNetLoop::Engine::onOpenSocket(void* user, curlsocktype /*purpose*/, curl_sockaddr* address) {
    const curl_socket_t fd = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (fd >= 0) static_cast<Engine*>(user)->sockets.push_back(fd);
    return fd;
}

int ZqNetLoop::Engine::onCloseSocket(void* user, curl_socket_t fd) {
    std::erase(static_cast<Engine*>(user)->sockets, fd);
    return ::close(fd);
}

size_t ZqNetLoop::Engine::onHeader(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    active->lastByteNs = nowNs();
    active->response.takeHeader(std::string_view(bytes, size * n));
    return size * n;
}

size_t ZqNetLoop::Engine::onBody(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    return active->engine->take(active, bytes, size * n);
}

void ZqNetLoop::Engine::check(Active* active) {
    CURL* easy = active->easy.get();
    long status = 0, version = 0;
    char* url = nullptr;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    if (!active->yields()) {
        curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
        speaksHttp1 = version < CURL_HTTP_VERSION_2_0;
    }
    active->response.status = static_cast<int>(status);
    active->response.url = SxString(url);
    active->checked = true;
    noteRoundTrip(easy);
    if (active->yields()) {
        active->fd = socketOf(easy);
        boundBuffer(*active);
    }
    try {
        active->transfer->getRequest().check(active->response);
    } catch (const SxException& e) {
        active->failure = e;
        active->failed = true;
    }
}

size_t ZqNetLoop::Engine::take(Active* active, const char* bytes, size_t n) {
    if (!active->checked) check(active);
    if (active->failed) return 0;
    if (mustHold(*active)) {
        active->held = true;
        active->span = {};
        return CURL_WRITEFUNC_PAUSE;
    }
    const int64 now = nowNs();
    const auto nTaken = static_cast<int64>(n);
    active->lastByteNs = active->lastTakenNs = now;
    addTo<uint64>(&nBytes, n);
    if (active->kind() == ZqTransfer::Kind::OnDemand) addTo<uint64>(&nOnDemandBytes, n);
    if (active->kind() == ZqTransfer::Kind::Ordered) {
        pace.measure(&active->span, now, nTaken);
    } else {
        pace.measureRange(&active->span, now, nTaken);
    }
    if (yields(active->kind())) {
        boundBuffer(*active);
        const double limit = rateLimit.load();
        if (limit > 0.) {
            const double costNs = static_cast<double>(nTaken) / limit * 1e9;
            limitedUntilNs = std::max(limitedUntilNs, now - CREDIT_NS) + static_cast<int64>(costNs);
        }
    }
    active->transfer->append(bytes, n);
    return n;
}

/// The socket of a request that is under way. libcurl tells it only of requests that have ended; but it tells
/// the port, also on a connection that was kept.
curl_socket_t ZqNetLoop::Engine::socketOf(CURL* easy) const {
    long port = 0;
    if (curl_easy_getinfo(easy, CURLINFO_LOCAL_PORT, &port) != CURLE_OK || port == 0) return CURL_SOCKET_BAD;
    for (const curl_socket_t fd : sockets) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) continue;
        const in_port_t own = address.ss_family == AF_INET6
                                  ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                  : reinterpret_cast<const sockaddr_in&>(address).sin_port;
        if (ntohs(own) == port) return fd;
    }
    return CURL_SOCKET_BAD;
}

/// Bounds what the server sends on while the stream is held, and with it what a range has to wait for: the
/// system's own bound may be megabytes. A window alone wouldn't do, since it opens again with each segment
/// as long as there is buffer. The system doubles the bytes for its own needs; what it doesn't need of that
/// lets the rate grow.
void ZqNetLoop::Engine::boundBuffer(const Active& active) const {
    const double trip = pace.getTripBytes();
    if (active.fd == CURL_SOCKET_BAD) return;
    const int wanted =
        static_cast<int>(std::clamp(trip > 0. ? trip : FIRST_BUFFERED, MIN_BUFFERED, MAX_BUFFERED));
    int granted = 0;
    socklen_t size = sizeof granted;
    ::setsockopt(active.fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    ::getsockopt(active.fd, SOL_SOCKET, SO_RCVBUF, &granted, &size);
    if (granted / 2 >= wanted) return;
    // More than a program may ask for: the system's own way gives more.
    const int unlocked = 0;
    ::setsockopt(active.fd, SOL_SOCKET, SO_BUF_LOCK, &unlocked, sizeof unlocked);
}

void ZqNetLoop::Engine::noteRoundTrip(CURL* easy) {
    curl_off_t sent = 0, answered = 0;
    long nRedirects = 0;
    curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &sent);
    curl_easy_getinfo(easy, CURLINFO_STARTTRANSFER_TIME_T, &answered);
    curl_easy_getinfo(easy, CURLINFO_REDIRECT_COUNT, &nRedirects);
    if (nRedirects == 0 && answered > sent) pace.noteRoundTrip(answered - sent, nowNs());
}

ZqNetLoop::ZqNetLoop(const ZqNetSettings& settings) {
    startLibrary();
    engine = std::make_unique<Engine>(settings);
    setThreadName("zqnetio");
}

ZqNetLoop::~ZqNetLoop() = default;

void ZqNetLoop::add(const SxPtr<ZqTransfer>& transfer) {
    engine->post(transfer, true);
}

void ZqNetLoop::drop(const SxPtr<ZqTransfer>& transfer) {
    engine->post(transfer, false);
}

void ZqNetLoop::hastenStreams() {
    engine->hastenedUntilNs.store(nowNs() + HASTENED_NS);
    engine->wake();
}

void ZqNetLoop::setRateLimit(double bytesPerSecond) {
    engine->rateLimit.store(bytesPerSecond);
    engine->wake();
}

ZqNetLink::Figures ZqNetLoop::getFigures() const {
    ZqNetLink::Figures figures;
    figures.nBytes = engine->nBytes.load();
    figures.nOnDemandBytes = engine->nOnDemandBytes.load();
    figures.nRequests = engine->nRequests.load();
    figures.roundTripUs = engine->pace.getRoundTripUs();
    figures.rate = engine->pace.getRate();
    figures.tripBytes = engine->pace.getTripBytes();
    return figures;
}

void ZqNetLoop::end() {
    engine->end();
    wait();
}

void ZqNetLoop::startLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

void ZqNetLoop::main() {
    engine->run();
}
