#include "ZqHttpExchange.h"

#include "SxClock.h"
#include "ZqExchangeDriver.h"
#include "ZqNetHolds.h"
#include "ZqNetLink.h"

#include <algorithm>
#include <curl/curl.h>
#include <sys/socket.h>

namespace {

/// Bytes that libcurl reads at once.
constexpr long MIN_BUFFER = 16'384, MAX_BUFFER = 131'072;
/// Bytes of a stream's receive buffer; the second as long as nothing is known of the link.
constexpr double MIN_BUFFERED = 48 << 10, FIRST_BUFFERED = 64 << 10, MAX_BUFFERED = 64 << 20;

int64 nowNs() {
    return SxClock::get().steadyNs();
}

/// What libcurl reads at once of an ordered stream, and has in its hand while the stream is held. So it is a
/// part of what the link carries in a round trip, and small under a rate limit by which a large one would
/// take 20 ms or more.
long streamBuffer(const ZqNetPace& pace, double limit) {
    const bool isSlow = limit > 0. && limit < MAX_BUFFER * 50.;
    const double quarter = std::min(pace.getTripBytes() / 4., 1e9);
    return isSlow ? MIN_BUFFER : std::clamp(static_cast<long>(quarter), MIN_BUFFER, MAX_BUFFER);
}

} // namespace

ZqHttpExchange::ZqHttpExchange(SxPtr<ZqTransfer> transfer_, const Setup& setup_)
    : transfer(std::move(transfer_)),
      setup(setup_),
      request(transfer->getRequest(), setup.settings, setup.place,
              yields() ? streamBuffer(*setup.pace, setup.rateLimit) : MAX_BUFFER),
      begunNs(nowNs()),
      watch(setup.settings, transfer->getRequest().nSlow,
            transfer->getRequest().url.str().starts_with("https:"), begunNs) {
    request.setSinks(&onHeader, &onBody, this);
}

ZqHttpExchange::~ZqHttpExchange() {
    if (isSent) setup.place.pool->remove(request.get());
}

bool ZqHttpExchange::yields() const {
    return ZqNetHolds::yields(transfer->getRequest().kind);
}

void ZqHttpExchange::begin() {
    setup.place.pool->add(request.get());
    isSent = true;
    transfer->setBegun();
}

bool ZqHttpExchange::conclude(int code) {
    if (code == CURLE_OK && !checked) check();
    if (code == CURLE_OK && !failed) {
        transfer->finish();
        return true;
    }
    transfer->fail(failed ? failure : request.failure(code, setup.settings.connectMs));
    return false;
}

size_t ZqHttpExchange::onHeader(char* bytes, size_t size, size_t n, void* user) {
    auto* exchange = static_cast<ZqHttpExchange*>(user);
    const std::string_view line(bytes, size * n);
    // Nothing may be raised through libcurl.
    try {
        exchange->response.takeHeader(line);
    } catch (const std::exception& e) {
        exchange->transfer->failFor(e);
        return 0;
    }
    if (line == "\r\n" || line == "\n") exchange->noteHead();
    return size * n;
}

size_t ZqHttpExchange::onBody(char* bytes, size_t size, size_t n, void* user) {
    auto* exchange = static_cast<ZqHttpExchange*>(user);
    try {
        return exchange->take(bytes, size * n);
    } catch (const std::exception& e) {
        exchange->transfer->failFor(e);
        return 0;
    }
}

/// A whole head is progress, but for one that only says that an answer will come (1xx). A redirect's counts;
/// as only a few of these are followed, that ends.
void ZqHttpExchange::noteHead() {
    if (request.getStatus() < 200) return;
    watch.begin(nowNs());
    transfer->setUsefulNs(watch.getUsefulNs());
}

void ZqHttpExchange::check() {
    response.status = static_cast<int>(request.getStatus());
    response.url = request.getUrl();
    checked = true;
    if (const int64 us = request.getRoundTripUs(); us >= 0) setup.pace->noteRoundTrip(us, nowNs());
    if (yields()) {
        fd = getPool()->socketOf(request.get());
        boundBuffer();
    }
    try {
        transfer->getRequest().check(response);
    } catch (const SxException& e) {
        refuse(e);
    }
    setup.driver->noteAnswer(this);
}

void ZqHttpExchange::refuse(const SxException& why) {
    failure = why;
    failed = true;
}

size_t ZqHttpExchange::take(const char* bytes, size_t n) {
    if (!checked) check();
    if (failed) return 0;
    if (!transfer->hasRoom() || setup.driver->mustHold(*this)) {
        watch.hold(nowNs());
        span = {0, 0, true};
        return CURL_WRITEFUNC_PAUSE;
    }
    const int64 now = nowNs();
    const auto nTaken = static_cast<int64>(n);
    lastTakenNs = now;
    watch.take(nTaken, setup.pace->getBestRate(now), setup.driver->countFlowing(), now);
    transfer->setUsefulNs(watch.getUsefulNs());
    if (kind() == ZqTransfer::Kind::Ordered) {
        setup.pace->measure(&span, now, nTaken);
    } else {
        setup.pace->measureRange(&span, now, nTaken);
    }
    if (ZqNetHolds::yields(kind())) boundBuffer();
    setup.driver->noteTaken(*this, nTaken);
    return transfer->append(bytes, n) ? n : 0;
}

/// Bounds the receive buffer by what the link carries in a round trip at its best rate of late, that of
/// ranges too. What the server sends on while the stream is held arrives before every range, and the system's
/// own buffer takes megabytes. To bound the window alone doesn't help, since it opens again with each segment
/// as long as there is buffer. The system doubles the bytes for its own needs; what it doesn't need of that
/// lets the rate grow.
void ZqHttpExchange::boundBuffer() const {
    const double trip = setup.pace->getTripBytes();
    if (fd < 0) return;
    const int wanted =
        static_cast<int>(std::clamp(trip > 0. ? trip : FIRST_BUFFERED, MIN_BUFFERED, MAX_BUFFERED));
    int granted = 0;
    socklen_t size = sizeof granted;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &size);
    if (granted / 2 >= wanted) return;
    // A program may not ask for that much. So the system decides, whose own way gives more.
    const int unlocked = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_BUF_LOCK, &unlocked, sizeof unlocked);
}

void ZqHttpExchange::goOn() {
    watch.goOn(nowNs());
    transfer->setUsefulNs(watch.getUsefulNs());
    request.goOn();
}

void ZqHttpExchange::look() {
    const int64 now = nowNs();
    const int64 before = watch.getUsefulNs();
    watch.skipHeld(now);
    if (watch.isRecordDue(now)) {
        watch.noteReceived(ZqNetPool::countReceived(getPool()->socketOf(request.get())),
                           setup.pace->getBestRate(now), setup.driver->countFlowing(), now);
    }
    if (watch.getUsefulNs() != before) transfer->setUsefulNs(watch.getUsefulNs());
}
