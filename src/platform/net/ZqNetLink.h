#pragma once

#include "SxArray.h"
#include "SxException.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxString.h"
#include "ZqNetAccess.h"
#include "ZqNetFigures.h"

#include <atomic>
#include <functional>
#include <list>
#include <memory>

class ZqNetLoop;
class ZqTransfer;

/// Limits of all requests of a link. Times are in milliseconds; a number of tries of 0 means no limit.
///
/// Tries end where waiting doesn't help. A range is given up after a few of them, and whoever needs it asks
/// again in his own time. An ordered stream waits without end for a server that can't be reached, but it
/// gives up where answers come and break off, again and again, without a byte.
struct ZqNetSettings {
    int64 connectMs = 10'000;   ///< until a connection stands
    int64 stallMs = 10'000;     ///< without progress, until a request is given up and made again
    int64 firstBackOffMs = 100; ///< before the second try; doubled each time
    int64 maxBackOffMs = 5'000;
    int64 nRangeTries = 5; ///< of a range or small file
    /// Without progress, until one that somebody waits for is asked for a second time, over another
    /// connection. A router that forgets its connections then costs this time, not `stallMs`.
    int64 secondMs = 3'000;
    int64 busyMs = 60'000;   ///< in which a server that says it is asked too much takes none of these tries
    int64 nStreamTries = 0;  ///< of the ordered stream, while the server can't be reached
    int64 nBrokenTries = 10; ///< without a byte gained, where the server answers and breaks off
    int64 segmentSize = 4 << 20; ///< bytes of one request of an ordered stream, where the link is slow
    int64 maxBuffered = 4 << 20; ///< bytes that an ordered stream holds for a slow consumer
    ZqNetAccess access;          ///< what it leaves open the environment says
    SxString trustFolder;        ///< authorities for HTTPS, beside those of `access`
};

/// Asked every 20 ms by whatever blocks; true ends the wait with an SxException of the tag "Stopped".
using ZqStopTest = std::function<bool()>;

/// The network as one job uses it: one thread drives all requests over libcurl, and these share connections,
/// priorities and one rate limit. ZqRemoteFile is one file on it, ZqRemoteImage an image of which ranges and
/// one ordered stream are taken. All operations are safe from any thread; an object that uses the link keeps
/// it alive.
///
/// Ranges go first: while a request for one is on the wire, and the server answers it, the ordered streams
/// are held. What holds them is the request, never the mere fact that a reader waits. The stretch at the
/// download's edge is left to the stream, so a reader of it would wait for a stream that waits for him.
class ZqNetLink {
public:
    /// Tags of failures, beside SxException::STOPPED.
    static constexpr const char* NOT_FOUND = "NotFound"; ///< the server hasn't got it
    static constexpr const char* REFUSED =
        "Refused"; ///< the server, or something on the way, doesn't give it
    // These are REFUSED, too. The certificate of who answers is of no authority that is trusted here, or of
    // another host, or not of this time.
    static constexpr const char* UNTRUSTED = "Untrusted";
    static constexpr const char* MISNAMED = "Misnamed";
    static constexpr const char* MISDATED = "Misdated";
    static constexpr const char* UNAUTHORIZED = "Unauthorized"; ///< REFUSED, too: it wants to know who asks
    static constexpr const char* WRONG = "WrongAnswer";       ///< an answer that isn't one to what was asked
    static constexpr const char* UNREACHABLE = "Unreachable"; ///< no answer, or none for now; tried again
    static constexpr const char* BROKEN = "BrokenTransfer";   ///< an answer that broke off; tried again
    static constexpr const char* CHANGED = "ChangedOnServer"; ///< not the file that was begun with
    /// Whether the server, or the way to it, was away: what was asked for may come later.
    static bool isAway(const SxException& why) { return why.hasTag(UNREACHABLE) || why.hasTag(BROKEN); }

    using Figures = ZqNetFigures;

    explicit ZqNetLink(const ZqNetSettings& settings_ = {});
    /// With the limits that are usual.
    explicit ZqNetLink(const ZqNetAccess& access);
    ~ZqNetLink();
    ZqNetLink(const ZqNetLink&) = delete;
    ZqNetLink& operator=(const ZqNetLink&) = delete;

    const ZqNetSettings& getSettings() const noexcept { return settings; }
    /// Bounds the ordered streams, and what is fetched ahead, all together, in bytes of the wire a second; 0
    /// lifts the bound.
    void setRateLimit(double bytesPerSecond);
    /// Somebody waits for what an ordered stream brings next. For 100 ms the streams are held for requests on
    /// demand only: not for a while after the answer to one, and not for what is fetched ahead, which is held
    /// itself. Whoever waits calls it again and again.
    void hastenStreams();
    /// While `on`, ordered streams are held only as long as an answer to a request on demand comes, and go on
    /// before and after it: what they bring is what whoever waits most likely needs next, so the link mustn't
    /// be idle for the round trip of a request.
    void shareWithStreams(bool on);
    /// Ends every wait and request of the link within 20 ms, those to come at once, each with the tag
    /// "Stopped".
    void cancel() noexcept { cancelled.store(true); }
    bool isCancelled() const noexcept { return cancelled.load(); }
    /// What requests wait for, as one line such as "waiting for the server: Connection refused"; empty while
    /// all goes well.
    SxString getStatus() const;
    /// How long the server, or the way to it, has been away: since the last byte came, or since bytes were
    /// wanted where that is later. And how often it was tried in that time by the request that was most
    /// eager; zeros while it isn't.
    ZqNetOutage getOutage() const;
    Figures getFigures() const;

    // For the classes that make requests.
    void add(const SxPtr<ZqTransfer>& transfer);
    void drop(const SxPtr<ZqTransfer>& transfer);
    /// `transfer` has been silent: later requests take none of the connections that there are.
    void suspect(const SxPtr<ZqTransfer>& transfer);
    /// Whether a request that is slow, not silent, may get a second one beside it. Where the link is slow for
    /// all that is in vain, and costs the others; so after one such there is none for ten times `secondMs`,
    /// unless noteBetter() says that it was worth it.
    bool mayCompare();
    void noteBetter() { nextCompareNs.store(0); }
    /// When the server said last that it is asked too much (429, 503), on the steady clock; 0 never.
    int64 getRefusedNs() const;
    /// Raises with the tag "Stopped" where the link or `stop` says so.
    void checkStop(const ZqStopTest& stop) const;
    /// Sleeps for `ms`, or until `until` says so, or until a stop, which it raises.
    void sleep(int64 ms, const ZqStopTest& stop, const ZqStopTest& until = nullptr) const;
    /// `text` is what `who` waits for.
    void setWaiting(const void* who, const SxString& text);
    /// It no longer waits.
    void endWaiting(const void* who);
    /// The server is away: `nTries` were made in vain by one that has waited for bytes since `sinceNs` of the
    /// steady clock.
    void noteAway(int64 nTries, int64 sinceNs);

private:
    struct Waiting {
        const void* who;
        SxString text;
    };

    const ZqNetSettings settings;
    std::atomic<bool> cancelled{false};
    std::unique_ptr<ZqNetLoop> loop;
    mutable SxMutex waitingMutex;
    std::list<Waiting> waiting SX_GUARDED_BY(waitingMutex);
    struct Outage {
        int64 sinceNs = 0, nTries = 0;
        uint64 nBytes = 0; ///< received before; any more of them end it
    } outage SX_GUARDED_BY(waitingMutex);
    std::atomic<uint64> nRetries{0};
    std::atomic<int64> nextCompareNs{0};
};
