#pragma once

#include "SxPtr.h"
#include "ZqCurlRequest.h"
#include "ZqNetPace.h"
#include "ZqNetPools.h"
#include "ZqStallWatch.h"
#include "ZqTransfer.h"

class ZqExchangeDriver;
struct ZqNetSettings;

/// A request that was sent and its answer, over libcurl: checks the head, hands the body to its transfer, is
/// held and goes on, and says whether it stands still. For the network thread.
class ZqHttpExchange {
public:
    struct Setup {
        const ZqNetSettings& settings;
        ZqNetPace* pace; ///< of the link, to which this adds what it measures
        ZqNetPools::Place place;
        double rateLimit; ///< of what yields, bytes per second; 0 for none
        ZqExchangeDriver* driver;
    };

    /// What the setup has must outlive it. Raises where there is no memory.
    ZqHttpExchange(SxPtr<ZqTransfer> transfer_, const Setup& setup_);
    /// Takes it off its connection.
    ~ZqHttpExchange();
    ZqHttpExchange(const ZqHttpExchange&) = delete;
    ZqHttpExchange& operator=(const ZqHttpExchange&) = delete;

    /// Sends the request.
    void begin();
    /// It has ended, with libcurl's result: finishes its transfer, or fails it. Gives whether it went well.
    bool conclude(int code);

    CURL* getEasy() const { return request.get(); }
    const SxPtr<ZqTransfer>& getTransfer() const { return transfer; }
    ZqNetPool* getPool() const { return setup.place.pool; }
    ZqTransfer::Kind kind() const { return transfer->getKind(); }
    /// Whether it is held for others, or was when it was made.
    bool yields() const;
    int64 getBegunNs() const { return begunNs; }

    // From ZqExchangeDriver::noteAnswer() on.
    const ZqTransfer::Response& getResponse() const { return response; }
    bool isHttp1() const { return request.isHttp1(); }
    /// Why the answer is of no use; null where it is.
    const SxException* getRefusal() const { return failed ? &failure : nullptr; }
    void refuse(const SxException& why);

    /// Goes on with one that was held.
    void goOn();
    /// When it last took bytes of its body.
    int64 getTakenNs() const { return lastTakenNs; }
    /// To be called now and then, before its watch is asked.
    void look();
    const ZqStallWatch& getWatch() const { return watch; }

private:
    static size_t onHeader(char* bytes, size_t size, size_t n, void* user);
    static size_t onBody(char* bytes, size_t size, size_t n, void* user);
    void noteHead();
    void check();
    size_t take(const char* bytes, size_t n);
    void boundBuffer() const;

    const SxPtr<ZqTransfer> transfer;
    const Setup setup;
    ZqCurlRequest request;
    bool isSent = false;
    ZqTransfer::Response response;
    bool checked = false;
    bool failed = false;
    SxException failure;
    const int64 begunNs;
    ZqStallWatch watch;
    int64 lastTakenNs = 0;
    int fd = -1; ///< of one that yields and has begun
    ZqNetPace::Span span;
};
