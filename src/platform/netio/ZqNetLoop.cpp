#include "ZqNetLoop.h"

#include "SxClock.h"
#include "SxOs.h"

#include <array>
#include <charconv>
#include <curl/curl.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <numeric>
#include <sys/socket.h>
#include <unordered_map>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqNetLoop";
constexpr int64 MS = 1'000'000;
/// An on-demand request that the server doesn't answer for so long holds the ordered streams no more.
constexpr int64 PRIORITY_NS = 1'000 * MS;
/// Time over which one rate is measured.
constexpr int64 RATE_NS = 50 * MS;
/// Time behind a begin or a hold in which none is measured: what comes first has waited in buffers.
constexpr int64 SETTLE_NS = 25 * MS;
/// What the rate limit lets an ordered stream make good after a pause.
constexpr int64 CREDIT_NS = 100 * MS;
constexpr int LOOK_MS = 100;
/// Round trips at the best rate of late that an ordered stream's window covers; more than one, so that the
/// rate can grow.
constexpr double WINDOW_TRIPS = 1.25;
constexpr int64 BEST_RATE_NS = 15'000 * MS;
constexpr long MIN_BUFFER = 16'384, MAX_BUFFER = 131'072;
constexpr double MIN_WINDOW = 48 << 10, MAX_WINDOW = 64 << 20;

int64 nowNs() {
    return SxClock::get().steadyNs();
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && static_cast<unsigned char>(text.back()) <= ' ')
        text.remove_suffix(1);
    return text;
}

/// The number that `text` begins with, which is cut off; -1 where it begins with none.
int64 takeNumber(std::string_view* text) {
    int64 value = -1;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || value < 0) return -1;
    text->remove_prefix(static_cast<size_t>(end - text->data()));
    return value;
}

/// "bytes 0-99/1000", "bytes */1000"; whatever else leaves the numbers unknown.
void parseContentRange(std::string_view text, ZqTransfer::Response* response) {
    if (!text.starts_with("bytes")) return;
    text = trim(text.substr(5));
    int64 first = -1, last = -1;
    if (text.starts_with('*')) {
        text.remove_prefix(1);
    } else {
        first = takeNumber(&text);
        if (first < 0 || !text.starts_with('-')) return;
        text.remove_prefix(1);
        last = takeNumber(&text);
        if (last < first) return;
    }
    if (!text.starts_with('/')) return;
    text.remove_prefix(1);
    response->total = takeNumber(&text);
    response->first = first;
    response->last = last;
}

void parseHeader(std::string_view line, ZqTransfer::Response* response) {
    if (line.starts_with("HTTP/")) {
        *response = ZqTransfer::Response();
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const SxString name = SxString(line.substr(0, colon)).changeCase(false);
    std::string_view value = trim(line.substr(colon + 1));
    if (name == "etag") {
        response->eTag = SxString(value);
    } else if (name == "last-modified") {
        response->lastModified = SxString(value);
    } else if (name == "content-encoding") {
        response->encoding = SxString(value);
    } else if (name == "content-length") {
        response->length = takeNumber(&value);
    } else if (name == "content-range") {
        parseContentRange(value, response);
    }
}

const char* tagOf(CURLcode code) {
    switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
        return ZqNetLink::UNREACHABLE;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return ZqNetLink::BROKEN;
    default:
        return "";
    }
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

    std::atomic<double> rateLimit{0.}, rate{0.};
    std::atomic<int64> roundTripUs{0};
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
        int64 lastByteNs = 0;
        int64 measureNs = 0; ///< from when on bytes count for the rate; 0 while they don't
        int64 nMeasured = 0;

        ZqTransfer::Kind kind() const { return transfer->getRequest().kind; }
    };

    void takePosted();
    void begin(const SxPtr<ZqTransfer>& transfer);
    void setOptions(Active* active);
    long streamBuffer() const;
    void remove(CURL* easy);
    void readMessages();
    void conclude(Active* active, CURLcode code);
    SxException failureOf(const Active& active, CURLcode code) const;
    void failStalled();
    void releaseHeld();
    bool mustHold(const Active& active) const;
    bool hasPriorityRequest() const;
    int timeToWait() const;

    static size_t onHeader(char* bytes, size_t size, size_t n, void* user);
    static size_t onBody(char* bytes, size_t size, size_t n, void* user);
    void check(Active* active);
    size_t take(Active* active, const char* bytes, size_t n);
    void measure(Active* active, int64 now, int64 n);
    double bestTripBytes() const;
    void boundWindow(CURL* easy) const;
    void noteRoundTrip(CURL* easy);

    const ZqNetSettings settings;
    std::unique_ptr<CURLM, CloseMulti> multi;
    std::atomic<bool> ending{false};
    std::unordered_map<CURL*, std::unique_ptr<Active>> actives;
    int64 limitedUntilNs = 0; ///< when the ordered streams may take bytes again
    std::array<int64, 8> roundTrips{};
    size_t nRoundTrips = 0;
    double bestNow = 0., bestBefore = 0.; ///< best rate of this span and of the one before
    int64 bestSinceNs = 0;

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
    const bool isOrdered = request.kind == ZqTransfer::Kind::Ordered;
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
    // An ordered stream has a connection of its own: held back there, bytes stay with the server, where an
    // HTTP/2 stream would go on into memory, within a window of 32 MiB.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                     static_cast<long>(isOrdered ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, isOrdered ? 0L : 1L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, isOrdered ? streamBuffer() : MAX_BUFFER);
    if (!request.range.isEmpty()) curl_easy_setopt(easy, CURLOPT_RANGE, request.range.ascii());
    for (const SxString& header : request.headers) {
        curl_slist* longer = curl_slist_append(active->headers.get(), header.ascii());
        if (!longer) break;
        (void)active->headers.release();
        active->headers.reset(longer);
    }
    if (active->headers) curl_easy_setopt(easy, CURLOPT_HTTPHEADER, active->headers.get());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, active);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, active);
}

/// What libcurl reads at once of an ordered stream, and has in its hand while the stream is held.
long ZqNetLoop::Engine::streamBuffer() const {
    const double limit = rateLimit.load();
    const bool isSlow = limit > 0. && limit < MAX_BUFFER * 50.;
    const double quarter = std::min(bestTripBytes() / 4., 1e9);
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
    } else {
        active->transfer->fail(active->failed ? active->failure : failureOf(*active, code));
    }
}

SxException ZqNetLoop::Engine::failureOf(const Active& active, CURLcode code) const {
    long error = 0;
    curl_easy_getinfo(active.easy.get(), CURLINFO_OS_ERRNO, &error);
    SxString text(curl_easy_strerror(code));
    if (code == CURLE_COULDNT_CONNECT && error != 0) {
        text = SxOs::errorText(error);
    } else if (code == CURLE_OPERATION_TIMEDOUT) {
        text = "no connection within " +
               SxString::sprintf("%g", static_cast<double>(settings.connectMs) / 1e3) + " s";
    } else if (active.errorText[0] != 0) {
        text = SxString(active.errorText.data());
    }
    return SxException(tagOf(code), text.makeVisible(), UNIT, __LINE__);
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

bool ZqNetLoop::Engine::hasPriorityRequest() const {
    const int64 now = nowNs();
    for (const auto& [easy, active] : actives) {
        if (active->kind() == ZqTransfer::Kind::OnDemand && now - active->lastByteNs < PRIORITY_NS)
            return true;
    }
    return false;
}

bool ZqNetLoop::Engine::mustHold(const Active& active) const {
    if (!active.transfer->hasRoom()) return true;
    if (active.kind() != ZqTransfer::Kind::Ordered) return false;
    return hasPriorityRequest() || (rateLimit.load() > 0. && limitedUntilNs > nowNs());
}

void ZqNetLoop::Engine::releaseHeld() {
    std::vector<Active*> released;
    for (const auto& [easy, active] : actives) {
        if (active->held && !mustHold(*active)) released.push_back(active.get());
    }
    for (Active* active : released) {
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
        if (active->held && limitedUntilNs > now) wait = std::min(wait, (limitedUntilNs - now) / MS + 1);
    }
    return static_cast<int>(wait);
}

size_t ZqNetLoop::Engine::onHeader(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    active->lastByteNs = nowNs();
    parseHeader(std::string_view(bytes, size * n), &active->response);
    return size * n;
}

size_t ZqNetLoop::Engine::onBody(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    return active->engine->take(active, bytes, size * n);
}

void ZqNetLoop::Engine::check(Active* active) {
    CURL* easy = active->easy.get();
    long status = 0;
    char* url = nullptr;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    active->response.status = static_cast<int>(status);
    active->response.url = SxString(url);
    active->checked = true;
    noteRoundTrip(easy);
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
        active->measureNs = 0;
        return CURL_WRITEFUNC_PAUSE;
    }
    const int64 now = nowNs();
    const auto nTaken = static_cast<int64>(n);
    active->lastByteNs = now;
    addTo<uint64>(&nBytes, n);
    if (active->kind() == ZqTransfer::Kind::OnDemand) addTo<uint64>(&nOnDemandBytes, n);
    if (active->kind() == ZqTransfer::Kind::Ordered) {
        measure(active, now, nTaken);
        boundWindow(active->easy.get());
        const double limit = rateLimit.load();
        if (limit > 0.) {
            const double costNs = static_cast<double>(nTaken) / limit * 1e9;
            limitedUntilNs = std::max(limitedUntilNs, now - CREDIT_NS) + static_cast<int64>(costNs);
        }
    }
    active->transfer->append(bytes, n);
    return n;
}

void ZqNetLoop::Engine::measure(Active* active, int64 now, int64 n) {
    if (active->measureNs == 0) {
        active->measureNs = now + SETTLE_NS;
        active->nMeasured = 0;
    }
    if (now < active->measureNs) return;
    if (active->nMeasured == 0) active->measureNs = now;
    active->nMeasured += n;
    const int64 passed = now - active->measureNs;
    if (passed < RATE_NS) return;
    const double measured = static_cast<double>(active->nMeasured) * 1e9 / static_cast<double>(passed);
    const double old = rate.load();
    rate.store(old > 0. ? 0.75 * old + 0.25 * measured : measured);
    active->measureNs = now;
    active->nMeasured = 0;
    if (now - bestSinceNs > BEST_RATE_NS) {
        bestBefore = bestNow;
        bestNow = 0.;
        bestSinceNs = now;
    }
    bestNow = std::max(bestNow, measured);
}

/// Bytes of a round trip at the best rate of late; 0 not known yet.
double ZqNetLoop::Engine::bestTripBytes() const {
    if (nRoundTrips == 0) return 0.;
    const auto n = static_cast<std::ptrdiff_t>(std::min(nRoundTrips, roundTrips.size()));
    const int64 sumUs = std::accumulate(roundTrips.begin(), roundTrips.begin() + n, int64{0});
    return std::max(bestNow, bestBefore) * static_cast<double>(sumUs) / static_cast<double>(n) / 1e6;
}

/// Bounds what the server sends on while the stream is held, and with it what a range has to wait for. The
/// system's own bound may be megabytes, and it lifts ours whenever it raises that; so this is done with each
/// piece.
void ZqNetLoop::Engine::boundWindow(CURL* easy) const {
    curl_socket_t fd = CURL_SOCKET_BAD;
    const double wanted = bestTripBytes() * WINDOW_TRIPS;
    if (wanted <= 0.) return;
    if (curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &fd) != CURLE_OK || fd == CURL_SOCKET_BAD) return;
    const int window = static_cast<int>(std::clamp(wanted, MIN_WINDOW, MAX_WINDOW));
    ::setsockopt(fd, IPPROTO_TCP, TCP_WINDOW_CLAMP, &window, sizeof window);
}

void ZqNetLoop::Engine::noteRoundTrip(CURL* easy) {
    curl_off_t sent = 0, answered = 0;
    long nRedirects = 0;
    curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &sent);
    curl_easy_getinfo(easy, CURLINFO_STARTTRANSFER_TIME_T, &answered);
    curl_easy_getinfo(easy, CURLINFO_REDIRECT_COUNT, &nRedirects);
    if (nRedirects > 0 || answered <= sent) return;
    roundTrips[nRoundTrips % roundTrips.size()] = answered - sent;
    ++nRoundTrips;
    const auto end =
        roundTrips.begin() + static_cast<std::ptrdiff_t>(std::min(nRoundTrips, roundTrips.size()));
    roundTripUs.store(*std::min_element(roundTrips.begin(), end));
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

void ZqNetLoop::setRateLimit(double bytesPerSecond) {
    engine->rateLimit.store(bytesPerSecond);
    engine->wake();
}

ZqNetLink::Figures ZqNetLoop::getFigures() const {
    ZqNetLink::Figures figures;
    figures.nBytes = engine->nBytes.load();
    figures.nOnDemandBytes = engine->nOnDemandBytes.load();
    figures.nRequests = engine->nRequests.load();
    figures.roundTripUs = engine->roundTripUs.load();
    figures.rate = engine->rate.load();
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
