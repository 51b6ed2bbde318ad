#include "ZqNetLoop.h"

#include "SxClock.h"

#include <algorithm>
#include <curl/curl.h>
#include <mutex>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqNetLoop";
constexpr int64 MS = 1'000'000;
constexpr int64 LOOK_MS = 100;    ///< the longest sleep while a request is under way
constexpr int64 IDLE_MS = 60'000; ///< the same while none is; new ones wake the thread

int64 nowNs() {
    return SxClock::get().steadyNs();
}

/// A number that threads other than the network's may ask for.
template<class T>
void addTo(std::atomic<T>* number, T n) {
    number->store(number->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

} // namespace

ZqNetLoop::ZqNetLoop(const ZqNetSettings& settings_) : settings(settings_), queue(settings_) {
    startLibrary();
    setThreadName("zqnetio");
}

ZqNetLoop::~ZqNetLoop() = default;

void ZqNetLoop::startLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

void ZqNetLoop::add(const SxPtr<ZqTransfer>& transfer) {
    mailbox.post(transfer, ZqNetMailbox::What::Add);
}

void ZqNetLoop::drop(const SxPtr<ZqTransfer>& transfer) {
    mailbox.post(transfer, ZqNetMailbox::What::Drop);
}

void ZqNetLoop::suspect(const SxPtr<ZqTransfer>& transfer) {
    mailbox.post(transfer, ZqNetMailbox::What::Suspect);
}

void ZqNetLoop::hastenStreams() {
    holds.hasten(nowNs());
    mailbox.wake();
}

void ZqNetLoop::setRateLimit(double bytesPerSecond) {
    holds.setRateLimit(bytesPerSecond);
    mailbox.wake();
}

ZqNetLink::Figures ZqNetLoop::getFigures() const {
    ZqNetLink::Figures figures;
    figures.nBytes = nBytes.load();
    figures.nOnDemandBytes = nOnDemandBytes.load();
    figures.nRequests = nRequests.load();
    figures.roundTripUs = pace.getRoundTripUs();
    figures.rate = pace.getRate();
    figures.isAtLimit = holds.isAtLimit(nowNs());
    figures.tripBytes = pace.getTripBytes();
    return figures;
}

void ZqNetLoop::end() {
    mailbox.end();
    wait();
}

void ZqNetLoop::main() {
    while (!mailbox.isEnding()) {
        try {
            work();
            waitForWork();
        } catch (const std::exception&) {
            // As for want of memory. All wait for this thread, and each step leaves what it can go on with.
            ::poll(nullptr, 0, LOOK_MS);
        }
    }
    endAll();
}

void ZqNetLoop::work() {
    takePosted();
    admit();
    pools.perform(waited, [this](CURL* easy, int code) { conclude(easy, code); });
    failStalled();
    releaseHeld();
    pools.tidy();
}

void ZqNetLoop::endAll() {
    takePosted();
    std::vector<SxPtr<ZqTransfer>> left = queue.takeAll();
    for (const auto& [easy, exchange] : exchanges)
        left.push_back(exchange->getTransfer());
    exchanges.clear();
    const SxException ended(SxException::STOPPED, "The network was stopped", UNIT, __LINE__);
    for (const SxPtr<ZqTransfer>& transfer : left)
        transfer->fail(ended);
}

void ZqNetLoop::waitForWork() {
    waited.assign(1, {mailbox.getFd(), POLLIN, 0});
    pools.collect(&waited);
    ::poll(waited.data(), waited.size(), static_cast<int>(timeToWait()));
    if (waited[0].revents != 0) mailbox.noteWoken();
}

int64 ZqNetLoop::timeToWait() const {
    int64 ms = exchanges.empty() ? IDLE_MS : LOOK_MS;
    const int64 now = nowNs();
    // A server may ask for minutes, and the wait for that must not keep a machine awake.
    const int64 beginNs = queue.findNextNs(countUnderWay(), now);
    if (beginNs != ZqNetGate::NEVER) ms = std::min(ms, (beginNs - now) / MS + 1);
    const bool isAnyHeld =
        std::ranges::any_of(exchanges, [](const auto& each) { return each.second->getWatch().isHeld(); });
    if (isAnyHeld && holds.getUntilNs() > now) ms = std::min(ms, (holds.getUntilNs() - now) / MS + 1);
    const int64 ofPools = pools.timeToWait();
    return ofPools >= 0 ? std::min(ms, ofPools) : ms;
}

void ZqNetLoop::takePosted() {
    for (const auto& [transfer, what] : mailbox.take()) {
        if (what == ZqNetMailbox::What::Drop) dropNow(transfer);
        const ZqHttpExchange* exchange = what == ZqNetMailbox::What::Suspect ? find(transfer) : nullptr;
        if (exchange) pools.suspect(exchange->getPool());
        if (what != ZqNetMailbox::What::Add) continue;
        try {
            transfer->setWake([this] { mailbox.wake(); });
            queue.add(transfer, nowNs());
        } catch (const std::exception& e) {
            transfer->failFor(e);
        }
    }
}

ZqHttpExchange* ZqNetLoop::find(const SxPtr<ZqTransfer>& transfer) const {
    for (const auto& [easy, exchange] : exchanges) {
        if (exchange->getTransfer() == transfer) return exchange.get();
    }
    return nullptr;
}

void ZqNetLoop::dropNow(const SxPtr<ZqTransfer>& transfer) {
    queue.drop(transfer);
    if (const ZqHttpExchange* exchange = find(transfer)) exchanges.erase(exchange->getEasy());
}

/// Begins what may begin.
void ZqNetLoop::admit() {
    while (const SxPtr<ZqTransfer> transfer = queue.takeNext(countUnderWay(), nowNs())) {
        try {
            begin(transfer);
        } catch (const SxException& e) {
            transfer->fail(e);
        } catch (const std::exception& e) {
            transfer->failFor(e);
        }
    }
}

void ZqNetLoop::begin(const SxPtr<ZqTransfer>& transfer) {
    const ZqTransfer::Request& request = transfer->getRequest();
    const ZqNetPools::Place place = pools.place(request.url, ZqNetHolds::yields(request.kind));
    auto made = std::make_unique<ZqHttpExchange>(
        transfer, ZqHttpExchange::Setup{settings, &pace, place, holds.getRateLimit(), this});
    CURL* easy = made->getEasy();
    const auto begun = exchanges.emplace(easy, std::move(made)).first;
    try {
        begun->second->begin();
    } catch (const std::exception&) {
        exchanges.erase(easy);
        throw;
    }
    addTo<uint64>(&nRequests, 1);
}

/// Requests under way beside the ordered streams.
int64 ZqNetLoop::countUnderWay() const {
    return std::ranges::count_if(
        exchanges, [](const auto& each) { return each.second->kind() != ZqTransfer::Kind::Ordered; });
}

int64 ZqNetLoop::countFlowing() const {
    return std::ranges::count_if(exchanges,
                                 [](const auto& each) { return !each.second->getWatch().isHeld(); });
}

void ZqNetLoop::conclude(CURL* easy, int code) {
    const auto found = exchanges.find(easy);
    if (found == exchanges.end()) return;
    ZqHttpExchange* exchange = found->second.get();
    try {
        if (exchange->conclude(code) && exchange->kind() == ZqTransfer::Kind::OnDemand)
            holds.noteAnswer(pace.getRoundTripUs() * 1000, nowNs());
    } catch (const std::exception& e) {
        // libcurl tells each end once.
        exchange->getTransfer()->failFor(e);
    }
    exchanges.erase(found);
}

void ZqNetLoop::failStalled() {
    const int64 now = nowNs();
    std::vector<ZqHttpExchange*> stalled;
    for (const auto& [easy, exchange] : exchanges) {
        exchange->look();
        if (exchange->getWatch().isStalled(now)) stalled.push_back(exchange.get());
    }
    for (const ZqHttpExchange* exchange : stalled) {
        pools.suspect(exchange->getPool());
        exchange->getTransfer()->fail(exchange->getWatch().failure());
        exchanges.erase(exchange->getEasy());
    }
}

bool ZqNetLoop::isOnTheWire(ZqTransfer::Kind kind, bool hasBegun) const {
    const int64 now = nowNs();
    return std::ranges::any_of(exchanges, [&](const auto& each) {
        const ZqStallWatch& watch = each.second->getWatch();
        return each.second->kind() == kind && watch.isMoving(now) && (watch.hasBegun() || !hasBegun);
    });
}

bool ZqNetLoop::mustHold(const ZqHttpExchange& exchange) {
    return holds.mustHold(
        exchange.kind(), [this](ZqTransfer::Kind kind, bool hasBegun) { return isOnTheWire(kind, hasBegun); },
        nowNs());
}

void ZqNetLoop::releaseHeld() {
    const auto mayGoOn = [this](const ZqHttpExchange& exchange) {
        return exchange.getTransfer()->hasRoom() && !mustHold(exchange);
    };
    std::vector<ZqHttpExchange*> released;
    for (const auto& [easy, exchange] : exchanges) {
        if (exchange->getWatch().isHeld() && mayGoOn(*exchange)) released.push_back(exchange.get());
    }
    // Under the rate limit the first may use up what there is, and the others would starve. So they take
    // turns.
    std::ranges::sort(released, {}, &ZqHttpExchange::getTakenNs);
    for (ZqHttpExchange* exchange : released) {
        if (mayGoOn(*exchange)) exchange->goOn();
    }
}

void ZqNetLoop::noteTaken(const ZqHttpExchange& exchange, int64 n) {
    takenNs = nowNs();
    addTo(&nBytes, static_cast<uint64>(n));
    if (exchange.kind() == ZqTransfer::Kind::OnDemand) addTo(&nOnDemandBytes, static_cast<uint64>(n));
    if (ZqNetHolds::yields(exchange.kind())) holds.noteTaken(n, nowNs());
}

void ZqNetLoop::noteAnswer(ZqHttpExchange* exchange) {
    if (!pools.noteVersion(exchange->getPool(), exchange->getResponse().url, exchange->isHttp1(),
                           exchange->yields())) {
        exchange->refuse(
            SxException(ZqNetLink::BROKEN, "the server has changed its version of HTTP", UNIT, __LINE__));
    }
    heedStatus(exchange);
}

/// Heeds a server that is asked too much, and says what it asks for.
void ZqNetLoop::heedStatus(ZqHttpExchange* exchange) {
    const ZqTransfer::Response& response = exchange->getResponse();
    const SxException* why = exchange->getRefusal();
    const int64 now = nowNs();
    const int64 askedMs = response.retryAfterMs(SxClock::get().systemMs());
    // A balancer says this for the one of its servers that is gone, and the next request gets another one. So
    // where somebody waits it is made once more at once. Only a second such answer counts as the server's
    // own.
    const bool mayBeOneOfMany = response.status == 503 && askedMs < 0 && why &&
                                exchange->kind() == ZqTransfer::Kind::OnDemand &&
                                !exchange->getTransfer()->getRequest().isRepeated;
    if (mayBeOneOfMany) {
        exchange->refuse(
            SxException(*why, "Another server may answer", UNIT, __LINE__).tagged(ZqTransfer::AT_ONCE));
    } else if (response.status == 429 || response.status == 503) {
        const bool isOrdered = exchange->kind() == ZqTransfer::Kind::Ordered;
        queue.refused(exchange->getBegunNs(), askedMs, countUnderWay() - (isOrdered ? 0 : 1), now);
        if (why && why->hasTag(ZqNetLink::UNREACHABLE) && askedMs > 0) {
            const SxString text =
                why->getMessage() + ", and asks to wait " + SxString((askedMs + 999) / 1000) + " s";
            exchange->refuse(SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__));
        }
    } else if (response.status < 500) {
        queue.answered(exchange->getBegunNs(), now);
    }
}
