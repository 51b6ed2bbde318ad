#pragma once

#include "SxMutex.h"
#include "ZqNetLink.h"
#include "ZqSeekTable.h"

#include <condition_variable>

/// Which of the two forms of an image is taken from its server, the packed or the plain one, and the table of
/// the packed one. It makes no requests: whoever makes them tells what came of them. All operations are safe
/// from any thread, but tables are taken by one. None calls back with
/// the lock held, but for a `stop` to be asked.
///
/// No form is waited for while the other may be there. A packed form whose server doesn't answer (5xx,
/// silence) is left by whoever asked it, and the plain one taken. Where that doesn't come either both have
/// turns. A plain form that isn't there is no answer as long as the packed one may come.
///
/// What a table tells of the image is never dropped: its checksums hold as well when the packed form is
/// refused or gone, and for the same image packed anew. A table with other ones is of something else and is
/// refused, also where no digest of `img.zqf` is known. So where a server has got other files under the old
/// records nothing of them is taken. A table whose file doesn't say of which image it is gives way to one
/// whose file does; as it has vouched for nothing, all that is kept is compared again.
class ZqFormChoice {
public:
    using Table = SxPtr<ZqSeekTable>;
    /// `Aside`: not now, since what came of it was of no use; its table is fetched again after a while.
    enum class Packed { Unknown, Offered, Aside, Absent };

    /// `packedUrl_` is named in log lines. `onOther_` is called once a table has taken the place of one with
    /// other checksums.
    ZqFormChoice(const SxPtr<ZqNetLink>& link_, const SxString& packedUrl_, std::function<void()> onOther_);

    // For who fetches the table.
    /// The table is asked for from now on. False where it is already.
    bool begin();
    /// It isn't, after all.
    void abandon();
    /// A look at the table begins, as is wanted.
    void beginLook();
    /// A table has come, whose packed form is used from now on; of which image it may be was looked at, and
    /// `isStated_` where its file says so itself. False where it has other checksums than the one that is
    /// known, and is of something else: nothing changes.
    bool take(const Table& other, bool isStated_);
    /// The table has to wait for its server.
    void noteWaits(const SxException& why);
    /// Waits until the packed form is no longer offered, or `stop` says so, and gives its state.
    Packed awaitUseless(const ZqStopTest& stop);
    /// Waits until forgetAbsence(), at most `ms`. False where `stop` says so.
    bool awaitWanted(int64 ms, const ZqStopTest& stop);
    /// Lets the two above look at their `stop`.
    void wake();

    // What has come of a form.
    /// The packed form is of no use, for now: all goes on with the plain one.
    void leave(const SxException& why);
    /// Leaves it where the failure says that the plain form may do better; false where it may not.
    bool leaveFor(const SxException& e);
    /// It is of another image, and left aside.
    void refuse();
    /// The server says that there is no packed form. False where that may pass, so that it is left aside.
    bool noteAbsent(const SxException& why);
    /// A packed form that the server hadn't got may be there by now: its table is asked for again.
    void forgetAbsence();
    /// The plain form was of no use: where the packed one was left since its server doesn't answer, and the
    /// plain one has brought nothing since, that is offered again, so that both have turns. False where it
    /// isn't. Where the plain form isn't there, `*why` becomes what the packed one waits for.
    bool returnToPacked(SxException* why);
    /// Bytes of the plain form have come.
    void notePlainCame();

    Packed getState() const;
    /// The table of the packed form that is in use; null where none is, or not yet.
    Table getTable() const;
    /// The table whose checksums the image's bytes have, in whichever form they come; null where none is
    /// known.
    Table getKnownTable() const;
    /// Whether there are checksums, or may still be.
    bool mayCheck() const;
    /// Whether awaitTable() gave null though one may still come; gives what its last request has met.
    bool isDelayed(SxException* why) const;
    /// The table that is known, once it has come or isn't waited for. Unlike a stretch on demand, who asks
    /// for it has the time that it takes.
    Table awaitTable(const ZqStopTest& stop);
    /// The same, for a stretch of the plain form that it would tell of, and not for long.
    Table awaitSoon(const ZqStopTest& stop);
    /// Whether a frame can be taken from the packed form, of which `isPlaced` says that its place is known
    /// without a table. Waits for the table where nothing else tells, and not for long.
    bool awaitPacked(bool isPlaced, const ZqStopTest& stop);

private:
    void setState(Packed state_);
    /// Whether a look at the table has told something that isn't "here it is".
    bool isPutOff() const SX_REQUIRES(mutex);
    /// Whether the form and, where there is one, the table are known.
    bool isSettled() const SX_REQUIRES(mutex);

    const SxPtr<ZqNetLink> link;
    const SxString packedUrl;
    const std::function<void()> onOther;

    mutable SxMutex mutex;
    std::condition_variable_any changed;
    bool isBegun SX_GUARDED_BY(mutex) = false;  ///< the table is asked for
    int64 begunNs SX_GUARDED_BY(mutex) = 0;     ///< when it was first; stays where that was in vain
    bool isWanted SX_GUARDED_BY(mutex) = false; ///< though its server hadn't got it
    bool waits SX_GUARDED_BY(mutex) = false;    ///< a request for it has failed
    SxException failure SX_GUARDED_BY(mutex);   ///< the last one of it, or of the packed form
    Packed state SX_GUARDED_BY(mutex) = Packed::Unknown;
    bool isAway SX_GUARDED_BY(mutex) = false;    ///< `Aside` since its server doesn't answer
    bool plainCame SX_GUARDED_BY(mutex) = false; ///< bytes of the plain form, since the packed one was left
    bool isStated SX_GUARDED_BY(mutex) = false;  ///< the table's file says that it is of this image
    Table table SX_GUARDED_BY(mutex);            ///< also of a packed form that isn't used, or gone
};
