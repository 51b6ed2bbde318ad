#pragma once

#include "SxMap.h"
#include "ZqOnDemandPass.h"

#include <atomic>
#include <map>
#include <optional>
#include <vector>

/// What held reads want of `img.zqf`: stretches to be fetched, and blocks that are left to the ordered
/// download for a while. getResumeIdx() is safe from any thread, all else belongs to the job's. Offsets are
/// bytes of `img.zqf`, times are steady ms.
class ZqOnDemandWants {
public:
    /// A stretch that may be asked for now.
    struct Due {
        uint64 offset = 0;
        /// The download is about to bring it, and has kept a read waiting for too long.
        bool isOverdue = false;
    };
    /// A read that the download has kept waiting for too long.
    struct Overdue {
        uint64 nMissing = 0; ///< bytes that the download hasn't brought of what the read waits for
        int64 sinceMs = 0;
    };

    /// A job begins: forgets what is wanted and what was delivered.
    void begin();
    /// No read is held any longer.
    void settle();

    /// The drive asks for the block at `byteIdx`.
    void add(const ZqOnDemandPass& pass, uint64 byteIdx);
    /// Takes out what is no longer asked for.
    void dropUnwanted(const ZqOnDemandPass& pass);

    /// In the order in which they were asked for.
    std::vector<Due> findDue(const ZqOnDemandPass& pass) const;
    std::optional<Overdue> findOverdue(const ZqOnDemandPass& pass) const;
    bool isEmpty() const { return wants.getSize() == 0; }
    /// Whether a stretch that is wanted couldn't be had the last time.
    bool hasFailed() const;
    /// Whether a read waits for what only the download is to bring.
    bool isAtEdge(const ZqOnDemandPass& pass) const { return edgeIdx >= pass.nCurrent; }
    /// Whether the stretch has got to the drive since `ms`, and isn't wanted again.
    bool isSettledSince(uint64 offset, int64 ms) const;

    /// The stretch has got to the drive.
    void noteDelivered(uint64 offset);
    /// Leaves it for a while, if it is still wanted.
    void noteFailed(uint64 offset);

    /// Byte up to which the download must come to resolve what is wanted.
    uint64 getResumeIdx() const { return resumeIdx; }
    /// It is what is still wanted.
    void noteResume();
    /// It is at least what is left to the download.
    void leaveToDownload();

private:
    struct Want {
        int64 sinceMs = 0;      ///< a read has waited for it
        int64 reportedMs = 0;   ///< when the drive asked for it last
        int64 retryMs = 0;      ///< it isn't asked for before that
        bool hasFailed = false; ///< the last time
    };
    /// A block that a held read leaves to the ordered download.
    struct EdgeWait {
        int64 sinceMs = 0, reportedMs = 0;
    };

    /// Notes that a read waits for a block that the download is to bring; gives since when.
    int64 noteEdgeWait(const ZqOnDemandPass& pass, uint64 byteIdx);
    bool isOverdue(const ZqOnDemandPass& pass, uint64 offset, const Want& want) const;
    /// Whether the stretch was delivered and isn't to be fetched again yet.
    bool isDelivered(const ZqOnDemandPass& pass, uint64 offset);

    SxMap<uint64, Want> wants;              ///< by the stretch's offset
    std::map<uint64, EdgeWait> edgeWaits;   ///< by byte index
    SxHashTable<uint64, int64> deliveredMs; ///< when, by the stretch's offset
    uint64 edgeIdx = 0; ///< byte that the download has to bring for what is held and left to it
    std::atomic<uint64> resumeIdx{0};
};
