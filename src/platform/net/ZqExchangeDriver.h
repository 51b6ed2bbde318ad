#pragma once

#include "SxTypes.h"

class ZqHttpExchange;

/// What an exchange asks of the one that drives it, which knows the others. On the network thread.
class ZqExchangeDriver {
public:
    virtual ~ZqExchangeDriver() = default;
    /// The head of the answer is there and was checked; it may be refused still.
    virtual void noteAnswer(ZqHttpExchange* exchange) = 0;
    /// Whether it is to be held for others.
    virtual bool mustHold(const ZqHttpExchange& exchange) = 0;
    /// So many bytes of the body have come.
    virtual void noteTaken(const ZqHttpExchange& exchange, int64 n) = 0;
    /// Exchanges that aren't held, this one among them.
    virtual int64 countFlowing() const = 0;
};
