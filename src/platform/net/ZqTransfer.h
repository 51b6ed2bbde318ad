#pragma once

#include "SxArray.h"
#include "SxException.h"
#include "SxMutex.h"
#include "SxPtr.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <string_view>

/// One HTTP request under way: what the network thread fills and a consumer takes from. The consumer's
/// operations belong to one thread at a time.
class ZqTransfer {
public:
    enum class Kind {
        Small,    ///< beside everything else
        OnDemand, ///< goes first: those below are held for it
        Ahead,    ///< held while an on-demand request is on the wire; under the rate limit
        Ordered   ///< held while one of both is on the wire, and for a while after one on demand; rate limit
    };

    /// What a response says before its body; -1 where it doesn't say.
    struct Response {
        int status = 0;
        SxString url; ///< where redirects have led
        SxString eTag, lastModified, encoding;
        int64 first = -1, last = -1, total = -1; ///< Content-Range, inclusive
        int64 length = -1;                       ///< Content-Length
        bool isOfProxy = false;                  ///< a proxy says that the answer is its own
        SxString retryAfter, date;               ///< as they stand there

        /// One line of the response's head. A status line begins a response anew, as after a redirect.
        void takeHeader(std::string_view line);
        /// Milliseconds that the server asks to wait (Retry-After), by its own clock where it tells it, else
        /// by `systemMs`, the time of the system; -1 where it doesn't ask.
        int64 retryAfterMs(int64 systemMs) const;
    };
    /// Called on the network thread before the first body byte; raises where the response is of no use.
    using Check = std::function<void(const Response&)>;

    /// What the consumer gets of a body, as the check says: `nTake` bytes after the first `nSkip`. Where more
    /// comes after these it is cut off with `isMore`, and the answer is wrong without. Belongs to the network
    /// thread.
    struct Part {
        int64 nSkip = 0, nTake = 0;
        bool isMore = false;
    };

    /// Tag of a failure: the request may be made again at once, since another server may answer then.
    static constexpr const char* AT_ONCE = "AtOnce";
    /// Tag of a failure: bytes came, but too few to be of use.
    static constexpr const char* SLOW = "Slow";

    struct Request {
        Kind kind = Kind::Small;
        SxString url;
        SxArray<SxString> headers;
        SxString range; ///< as in "0-99"; empty for the whole file
        int64 maxBuffered = 0;
        bool fresh = false;      ///< over a connection of its own, not one that has brought something wrong
        bool isRepeated = false; ///< the one before has failed AT_ONCE
        int64 nSlow = 0;         ///< those before that were given up as SLOW, in a row
        Check check;
        SxPtr<Part> part; ///< null for all of the body
    };

    explicit ZqTransfer(Request request_) : request(std::move(request_)), kind(request.kind) {}

    const Request& getRequest() const noexcept { return request; }
    Kind getKind() const noexcept { return kind; }
    /// Gives it another place among the others, from any thread; its connection stays that of the request.
    void become(Kind other);

    // For the consumer.
    /// The next bytes; waits up to 20 ms for them. `Waiting` where none have come in that time. Raises the
    /// transfer's failure, after the bytes that came before it.
    enum class Next { Taken, Waiting, Ended };
    Next next(SxArray<char>* piece);
    bool isFinished() const;
    /// Whether next() would wait.
    bool isSilent() const;
    /// What there is of it.
    struct State {
        int64 nBuffered = 0; ///< bytes that next() gives
        bool ended = false;
        bool failed = false; ///< after these bytes, with `failure`
        SxException failure;
    };
    State getState() const;
    /// Waits up to 20 ms for more bytes, or the end.
    void awaitMore();
    /// When the server was asked or bytes came last, on the steady clock; 0 before both.
    int64 getMovedNs() const noexcept { return movedNs.load(); }
    /// Since when too few bytes have come to be of use (ZqNetProgress), on the steady clock; 0 before the
    /// server was asked.
    int64 getUsefulNs() const noexcept { return usefulNs.load(); }

    // For the network thread.
    /// Called when a consumer has made room again.
    void setWake(std::function<void()> wake_);
    void setBegun();
    void setUsefulNs(int64 ns) { usefulNs.store(ns); }
    bool hasRoom() const;
    /// False where that was more than is wanted: it has ended then.
    bool append(const char* bytes, size_t n);
    void finish();
    /// Ends it also where there is no memory to say why.
    void fail(const SxException& e) noexcept;
    /// For what isn't raised as a failure of the request: another try may go well.
    void failFor(const std::exception& e) noexcept;

private:
    void store(const char* bytes, size_t n);

    const Request request;
    std::atomic<Kind> kind;
    std::atomic<int64> movedNs{0}, usefulNs{0};

    mutable SxMutex mutex;
    std::function<void()> wake SX_GUARDED_BY(mutex);
    std::condition_variable_any changed;
    std::deque<SxArray<char>> pieces SX_GUARDED_BY(mutex);
    int64 nBuffered SX_GUARDED_BY(mutex) = 0;
    bool ended SX_GUARDED_BY(mutex) = false;
    bool failed SX_GUARDED_BY(mutex) = false;
    SxException failure SX_GUARDED_BY(mutex);
};
