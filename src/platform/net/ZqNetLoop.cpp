#include "ZqNetLoop.h"

#include "SxClock.h"
#include "ZqNetFailure.h"
#include "ZqNetLoopEngine.h"

#include <algorithm>
#include <curl/curl.h>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqNetLoop";
constexpr int64 MS = 1'000'000;
/// The streams stay held for so many round trips after an answer to a request on demand, within these bounds:
/// one who has waited for blocks mostly asks for the next ones then, and these would find the link full.
constexpr int64 QUIET_TRIPS = 10;
constexpr int64 MIN_QUIET_NS = 10 * MS, MAX_QUIET_NS = 250 * MS;
/// This is what such holds may take in all; the time between them gives a half of its own length back. When
/// it is used up a hold lasts one round trip only, within lower bounds: an application that asks without end
/// must not keep the download back.
constexpr int64 QUIET_BUDGET_NS = 10'000 * MS, MAX_SHORT_QUIET_NS = 60 * MS;
/// Longer than the 20 ms after which one who waits for the streams says so again.
constexpr int64 HASTENED_NS = 100 * MS;
constexpr int64 LOOK_MS = 100;    ///< the longest sleep while a request is under way
constexpr int64 IDLE_MS = 60'000; ///< the same while none is; new ones wake the thread

int64 nowNs() {
    return SxClock::get().steadyNs();
}

} // namespace

ZqNetLoop::Engine::Engine(const ZqNetSettings& settings_)
    : settings(settings_),
      wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      gate(settings_),
      quietBudgetNs(QUIET_BUDGET_NS) {
    if (wakeFd < 0) throw SxException("Cannot start the network", UNIT, __LINE__);
}

ZqNetLoop::Engine::~Engine() {
    ::close(wakeFd);
}

void ZqNetLoop::Engine::post(const SxPtr<ZqTransfer>& transfer, Post what) {
    {
        SxMutexBlock lock(&mutex);
        posted.emplace_back(transfer, what);
    }
    wake();
}

void ZqNetLoop::Engine::wake() noexcept {
    // Where it fails, it has been woken often enough.
    (void)::eventfd_write(wakeFd, 1);
}

void ZqNetLoop::Engine::end() noexcept {
    ending.store(true);
    wake();
}

bool ZqNetLoop::Engine::yields(ZqTransfer::Kind kind) {
    return kind == ZqTransfer::Kind::Ordered || kind == ZqTransfer::Kind::Ahead;
}

void ZqNetLoop::Engine::run() {
    while (!ending.load()) {
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

void ZqNetLoop::Engine::work() {
    takePosted();
    admit();
    for (const auto& pool : pools) {
        pool->perform(waited);
        readMessages(pool.get());
    }
    failStalled();
    releaseHeld();
    std::erase_if(pools, [this](const auto& pool) {
        return pool->isEmpty() && std::ranges::find(current, pool.get()) == current.end();
    });
}

void ZqNetLoop::Engine::endAll() {
    takePosted();
    const SxException ended(SxException::STOPPED, "The network was stopped", UNIT, __LINE__);
    for (auto& [easy, active] : actives) {
        active->pool->remove(easy);
        active->transfer->fail(ended);
    }
    for (const Queued& each : queued)
        each.transfer->fail(ended);
    actives.clear();
    queued.clear();
}

void ZqNetLoop::Engine::waitForWork() {
    waited.assign(1, {wakeFd, POLLIN, 0});
    for (const auto& pool : pools)
        pool->collect(&waited);
    ::poll(waited.data(), waited.size(), static_cast<int>(timeToWait()));
    eventfd_t n = 0;
    if (waited[0].revents != 0) (void)::eventfd_read(wakeFd, &n);
}

void ZqNetLoop::Engine::takePosted() {
    std::vector<std::pair<SxPtr<ZqTransfer>, Post>> taken;
    {
        SxMutexBlock lock(&mutex);
        taken.swap(posted);
    }
    for (const auto& [transfer, what] : taken) {
        if (what == Post::Drop) drop(transfer);
        if (what == Post::Suspect) suspect(transfer);
        if (what != Post::Add) continue;
        try {
            transfer->setWake([this] { wake(); });
            queued.push_back({transfer, nowNs()});
        } catch (const std::exception& e) {
            transfer->failFor(e);
        }
    }
}

/// As the gate sees them.
std::vector<ZqNetGate::Request> ZqNetLoop::Engine::listQueued() const {
    std::vector<ZqNetGate::Request> list;
    for (const Queued& each : queued) {
        const ZqTransfer::Kind kind = each.transfer->getKind();
        const bool isOnDemand = kind == ZqTransfer::Kind::OnDemand;
        list.push_back({isOnDemand || kind == ZqTransfer::Kind::Small, kind == ZqTransfer::Kind::Ordered,
                        isOnDemand, each.sinceNs});
    }
    return list;
}

/// Begins what may begin.
void ZqNetLoop::Engine::admit() {
    while (!queued.empty()) {
        const int64 now = nowNs();
        const size_t next = gate.choose(listQueued(), countUnderWay(), now);
        if (next == queued.size()) return;
        const SxPtr<ZqTransfer> transfer = queued[next].transfer;
        queued.erase(queued.begin() + static_cast<std::ptrdiff_t>(next));
        gate.noteBegin(now);
        begin(transfer);
    }
}

/// Requests under way beside the ordered streams.
int64 ZqNetLoop::Engine::countUnderWay() const {
    return std::ranges::count_if(
        actives, [](const auto& each) { return each.second->kind() != ZqTransfer::Kind::Ordered; });
}

void ZqNetLoop::Engine::drop(const SxPtr<ZqTransfer>& transfer) {
    std::erase_if(queued, [&](const Queued& each) { return each.transfer == transfer; });
    for (const auto& [easy, active] : actives) {
        if (!(active->transfer == transfer)) continue;
        remove(easy);
        return;
    }
}

void ZqNetLoop::Engine::remove(CURL* easy) {
    actives[easy]->pool->remove(easy);
    actives.erase(easy);
}

void ZqNetLoop::Engine::readMessages(ZqNetPool* pool) {
    int code = CURLE_OK;
    while (CURL* easy = pool->takeEnded(&code)) {
        const auto found = actives.find(easy);
        if (found == actives.end()) continue;
        try {
            conclude(found->second.get(), code);
        } catch (const std::exception& e) {
            // libcurl tells each end once.
            found->second->transfer->failFor(e);
        }
        remove(easy);
    }
}

void ZqNetLoop::Engine::conclude(Active* active, int code) {
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

/// One that was found slow before has more time, but for complete silence.
bool ZqNetLoop::Engine::isStalled(const Active& active, int64 nowNs) const {
    if (active.held) return false;
    const int64 standingNs = nowNs - active.progress.getSinceNs(ZqNetProgress::Stall);
    const bool isSilent = active.progress.getBytes(ZqNetProgress::Stall) == 0;
    return standingNs > (isSilent ? settings.stallMs * MS : active.limitNs);
}

void ZqNetLoop::Engine::failStalled() {
    const int64 now = nowNs();
    std::vector<CURL*> stalled;
    for (auto& [easy, active] : actives) {
        noteHeld(active.get());
        noteRecord(active.get());
        if (isStalled(*active, now)) stalled.push_back(easy);
    }
    for (CURL* easy : stalled) {
        const Active& active = *actives[easy];
        const int64 nGot = active.progress.getBytes(ZqNetProgress::Stall);
        const double seconds = static_cast<double>(nGot > 0 ? active.limitNs / MS : settings.stallMs) / 1e3;
        const SxString got = nGot > 0 ? "only " + SxString(nGot) + " bytes in" : SxString("no data for");
        SxException failure(ZqNetLink::UNREACHABLE, got + SxString::sprintf(" %g s", seconds), UNIT,
                            __LINE__);
        if (nGot > 0) {
            failure =
                SxException(failure, "the answer comes too slowly", UNIT, __LINE__).tagged(ZqTransfer::SLOW);
        }
        const SxPtr<ZqTransfer> transfer = active.transfer;
        suspect(transfer);
        transfer->fail(failure);
        remove(easy);
    }
}

/// Leaves out the time that it was held.
void ZqNetLoop::Engine::noteHeld(Active* active) {
    if (!active->held) return;
    const int64 now = nowNs();
    active->progress.skip(now - active->heldNs);
    active->heldNs = now;
    active->transfer->setUsefulNs(active->progress.getSinceNs(ZqNetProgress::Second));
}

/// Where one connection is dead the others that there are may be, too: an address that has changed, or a
/// router that has forgotten them all. Each would cost the same wait anew. So later requests take none of
/// them.
void ZqNetLoop::Engine::suspect(const SxPtr<ZqTransfer>& transfer) {
    for (const auto& [easy, active] : actives) {
        if (!(active->transfer == transfer)) continue;
        if (std::ranges::find(current, active->pool) != current.end()) renewPools();
        return;
    }
}

/// What is under way goes on where it is.
void ZqNetLoop::Engine::renewPools() {
    current.fill(nullptr);
}

bool ZqNetLoop::Engine::isOnTheWire(ZqTransfer::Kind kind) const {
    const int64 now = nowNs();
    for (const auto& [easy, active] : actives) {
        if (active->kind() != kind) continue;
        if (active->held || now - active->progress.getSinceNs(ZqNetProgress::Hold) < PRIORITY_NS) return true;
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
    // Under the rate limit the first may use up what there is, and the others would starve. So they take
    // turns.
    std::sort(released.begin(), released.end(),
              [](const Active* a, const Active* b) { return a->lastTakenNs < b->lastTakenNs; });
    for (Active* active : released) {
        if (mustHold(*active)) continue;
        noteHeld(active);
        active->held = false;
        curl_easy_pause(active->easy.get(), CURLPAUSE_CONT);
    }
}

int64 ZqNetLoop::Engine::timeToWait() const {
    int64 wait = actives.empty() ? IDLE_MS : LOOK_MS;
    const int64 now = nowNs();
    // A server may ask for minutes, and the wait for that must not keep a machine awake.
    const int64 beginNs = gate.findNextNs(listQueued(), countUnderWay(), now);
    if (beginNs != ZqNetGate::NEVER) wait = std::min(wait, (beginNs - now) / MS + 1);
    for (const auto& [easy, active] : actives) {
        const int64 until = std::max(quietUntilNs, limitedUntilNs);
        if (active->held && until > now) wait = std::min(wait, (until - now) / MS + 1);
    }
    for (const auto& pool : pools) {
        const int64 ms = pool->timeToWait();
        if (ms >= 0) wait = std::min(wait, ms);
    }
    return wait;
}

ZqNetLoop::ZqNetLoop(const ZqNetSettings& settings) {
    startLibrary();
    engine = std::make_unique<Engine>(settings);
    setThreadName("zqnetio");
}

ZqNetLoop::~ZqNetLoop() = default;

void ZqNetLoop::add(const SxPtr<ZqTransfer>& transfer) {
    engine->post(transfer, Engine::Post::Add);
}

void ZqNetLoop::drop(const SxPtr<ZqTransfer>& transfer) {
    engine->post(transfer, Engine::Post::Drop);
}

void ZqNetLoop::suspect(const SxPtr<ZqTransfer>& transfer) {
    engine->post(transfer, Engine::Post::Suspect);
}

ZqNetLoop::Refusal ZqNetLoop::getRefusal() const {
    return {engine->refusedNs.load(), engine->pausedUntilNs.load()};
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
