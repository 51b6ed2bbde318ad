#pragma once

#include "ZqNetRetry.h"
#include "ZqRacedTransfer.h"
#include "ZqRemoteFile.h"

/// Reads bytes of a remote file in order, over as many requests as it takes: each goes on where the one
/// before stopped, also on another mirror of the file. Broken transfers, time-outs and answers of 5xx are
/// tried again with a back-off (ZqNetRetry). For one thread.
///
/// What is read as one, as by read() or takeAll(), is of one version. Where it breaks off and a mirror with
/// other validators would go on, the first is asked for once more, since mirrors may take turns; after that
/// all of it begins anew. This counts as a try like others, and bytes that have come before are no progress,
/// so it ends. What is checked afterwards (setChecked()) may be of several mirrors. So may what next() alone
/// gives, as an ordered stream takes it: it goes on where it is, and checksums or the digest of the whole
/// tell whether that was right.
///
/// Where somebody waits, and the connection may be dead, the request is made a second time (ZqRacedTransfer).
class ZqRangeReader {
public:
    /// Bytes `first` to `end` - 1; an `end` of ZqRemoteFile::UNKNOWN means the file's end.
    ZqRangeReader(const ZqRemoteFile& file, uint64 first, uint64 end_, ZqTransfer::Kind kind_);
    ZqRangeReader(const ZqRangeReader&) = delete;
    ZqRangeReader& operator=(const ZqRangeReader&) = delete;

    /// Lets its requests go over connections of their own and past what caches hold, since what came before
    /// was wrong. Before begin().
    void setFresh() { fresh = true; }
    /// What is read is compared with a checksum, so it need not be of one version.
    void setChecked() { isChecked = true; }
    /// Gives up after so many tries, instead of those of the link's settings.
    void setTries(int64 n) { retry->setTries(n); }
    /// Lets its failures count with those of others that read the same in turns.
    void setRetry(const SxPtr<ZqNetRetry>& retry_) { retry = retry_; }
    /// See ZqNetRetry.
    void beginTurn(int64 nTries, int64 ms) { retry->beginTurn(nTries, ms); }
    /// Makes the request, where none is under way, and returns.
    void begin() { race.begin(); }
    /// Turns a request of the kind Ahead into one on demand, and back. Safe beside the reader's own thread.
    void hasten() { race.become(ZqTransfer::Kind::OnDemand); }
    void relax() { race.become(ZqTransfer::Kind::Ahead); }
    /// The next bytes; false at the end. Raises what can't be mended.
    bool next(SxArray<char>* piece, const ZqStopTest& stop);
    /// The next `size` bytes into `buffer`, fewer at the end; gives how many. All are of one version, but
    /// for setChecked(): where only a mirror of another one goes on, they begin anew there. Where it fails it
    /// may be called again for the same bytes.
    uint64 read(char* buffer, uint64 size, const ZqStopTest& stop);
    /// All that is left, up to `size` bytes, into `buffer`; gives how many.
    uint64 readAll(char* buffer, uint64 size, const ZqStopTest& stop);
    /// All that is left, as one like those of read(): `take` gets it, after `atBegin`, which may be called
    /// again, and then all begins anew.
    void takeAll(const std::function<void()>& atBegin, const std::function<void(const SxArray<char>&)>& take,
                 const ZqStopTest& stop);
    /// Offset of the byte that next() gives next.
    uint64 getPos() const noexcept { return pos; }
    /// Offset of the byte that comes next from the server: those before it would be lost with this object.
    uint64 getReceived() const { return pos + race.countBuffered(); }

private:
    ZqTransfer::Request makeRequest() const;
    ZqRacedTransfer::Made makeTransfer() const;
    bool takePiece(SxArray<char>* piece, const ZqStopTest& stop);
    void noteVersion();
    void goElsewhere(const SxException& e, const ZqStopTest& stop);
    void noteProgress(bool isMore);
    void noteSlow(const SxException& e);
    void recover(const SxException& e, const SxString& asked, const ZqStopTest& stop);
    void rewind();
    template<class Take>
    void asUnit(Take take);

    const SxPtr<ZqNetLink> link;
    const SxPtr<ZqFileFacts> facts;
    const ZqTransfer::Kind requested;
    uint64 pos = 0, end = 0;
    bool isRepeated = false; ///< the last request has failed AT_ONCE
    bool fresh = false, isChecked = false;
    SxArray<char> rest; ///< a piece of which read() has given the first `nGiven` bytes
    int64 nGiven = 0;
    bool isVouched = false; ///< the file was found to be the same since the last answer
    bool inUnit = false;    ///< the bytes from `unitBegin` on must be of one version
    uint64 unitBegin = 0;
    int64 version = -1;   ///< of the last answer that was taken
    int64 nElsewhere = 0; ///< answers of another one since bytes were gained
    uint64 furthest = 0;  ///< one past the last byte that has come
    int64 nSlow = 0;      ///< requests in a row that were given up as slow
    uint64 gainedPos = 0; ///< up to there bytes don't show that all is well
    SxPtr<ZqNetRetry> retry;
    ZqRacedTransfer race; ///< the request under way
};
