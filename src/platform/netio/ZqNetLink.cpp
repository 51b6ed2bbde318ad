#include "ZqNetLink.h"

#include "SxClock.h"
#include "SxTime.h"
#include "ZqNetLoop.h"

namespace {
constexpr const char* UNIT = "src/platform/netio/ZqNetLink";
}

ZqNetLink::ZqNetLink(const ZqNetSettings& settings_)
    : settings(settings_),
      loop(std::make_unique<ZqNetLoop>(settings_)) {
    loop->start();
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

SxString ZqNetLink::getStatus() const {
    SxMutexBlock lock(&waitingMutex);
    return waiting.empty() ? SxString() : waiting.back().text;
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

void ZqNetLink::setWaiting(const void* who, const SxString& text) {
    if (!text.isEmpty()) nRetries.fetch_add(1);
    SxMutexBlock lock(&waitingMutex);
    waiting.remove_if([who](const Waiting& entry) { return entry.who == who; });
    if (!text.isEmpty()) waiting.push_back({who, text});
}
