#pragma once

#include "SxMutex.h"
#include "ZqNetGate.h"
#include "ZqNetLoop.h"
#include "ZqNetPace.h"
#include "ZqNetPool.h"
#include "ZqNetProgress.h"

#include <array>
#include <deque>
#include <list>
#include <unordered_map>
#include <vector>

struct curl_slist;

/// What a link's thread does. Operations belong to it, but for those that say so.
class ZqNetLoop::Engine {
public:
    explicit Engine(const ZqNetSettings& settings_);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // From any thread.
    enum class Post { Add, Drop, Suspect };
    void post(const SxPtr<ZqTransfer>& transfer, Post what);
    void wake() noexcept;
    void end() noexcept;

    void run();

    ZqNetPace pace;
    std::atomic<double> rateLimit{0.};
    std::atomic<int64> hastenedUntilNs{0}; ///< somebody waits for the ordered streams until then
    std::atomic<int64> refusedNs{0};       ///< when the server said last that it is asked too much
    std::atomic<int64> pausedUntilNs{0};   ///< it is asked for nothing until then
    std::atomic<uint64> nBytes{0}, nOnDemandBytes{0}, nRequests{0};

private:
    struct CloseEasy {
        void operator()(CURL* easy) const;
    };
    struct FreeList {
        void operator()(curl_slist* list) const;
    };
    static constexpr size_t ERROR_SIZE = 256; ///< what libcurl writes into
    /// What has come of a TLS record that isn't complete, and so not of the body yet.
    struct Record {
        bool isEncrypted = false;
        int64 lookedNs = 0;
        int64 nSeen = -1;    ///< bytes of the connection at the last look
        int64 nCredited = 0; ///< those since the last byte of the body that counted
    };
    struct Active {
        Engine* engine = nullptr;
        ZqNetPool* pool = nullptr;
        SxPtr<ZqTransfer> transfer;
        std::unique_ptr<CURL, CloseEasy> easy;
        std::unique_ptr<curl_slist, FreeList> headers;
        std::array<char, ERROR_SIZE> errorText{};
        ZqTransfer::Response response;
        bool checked = false;
        bool held = false;
        bool failed = false;
        SxException failure;
        int64 begunNs = 0;
        ZqNetProgress progress{{}};
        int64 heldNs = 0;  ///< up to when the time that it was held is left out of that
        int64 limitNs = 0; ///< without progress, until it is given up
        int64 lastTakenNs = 0;
        int fd = -1; ///< of one that yields and has begun
        Record record;
        ZqNetPace::Span span;

        ZqTransfer::Kind kind() const { return transfer->getKind(); }
        /// Whether it is held for others, or was when it was made.
        bool yields() const { return Engine::yields(transfer->getRequest().kind); }
    };
    struct Queued {
        SxPtr<ZqTransfer> transfer;
        int64 sinceNs = 0;
    };
    /// The connections of each version of HTTP.
    enum Version { Http1, Http2, N_VERSIONS };

    static bool yields(ZqTransfer::Kind kind);
    /// A request that hasn't made progress for so long no longer holds others.
    static constexpr int64 PRIORITY_NS = 1'000'000'000;

    // ZqNetLoop.cpp
    void work();
    void endAll();
    void waitForWork();
    void takePosted();
    std::vector<ZqNetGate::Request> listQueued() const;
    void admit();
    int64 countUnderWay() const;
    void drop(const SxPtr<ZqTransfer>& transfer);
    void remove(CURL* easy);
    void readMessages(ZqNetPool* pool);
    void conclude(Active* active, int code);
    void beginQuiet();
    bool isStalled(const Active& active, int64 nowNs) const;
    void failStalled();
    void noteHeld(Active* active);
    void noteProgress(Active* active, int64 n);
    void noteRecord(Active* active);
    void suspect(const SxPtr<ZqTransfer>& transfer);
    void renewPools();
    void releaseHeld();
    bool mustHold(const Active& active) const;
    bool isOnTheWire(ZqTransfer::Kind kind) const;
    int64 timeToWait() const;

    // ZqNetLoopRequest.cpp
    void begin(const SxPtr<ZqTransfer>& transfer);
    void tryBegin(const SxPtr<ZqTransfer>& transfer);
    ZqNetPool* poolFor(const ZqTransfer::Request& request);
    void setOptions(Active* active);
    long streamBuffer() const;
    void noteHead(Active* active);
    static size_t onHeader(char* bytes, size_t size, size_t n, void* user);
    static size_t onBody(char* bytes, size_t size, size_t n, void* user);
    void check(Active* active);
    void noteVersion(Active* active);
    void noteStatus(Active* active);
    size_t take(Active* active, const char* bytes, size_t n);
    void boundBuffer(const Active& active) const;
    void noteRoundTrip(CURL* easy);

    const ZqNetSettings settings;
    int wakeFd = -1;
    std::atomic<bool> ending{false};
    std::list<std::unique_ptr<ZqNetPool>> pools;
    std::array<ZqNetPool*, N_VERSIONS> current{}; ///< for new requests; null until there is one
    std::unordered_map<CURL*, std::unique_ptr<Active>> actives;
    std::deque<Queued> queued; ///< not begun yet
    std::vector<pollfd> waited;
    ZqNetGate gate;
    bool speaksHttp1 = false; ///< the last answer to a request that may be beside others
    bool onlyHttp1 = false;   ///< a host has given both versions where it chose
    int64 quietUntilNs = 0;   ///< the ordered streams are held until then for the next on-demand request
    int64 quietSinceNs = 0;   ///< when that began
    int64 quietBudgetNs;
    int64 limitedUntilNs = 0; ///< when the ordered streams may take bytes again

    SxMutex mutex;
    std::vector<std::pair<SxPtr<ZqTransfer>, Post>> posted SX_GUARDED_BY(mutex);
};
