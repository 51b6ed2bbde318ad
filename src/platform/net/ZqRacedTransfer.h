#pragma once

#include "ZqRangeAnswer.h"
#include "ZqTransfer.h"

#include <utility>

class ZqNetLink;

/// One request of a reader under way, and a second one beside it where the first may be dead.
///
/// Where somebody waits, and nothing of use has come for `secondMs`, the same request is made over a second
/// connection, also in the middle of an answer; never a third beside these. The first that brings 4 KiB, or
/// all, is taken, and nothing of the other: both begin at the same byte. For one thread, but for become().
class ZqRacedTransfer {
public:
    /// A request for what is left, and what becomes of its answer.
    struct Made {
        SxPtr<ZqTransfer> transfer;
        SxPtr<ZqRangeAnswer> answer;
    };
    using Make = std::function<Made()>;

    /// `make_` is called for each request, on the reader's thread. `kind` tells the connection that it takes.
    ZqRacedTransfer(const SxPtr<ZqNetLink>& link_, ZqTransfer::Kind kind_, Make make_);
    ~ZqRacedTransfer() { drop(); }
    ZqRacedTransfer(const ZqRacedTransfer&) = delete;
    ZqRacedTransfer& operator=(const ZqRacedTransfer&) = delete;

    /// Makes the request, where none is under way.
    void begin();
    bool isUnderWay() const { return static_cast<bool>(transfer); }
    /// Turns it into one of another kind, also those that begin later. Safe beside the reader's own thread.
    void become(ZqTransfer::Kind other);
    /// The next bytes of the one that is taken, or its end. Raises its failure.
    ZqTransfer::Next next(SxArray<char>* piece, const std::function<bool()>& stop);
    /// Whether the answer is another one than at the last call.
    bool takeFresh() { return std::exchange(isFresh, false); }
    /// The answer that is taken, also after its end.
    const ZqRangeAnswer& getAnswer() const { return *answer; }
    /// The address that was asked, while it is under way.
    const SxString& getUrl() const { return transfer->getRequest().url; }
    /// When that request was made, on the steady clock.
    int64 getAskedNs() const noexcept { return askedNs; }
    /// Bytes that have come and that next() would give.
    uint64 countBuffered() const;
    /// It has come to its end.
    void end() { set(nullptr); }
    /// Ends all that is under way.
    void drop();

private:
    void set(const SxPtr<ZqTransfer>& next);
    bool isOverdue();
    void decide();
    void beginSecond();
    void takeSecond();
    void dropSecond();

    const SxPtr<ZqNetLink> link;
    const Make make;
    const ZqTransfer::Kind requested;
    SxMutex mutex; ///< also over changes of the first transfer by the reader's thread, for become()
    ZqTransfer::Kind kind SX_GUARDED_BY(mutex);
    int64 hastenedNs SX_GUARDED_BY(mutex) = 0; ///< since when somebody waits, if not from the begin
    SxPtr<ZqTransfer> transfer;
    SxPtr<ZqRangeAnswer> answer; ///< to it
    bool isFresh = false;        ///< nothing of it was taken yet
    int64 askedNs = 0;
    /// The same request over another connection, beside one that has been silent or slow.
    SxPtr<ZqTransfer> second;
    SxPtr<ZqRangeAnswer> secondAnswer;
    bool hadSecond = false; ///< the request under way
};
