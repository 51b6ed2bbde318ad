#include "ZqFeedHealth.h"

#include "ZqLog.h"

namespace {

/// A line without its figures.
std::string wordsOf(const SxString& line) {
    std::string words = line.str();
    std::erase_if(words, [](char c) { return c >= '0' && c <= '9'; });
    return words;
}

} // namespace

void ZqFeedHealth::setWaiting(const SxString& text) {
    const SxMutexBlock block(&mutex);
    // What has ended the download stays told, whatever another of the threads still waits for.
    if (ended) return;
    // Its figures may change twice a second, for hours.
    if (!text.isEmpty() && wordsOf(text) != wordsOf(waiting)) zqLogMsg("base", "ZqImageFeed: " + text);
    waiting = text;
}

SxString ZqFeedHealth::getWaiting() const {
    const SxMutexBlock block(&mutex);
    return waiting;
}

ZqFailurePolicy::Verdict ZqFeedHealth::settle(const SxException& why) {
    const ZqFailurePolicy::Verdict verdict = ZqFailurePolicy::decide(why, hasDrive());
    if (verdict == ZqFailurePolicy::End) throw SxException(why);
    setWaiting(ZqFailurePolicy::waitingLine(why));
    return verdict;
}

void ZqFeedHealth::end(const SxException& why) {
    const SxMutexBlock block(&mutex);
    ended = true;
    failure = why;
    waiting = "the download has ended: " + why.toString(SxException::ShowMessage, ": ");
}

bool ZqFeedHealth::hasEnded() const {
    const SxMutexBlock block(&mutex);
    return ended;
}

void ZqFeedHealth::requireAlive() const {
    const SxMutexBlock block(&mutex);
    if (ended) throw failure;
}
