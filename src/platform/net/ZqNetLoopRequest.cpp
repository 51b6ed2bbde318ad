#include "SxClock.h"
#include "ZqNetLoopEngine.h"

#include <algorithm>
#include <curl/curl.h>
#include <sys/socket.h>

// The requests of the network's thread, and what libcurl tells of them.

namespace {

constexpr const char* UNIT = "src/platform/net/ZqNetLoopRequest";
constexpr int64 MS = 1'000'000;
/// What the rate limit lets an ordered stream make up for after a pause.
constexpr int64 CREDIT_NS = 100 * MS;
/// Bytes that libcurl reads at once.
constexpr long MIN_BUFFER = 16'384, MAX_BUFFER = 131'072;
/// Bytes of a stream's receive buffer; the second as long as nothing is known of the link.
constexpr double MIN_BUFFERED = 48 << 10, FIRST_BUFFERED = 64 << 10, MAX_BUFFERED = 64 << 20;

int64 nowNs() {
    return SxClock::get().steadyNs();
}

/// Host and port of an address.
std::string hostOf(std::string_view url) {
    const size_t host = url.find("://");
    if (host == std::string_view::npos) return {};
    const size_t begin = host + 3;
    return std::string(url.substr(begin, url.find_first_of("/?#", begin) - begin));
}

/// A number that threads other than the network's may ask for.
template<class T>
void addTo(std::atomic<T>* number, T n) {
    number->store(number->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

} // namespace

void ZqNetLoop::Engine::CloseEasy::operator()(CURL* easy) const {
    curl_easy_cleanup(easy);
}

void ZqNetLoop::Engine::FreeList::operator()(curl_slist* list) const {
    curl_slist_free_all(list);
}

void ZqNetLoop::Engine::begin(const SxPtr<ZqTransfer>& transfer) {
    try {
        tryBegin(transfer);
    } catch (const SxException& e) {
        transfer->fail(e);
    } catch (const std::exception& e) {
        transfer->failFor(e);
    }
}

void ZqNetLoop::Engine::tryBegin(const SxPtr<ZqTransfer>& transfer) {
    auto made = std::make_unique<Active>();
    made->engine = this;
    made->transfer = transfer;
    made->easy.reset(curl_easy_init());
    made->begunNs = nowNs();
    made->limitNs = ZqNetProgress::getPatience(settings.stallMs * MS, transfer->getRequest().nSlow);
    made->record.isEncrypted = transfer->getRequest().url.str().starts_with("https:");
    made->progress = ZqNetProgress({settings.stallMs * MS, settings.secondMs * MS, PRIORITY_NS});
    made->progress.begin(made->begunNs);
    CURL* easy = made->easy.get();
    if (!easy) throw SxException("Out of memory", UNIT, __LINE__);
    made->pool = poolFor(transfer->getRequest());
    setOptions(made.get());
    ZqNetPool* pool = made->pool;
    actives.emplace(easy, std::move(made));
    try {
        pool->add(easy);
    } catch (const std::exception&) {
        actives.erase(easy);
        throw;
    }
    transfer->setBegun();
    addTo<uint64>(&nRequests, 1);
}

/// What yields has a connection of its own, over HTTP/1.1: bytes that are held back there stay with the
/// server, where HTTP/2 would let a window of 32 MiB fill. All else takes HTTP/2 where that is offered: a
/// group of ranges then costs one handshake, and no more round trips than a single one.
///
/// Connections of both versions are never in one pool. libcurl 7.88 gives answers to the wrong requests there
/// when a server ends an HTTP/2 connection, as nginx does with each thousandth request and with each reload.
/// One version for all would be simpler. But with HTTP/2 nothing would bound what is held, and with HTTP/1.1
/// each range that goes beside another would cost a TLS handshake.
ZqNetPool* ZqNetLoop::Engine::poolFor(const ZqTransfer::Request& request) {
    const bool mayBeHttp2 = !yields(request.kind) && !onlyHttp1 && request.url.str().starts_with("https:");
    ZqNetPool*& pool = current.at(mayBeHttp2 ? Http2 : Http1);
    if (!pool) pool = pools.emplace_back(std::make_unique<ZqNetPool>()).get();
    return pool;
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
    static_assert(ERROR_SIZE >= CURL_ERROR_SIZE);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, active->errorText.data());
    const bool isHttp2 = active->pool == current.at(Http2);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                     static_cast<long>(isHttp2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
    // To wait for a connection that may take several requests pays over HTTP/2 only, and else lasts until the
    // first request has ended.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, isHttp2 && !speaksHttp1 ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, isHeldAtTimes ? streamBuffer() : MAX_BUFFER);
    if (request.fresh) curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    if (!settings.trustFile.isEmpty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings.trustFile.ascii());
    if (!settings.trustFolder.isEmpty()) curl_easy_setopt(easy, CURLOPT_CAPATH, settings.trustFolder.ascii());
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

/// What libcurl reads at once of an ordered stream, and has in its hand while the stream is held. So it is a
/// part of what the link carries in a round trip, and small under a rate limit by which a large one would
/// take 20 ms or more.
long ZqNetLoop::Engine::streamBuffer() const {
    const double limit = rateLimit.load();
    const bool isSlow = limit > 0. && limit < MAX_BUFFER * 50.;
    const double quarter = std::min(pace.getTripBytes() / 4., 1e9);
    return isSlow ? MIN_BUFFER : std::clamp(static_cast<long>(quarter), MIN_BUFFER, MAX_BUFFER);
}

size_t ZqNetLoop::Engine::onHeader(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    const std::string_view line(bytes, size * n);
    // Nothing may be raised through libcurl.
    try {
        active->response.takeHeader(line);
    } catch (const std::exception& e) {
        active->transfer->failFor(e);
        return 0;
    }
    if (line == "\r\n" || line == "\n") active->engine->noteHead(active);
    return size * n;
}

/// A whole head is progress, but for one that only says that an answer will come (1xx). A redirect's counts;
/// as only a few of these are followed, that ends.
void ZqNetLoop::Engine::noteHead(Active* active) {
    long status = 0;
    curl_easy_getinfo(active->easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status < 200) return;
    const int64 now = nowNs();
    active->progress.begin(now);
    active->transfer->setUsefulNs(now);
}

/// `n` bytes have come, which count only where they are many enough.
void ZqNetLoop::Engine::noteProgress(Active* active, int64 n) {
    const int64 now = nowNs();
    const auto nBeside = std::ranges::count_if(actives, [](const auto& each) { return !each.second->held; });
    active->progress.take(n, pace.getBestRate(now), nBeside, now);
    active->transfer->setUsefulNs(active->progress.getSinceNs(ZqNetProgress::Second));
}

/// TLS hands on whole records, and one of 16 KiB may take a slow link longer than any limit. So what comes
/// for one counts before it is there, but no more than it can have.
void ZqNetLoop::Engine::noteRecord(Active* active) {
    constexpr int64 LOOK_NS = 200 * MS, MAX_RECORD = (16 << 10) + 512;
    Record& record = active->record;
    const int64 now = nowNs();
    if (!record.isEncrypted || active->held || now - record.lookedNs < LOOK_NS) return;
    record.lookedNs = now;
    const int64 nNow = ZqNetPool::countReceived(active->pool->socketOf(active->easy.get()));
    const int64 nNew = record.nSeen >= 0 ? std::min(nNow - record.nSeen, MAX_RECORD - record.nCredited) : 0;
    record.nSeen = nNow;
    if (nNew <= 0) return;
    record.nCredited += nNew;
    noteProgress(active, nNew);
}

size_t ZqNetLoop::Engine::onBody(char* bytes, size_t size, size_t n, void* user) {
    Active* active = static_cast<Active*>(user);
    try {
        return active->engine->take(active, bytes, size * n);
    } catch (const std::exception& e) {
        active->transfer->failFor(e);
        return 0;
    }
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
    if (active->yields()) {
        active->fd = active->pool->socketOf(easy);
        boundBuffer(*active);
    }
    try {
        active->transfer->getRequest().check(active->response);
    } catch (const SxException& e) {
        active->failure = e;
        active->failed = true;
    }
    noteVersion(active);
    noteStatus(active);
}

/// A host may give now this version and now that one where it may choose, as one does that is several
/// machines. From then on only HTTP/1.1 is asked for, so that both are never in one pool.
void ZqNetLoop::Engine::noteVersion(Active* active) {
    long version = 0;
    curl_easy_getinfo(active->easy.get(), CURLINFO_HTTP_VERSION, &version);
    const bool isHttp1 = version < CURL_HTTP_VERSION_2_0;
    if (!active->yields()) speaksHttp1 = isHttp1;
    if (!active->pool->isMixed(hostOf(active->response.url.str()), isHttp1 ? 1 : 2)) return;
    onlyHttp1 = true;
    renewPools();
    active->failed = true;
    active->failure =
        SxException(ZqNetLink::BROKEN, "the server has changed its version of HTTP", UNIT, __LINE__);
}

/// Heeds a server that is asked too much, and says what it asks for.
void ZqNetLoop::Engine::noteStatus(Active* active) {
    const ZqTransfer::Response& response = active->response;
    const int64 now = nowNs();
    const int64 askedMs = response.retryAfterMs(SxClock::get().systemMs());
    // A balancer says this for the one of its servers that is gone, and the next request gets another one. So
    // where somebody waits it is made once more at once. Only a second such answer counts as the server's
    // own.
    const bool mayBeOneOfMany = response.status == 503 && askedMs < 0 && active->failed &&
                                active->kind() == ZqTransfer::Kind::OnDemand &&
                                !active->transfer->getRequest().isRepeated;
    if (mayBeOneOfMany) {
        active->failure = SxException(active->failure, "Another server may answer", UNIT, __LINE__)
                              .tagged(ZqTransfer::AT_ONCE);
    } else if (response.status == 429 || response.status == 503) {
        const bool isOrdered = active->kind() == ZqTransfer::Kind::Ordered;
        gate.refused(active->begunNs, askedMs, countUnderWay() - (isOrdered ? 0 : 1), now);
        refusedNs.store(now);
        if (active->failed && active->failure.hasTag(ZqNetLink::UNREACHABLE) && askedMs > 0) {
            const SxString text = active->failure.getMessage() + ", and asks to wait " +
                                  SxString((askedMs + 999) / 1000) + " s";
            active->failure = SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__);
        }
    } else if (response.status < 500) {
        gate.answered(active->begunNs, now);
    }
    pausedUntilNs.store(gate.getUntilNs());
}

size_t ZqNetLoop::Engine::take(Active* active, const char* bytes, size_t n) {
    if (!active->checked) check(active);
    if (active->failed) return 0;
    if (mustHold(*active)) {
        active->held = true;
        active->heldNs = nowNs();
        active->span = {};
        return CURL_WRITEFUNC_PAUSE;
    }
    const int64 now = nowNs();
    const auto nTaken = static_cast<int64>(n);
    active->lastTakenNs = now;
    active->record.nCredited = 0;
    noteProgress(active, nTaken);
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
    return active->transfer->append(bytes, n) ? n : 0;
}

/// Bounds the receive buffer by what the link carries in a round trip at its best rate of late, that of
/// ranges too. What the server sends on while the stream is held arrives before every range, and the system's
/// own buffer takes megabytes. To bound the window alone doesn't help, since it opens again with each segment
/// as long as there is buffer. The system doubles the bytes for its own needs; what it doesn't need of that
/// lets the rate grow.
void ZqNetLoop::Engine::boundBuffer(const Active& active) const {
    const double trip = pace.getTripBytes();
    if (active.fd < 0) return;
    const int wanted =
        static_cast<int>(std::clamp(trip > 0. ? trip : FIRST_BUFFERED, MIN_BUFFERED, MAX_BUFFERED));
    int granted = 0;
    socklen_t size = sizeof granted;
    ::setsockopt(active.fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    ::getsockopt(active.fd, SOL_SOCKET, SO_RCVBUF, &granted, &size);
    if (granted / 2 >= wanted) return;
    // A program may not ask for that much. So the system decides, whose own way gives more.
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
