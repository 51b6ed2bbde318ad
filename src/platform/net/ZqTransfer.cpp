#include "ZqTransfer.h"

#include "SxClock.h"
#include "ZqNetLink.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <curl/curl.h>
#include <limits>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqTransfer";
/// Bytes of what next() gives at once, at most; more where libcurl hands on more at once.
constexpr int64 PIECE = 256 << 10;
/// The longest time that a server may ask for; as good as never.
constexpr int64 MAX_RETRY_AFTER_S = 365 * 86'400;
constexpr auto LOOK = std::chrono::milliseconds(20);

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

/// "bytes 0-99/1000", "bytes */1000", "bytes 0-99/*"; whatever else leaves the numbers unknown. The unit may
/// be in any case, and blanks or a "=" stand between.
void parseContentRange(std::string_view text, ZqTransfer::Response* response) {
    constexpr std::string_view UNIT_NAME = "bytes";
    const SxString unit = SxString(text.substr(0, UNIT_NAME.size())).changeCase(false);
    if (!(unit == "bytes")) return;
    text = trim(text.substr(UNIT_NAME.size()));
    if (text.starts_with('=')) text = trim(text.substr(1));
    int64 first = -1, last = -1;
    if (text.starts_with('*')) {
        text.remove_prefix(1);
    } else {
        first = takeNumber(&text);
        text = trim(text);
        if (first < 0 || !text.starts_with('-')) return;
        text = trim(text.substr(1));
        last = takeNumber(&text);
        if (last < first || last == std::numeric_limits<int64>::max()) return;
    }
    text = trim(text);
    if (!text.starts_with('/')) return;
    text = trim(text.substr(1));
    response->total = takeNumber(&text);
    response->first = first;
    response->last = last;
}

} // namespace

void ZqTransfer::Response::takeHeader(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        *this = Response();
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const SxString name = SxString(line.substr(0, colon)).changeCase(false);
    std::string_view value = trim(line.substr(colon + 1));
    if (name == "etag") {
        eTag = SxString(value);
    } else if (name == "last-modified") {
        lastModified = SxString(value);
    } else if (name == "content-encoding") {
        encoding = SxString(value);
    } else if (name == "content-length") {
        length = takeNumber(&value);
    } else if (name == "content-range") {
        parseContentRange(value, this);
    } else if (name == "retry-after") {
        retryAfter = SxString(value);
    } else if (name == "date") {
        date = SxString(value);
    } else if (name == "x-squid-error" || name == "proxy-authenticate") {
        isOfProxy = true;
    } else if (name == "proxy-status") {
        isOfProxy = value.find("error=") != std::string_view::npos;
    }
}

int64 ZqTransfer::Response::retryAfterMs(int64 systemMs) const {
    std::string_view text = retryAfter.str();
    const int64 seconds = takeNumber(&text);
    if (seconds >= 0 && text.empty()) return std::min(seconds, MAX_RETRY_AFTER_S) * 1000;
    const int64 until = curl_getdate(retryAfter.ascii(), nullptr), now = curl_getdate(date.ascii(), nullptr);
    if (until < 0) return -1;
    const int64 nowS = now >= 0 ? now : systemMs / 1000;
    return std::clamp(until - nowS, int64{0}, MAX_RETRY_AFTER_S) * 1000;
}

void ZqTransfer::setWake(std::function<void()> wake_) {
    SxMutexBlock lock(&mutex);
    wake = std::move(wake_);
}

void ZqTransfer::become(Kind other) {
    kind = other;
    SxMutexBlock lock(&mutex);
    if (wake) wake();
}

ZqTransfer::Next ZqTransfer::next(SxArray<char>* piece) {
    SxMutexBlock lock(&mutex);
    if (pieces.empty() && !ended) changed.wait_for(mutex, LOOK);
    if (pieces.empty()) {
        if (failed) throw failure;
        return ended ? Next::Ended : Next::Waiting;
    }
    *piece = std::move(pieces.front());
    pieces.pop_front();
    const bool madeRoom = nBuffered >= request.maxBuffered;
    nBuffered -= piece->getSize();
    if (madeRoom && wake) wake();
    return Next::Taken;
}

bool ZqTransfer::isFinished() const {
    SxMutexBlock lock(&mutex);
    return ended;
}

bool ZqTransfer::isSilent() const {
    SxMutexBlock lock(&mutex);
    return pieces.empty() && !ended;
}

ZqTransfer::State ZqTransfer::getState() const {
    SxMutexBlock lock(&mutex);
    return {nBuffered, ended, failed, failure};
}

void ZqTransfer::awaitMore() {
    SxMutexBlock lock(&mutex);
    if (!ended) changed.wait_for(mutex, LOOK);
}

void ZqTransfer::setBegun() {
    const int64 now = SxClock::get().steadyNs();
    usefulNs.store(now);
    movedNs.store(now);
}

bool ZqTransfer::hasRoom() const {
    SxMutexBlock lock(&mutex);
    return nBuffered < request.maxBuffered;
}

bool ZqTransfer::append(const char* bytes, size_t n) {
    movedNs.store(SxClock::get().steadyNs());
    if (!request.part) {
        store(bytes, n);
        return true;
    }
    Part& part = *request.part;
    const size_t nSkipped = std::min(n, static_cast<size_t>(part.nSkip));
    part.nSkip -= static_cast<int64>(nSkipped);
    n -= nSkipped;
    const size_t nTaken = std::min(n, static_cast<size_t>(part.nTake));
    part.nTake -= static_cast<int64>(nTaken);
    if (nTaken > 0) store(bytes + nSkipped, nTaken);
    if (nTaken == n) return true;
    if (part.isMore) {
        finish();
    } else {
        fail(SxException(ZqNetLink::WRONG, "The server sends more than it was asked for", UNIT, __LINE__));
    }
    return false;
}

void ZqTransfer::store(const char* bytes, size_t n) {
    const auto nNew = static_cast<int64>(n);
    {
        SxMutexBlock lock(&mutex);
        if (pieces.empty() || pieces.back().getSize() + nNew > PIECE) {
            pieces.emplace_back();
            pieces.back().reserve(std::max(PIECE, nNew));
        }
        SxArray<char>& piece = pieces.back();
        const int64 old = piece.getSize();
        piece.resize(old + nNew, true);
        std::memcpy(piece.data() + old, bytes, n);
        nBuffered += nNew;
    }
    changed.notify_one();
}

void ZqTransfer::finish() {
    {
        SxMutexBlock lock(&mutex);
        ended = true;
    }
    changed.notify_one();
}

void ZqTransfer::fail(const SxException& e) noexcept {
    {
        SxMutexBlock lock(&mutex);
        if (ended) return;
        failed = ended = true;
        try {
            failure = e;
        } catch (const std::exception&) {
            failure = SxException();
        }
    }
    changed.notify_one();
}

void ZqTransfer::failFor(const std::exception& e) noexcept {
    SxException failure_;
    try {
        failure_ = SxException(ZqNetLink::BROKEN, e.what(), UNIT, __LINE__);
    } catch (const std::exception&) {
        // An end without a word is one, too.
        failure_ = SxException();
    }
    fail(failure_);
}
