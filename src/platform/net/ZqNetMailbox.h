#pragma once

#include "SxMutex.h"
#include "SxPtr.h"

#include <atomic>
#include <vector>

class ZqTransfer;

/// What other threads ask of a network thread, and what wakes it from its wait. post(), wake() and end() are
/// safe from any thread, the rest belongs to the network thread.
class ZqNetMailbox {
public:
    enum class What { Add, Drop, Suspect };
    struct Letter {
        SxPtr<ZqTransfer> transfer;
        What what;
    };

    /// Raises where the system gives nothing to wait for.
    ZqNetMailbox();
    ~ZqNetMailbox();
    ZqNetMailbox(const ZqNetMailbox&) = delete;
    ZqNetMailbox& operator=(const ZqNetMailbox&) = delete;

    void post(const SxPtr<ZqTransfer>& transfer, What what);
    void wake() noexcept;
    /// The network is to end.
    void end() noexcept;

    bool isEnding() const noexcept { return ending.load(); }
    /// What was posted since it was last called, in order.
    std::vector<Letter> take();
    /// Can be read from when the thread was woken.
    int getFd() const noexcept { return wakeFd; }
    /// The thread is awake.
    void noteWoken() noexcept;

private:
    const int wakeFd;
    std::atomic<bool> ending{false};
    SxMutex mutex;
    std::vector<Letter> posted SX_GUARDED_BY(mutex);
};
