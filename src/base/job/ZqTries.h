#pragma once

#include "SxException.h"
#include "SxList.h"

/// Keeps what goes wrong while several things are tried, so that a failure of one doesn't keep the rest from
/// being tried. One thread.
class ZqTries {
public:
    /// Gives whether `attempt` succeeded.
    template<class Attempt>
    bool run(Attempt&& attempt) {
        try {
            attempt();
            return true;
        } catch (const SxException& e) {
            failures.append(e);
            return false;
        }
    }
    bool haveFailed() const { return !failures.isEmpty(); }
    /// Raises the failure, or one with the texts of all; nothing where there was none.
    void raise() const;

private:
    SxList<SxException> failures;
};
