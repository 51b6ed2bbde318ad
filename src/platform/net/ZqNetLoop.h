#pragma once

#include "SxSystemThread.h"
#include "ZqExchangeDriver.h"
#include "ZqHttpExchange.h"
#include "ZqNetHolds.h"
#include "ZqNetLink.h"
#include "ZqNetMailbox.h"
#include "ZqNetQueue.h"

#include <unordered_map>

/// The thread that drives all requests of a link over libcurl's multi interface. Its operations are safe from
/// any thread; start() and end() belong to the owner.
class ZqNetLoop : public SxSystemThread, private ZqExchangeDriver {
public:
    explicit ZqNetLoop(const ZqNetSettings& settings_);
    ~ZqNetLoop() override;

    void add(const SxPtr<ZqTransfer>& transfer);
    /// The transfer is no longer of use.
    void drop(const SxPtr<ZqTransfer>& transfer);
    /// See ZqNetLink.
    void suspect(const SxPtr<ZqTransfer>& transfer);
    ZqNetQueue::Refusal getRefusal() const { return queue.getRefusal(); }
    void setRateLimit(double bytesPerSecond);
    void hastenStreams();
    void shareWithStreams(bool on) { holds.share(on); }
    ZqNetLink::Figures getFigures() const;
    /// When bytes of a body came last, on the steady clock; 0 for never.
    int64 getTakenNs() const { return takenNs; }
    /// Ends the thread; whatever was under way fails.
    void end();

    /// Makes libcurl ready for the process, once.
    static void startLibrary();

protected:
    void main() override;

private:
    // All of these are the thread's.
    void noteAnswer(ZqHttpExchange* exchange) override;
    bool mustHold(const ZqHttpExchange& exchange) override;
    void noteTaken(const ZqHttpExchange& exchange, int64 n) override;
    int64 countFlowing() const override;
    void heedStatus(ZqHttpExchange* exchange);
    bool isOnTheWire(ZqTransfer::Kind kind, bool hasBegun) const;

    void work();
    void endAll();
    void waitForWork();
    int64 timeToWait() const;
    void takePosted();
    void dropNow(const SxPtr<ZqTransfer>& transfer);
    void admit();
    void begin(const SxPtr<ZqTransfer>& transfer);
    int64 countUnderWay() const;
    void conclude(CURL* easy, int code);
    void failStalled();
    void releaseHeld();
    ZqHttpExchange* find(const SxPtr<ZqTransfer>& transfer) const;

    const ZqNetSettings settings;
    ZqNetMailbox mailbox;
    ZqNetQueue queue;
    ZqNetHolds holds;
    ZqNetPace pace;
    ZqNetPools pools;
    std::unordered_map<CURL*, std::unique_ptr<ZqHttpExchange>> exchanges; ///< under way
    std::vector<pollfd> waited;
    std::atomic<uint64> nBytes{0}, nOnDemandBytes{0}, nRequests{0};
    std::atomic<int64> takenNs{0};
};
