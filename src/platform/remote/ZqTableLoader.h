#pragma once

#include "ZqFormChoice.h"
#include "ZqRemoteFile.h"
#include "ZqStopThread.h"

/// Fetches the seek table of a remote image on a thread of its own, beside everything else, and again where
/// that has failed or the packed form was left aside: after 5 s, then after twice that each time, up to 10
/// min. A packed form that isn't there (404) is looked for as often, since plain stretches go unchecked
/// meanwhile. Where its server doesn't answer the table is asked for every few seconds, which brings the
/// packed form back. start() and the end belong to the owner.
class ZqTableLoader {
public:
    /// Of the packed form of an image of `sizeZqf_` bytes with the MD5 text `digest_`, where that is known.
    /// `choice_` is told what comes of it, and must live longer.
    ZqTableLoader(const SxPtr<ZqRemoteFile>& packed_, uint64 sizeZqf_, const SxString& digest_,
                  ZqFormChoice* choice_);
    ~ZqTableLoader();
    ZqTableLoader(const ZqTableLoader&) = delete;
    ZqTableLoader& operator=(const ZqTableLoader&) = delete;

    /// Raises where there is no thread to be had.
    void start() { thread.start(); }

private:
    using Packed = ZqFormChoice::Packed;
    /// `Away`: its server doesn't answer.
    enum class Outcome { Ended, Absent, Failed, Away };

    void run();
    void load();
    SxPtr<ZqSeekTable> parse(const SxArray<char>& tail, uint64 size) const;
    Outcome tryLoad();
    Outcome tryLoadOrNote();
    SxArray<char> fetch(uint64 first, uint64 end);

    const SxPtr<ZqRemoteFile> packed;
    const uint64 sizeZqf;
    const SxString digest;
    ZqFormChoice* const choice;
    ZqStopTest stopping;
    int64 usedMs = 0; ///< how long the last table was in use
    ZqStopThread thread;
};
