#pragma once

#include "SxSystemThread.h"
#include "ZqNetLink.h"
#include "ZqTransfer.h"

/// The thread that drives all requests of a link over libcurl's multi interface. Its operations are safe from
/// any thread; start() and end() belong to the owner.
class ZqNetLoop : public SxSystemThread {
public:
    explicit ZqNetLoop(const ZqNetSettings& settings);
    ~ZqNetLoop() override;

    void add(const SxPtr<ZqTransfer>& transfer);
    /// The transfer is no longer of use.
    void drop(const SxPtr<ZqTransfer>& transfer);
    /// See ZqNetLink.
    void suspect(const SxPtr<ZqTransfer>& transfer);
    /// What a server has said that is asked too much, on the steady clock: when last, and up to when it is
    /// left alone; 0 never.
    struct Refusal {
        int64 lastNs = 0, untilNs = 0;
    };
    Refusal getRefusal() const;
    void setRateLimit(double bytesPerSecond);
    void hastenStreams();
    ZqNetLink::Figures getFigures() const;
    /// Ends the thread; whatever was under way fails.
    void end();

    /// Makes libcurl ready for the process, once.
    static void startLibrary();

protected:
    void main() override;

private:
    class Engine;
    std::unique_ptr<Engine> engine;
};
