#include "PendingRequests.h"

PendingRequests::PendingRequests(HeldRequests::FindMissing findMissing, Wake wake_)
    : wake(std::move(wake_)),
      held(std::move(findMissing), &waits),
      shortReads(&waits) {
}

void PendingRequests::wakeAll(const HeldRequests::Tokens& tokens) const {
    for (const uint64 token : tokens)
        wake(token);
}

bool PendingRequests::forget(uint64 token) {
    const bool wasShort = shortReads.forget(token);
    return held.forget(token) || wasShort;
}

void PendingRequests::moveCursor(std::atomic<uint64>* cursor, uint64 to) {
    if (to > cursor->load()) shortReads.revive();
    wakeAll(held.moveCursor(cursor, to));
}

void PendingRequests::failMissing() {
    wakeAll(held.failMissing());
    wakeAll(shortReads.fail());
}

void PendingRequests::close() {
    wakeAll(held.close());
    wakeAll(shortReads.fail());
}
