#include "ZqNetLink.h"

#include "SxClock.h"
#include "SxTime.h"
#include "ZqNetLoop.h"

#include <algorithm>

#include <cstdlib>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqNetLink";
constexpr int64 SECOND_NS = 1'000'000'000, MS = 1'000'000;

/// As other programs do, authorities of the user's own come by environment variables.
ZqNetSettings withTrust(ZqNetSettings settings) {
    if (!settings.access.trustFile.isEmpty()) return settings;
    const auto take = [](SxString* value, const char* name) {
        const char* given = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody here sets any
        if (value->isEmpty() && given) *value = SxString(given);
    };
    take(&settings.access.trustFile, "SSL_CERT_FILE");
    take(&settings.trustFolder, "SSL_CERT_DIR");
    return settings;
}

ZqNetSettings withAccess(const ZqNetAccess& access) {
    ZqNetSettings settings;
    settings.access = access;
    return settings;
}
} // namespace

ZqNetLink::ZqNetLink(const ZqNetSettings& settings_)
    : settings(withTrust(settings_)),
      loop(std::make_unique<ZqNetLoop>(settings)) {
    loop->start();
}

ZqNetLink::ZqNetLink(const ZqNetAccess& access) : ZqNetLink(withAccess(access)) {
}

ZqNetLink::~ZqNetLink() {
    loop->end();
}

void ZqNetLink::setRateLimit(double bytesPerSecond) {
    loop->setRateLimit(bytesPerSecond);
}

void ZqNetLink::hastenStreams() {
    loop->hastenStreams();
}

void ZqNetLink::shareWithStreams(bool on) {
    loop->shareWithStreams(on);
}

SxString ZqNetLink::getStatus() const {
    {
        SxMutexBlock lock(&waitingMutex);
        if (!waiting.empty()) return waiting.back().text;
    }
    const int64 leftNs = loop->getRefusal().untilNs - SxClock::get().steadyNs();
    if (leftNs < SECOND_NS) return {};
    return "waiting for the server: it is asked too much, and left alone for " +
           SxString((leftNs + SECOND_NS - 1) / SECOND_NS) + " s";
}

ZqNetLink::Figures ZqNetLink::getFigures() const {
    Figures figures = loop->getFigures();
    figures.nRetries = nRetries.load();
    return figures;
}

void ZqNetLink::add(const SxPtr<ZqTransfer>& transfer) {
    loop->add(transfer);
}

void ZqNetLink::drop(const SxPtr<ZqTransfer>& transfer) {
    loop->drop(transfer);
}

void ZqNetLink::suspect(const SxPtr<ZqTransfer>& transfer) {
    loop->suspect(transfer);
}

bool ZqNetLink::mayCompare() {
    const int64 now = SxClock::get().steadyNs();
    int64 next = nextCompareNs.load();
    return now >= next && nextCompareNs.compare_exchange_strong(next, now + 10 * settings.secondMs * MS);
}

int64 ZqNetLink::getRefusedNs() const {
    return loop->getRefusal().lastNs;
}

void ZqNetLink::checkStop(const ZqStopTest& stop) const {
    if (isCancelled() || (stop && stop())) {
        throw SxException(SxException::STOPPED, "The download was stopped", UNIT, __LINE__);
    }
}

void ZqNetLink::sleep(int64 ms, const ZqStopTest& stop, const ZqStopTest& until) const {
    SxWait::pass(ms, [&] {
        checkStop(stop);
        return until && until();
    });
}

ZqNetOutage ZqNetLink::getOutage() const {
    const uint64 nBytes = loop->getFigures().nBytes;
    SxMutexBlock lock(&waitingMutex);
    if (outage.nTries == 0 || nBytes != outage.nBytes) return {};
    return {(SxClock::get().steadyNs() - outage.sinceNs) / 1'000'000, outage.nTries};
}

void ZqNetLink::noteAway(int64 nTries, int64 sinceNs) {
    const uint64 nBytes = loop->getFigures().nBytes;
    const int64 beginNs = std::max(sinceNs, loop->getTakenNs());
    SxMutexBlock lock(&waitingMutex);
    if (outage.nTries == 0 || nBytes != outage.nBytes) outage = {beginNs, 0, nBytes};
    // Others may have waited for longer, whose requests fail later.
    outage.sinceNs = std::min(outage.sinceNs, beginNs);
    outage.nTries = std::max(outage.nTries, nTries);
}

void ZqNetLink::setWaiting(const void* who, const SxString& text) {
    nRetries.fetch_add(1);
    SxMutexBlock lock(&waitingMutex);
    waiting.remove_if([who](const Waiting& entry) { return entry.who == who; });
    waiting.push_back({who, text});
}

void ZqNetLink::endWaiting(const void* who) {
    SxMutexBlock lock(&waitingMutex);
    waiting.remove_if([who](const Waiting& entry) { return entry.who == who; });
}
