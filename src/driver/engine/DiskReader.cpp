#include "DiskReader.h"

#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

DiskReader::DiskReader(const Sources& sources_, uint64 sizeRaw_, DriveFailure* failure_, ReadCount* count_)
    : sources(sources_),
      sizeRaw(sizeRaw_),
      failure(failure_),
      count(count_) {
}

DiskReader::Outcome DiskReader::read(uint64 offset, uint32 size, char* to, Fault* shortage) {
    ReadPlan plan;
    for (;;) {
        const uint64 changes = nChanges(), present = sources.cursor.load();
        if (!planRead(offset, size, to, present, &plan)) return Outcome::Missing;
        announceAhead(lookAhead.take(offset, size), present);
        const Fault fault = carryOut(plan);
        const bool isStale = plan.isVolatile() && changes != nChanges();
        if (fault.error == 0 && !isStale) {
            if (fault.isCold) lookAhead.follow(offset + size);
            count->addBytes(plan);
            return Outcome::Done;
        }
        // The cursor may have been lowered, and a file that comes short cut there, since the plan was made.
        if (isStale || present != sources.cursor.load()) continue;
        if (fault.error == Fault::SHORT && fault.isGrowing) {
            *shortage = fault;
            return Outcome::Short;
        }
        failure->note(fault.text());
        return Outcome::Failed;
    }
}

/// False where a block is missing.
bool DiskReader::planRead(uint64 offset, uint32 size, char* to, uint64 present, ReadPlan* plan) const {
    plan->clear();
    const uint64 end = offset + size;
    for (uint64 at = offset; at < end;) {
        const uint64 inBlock = at % ZqBlocks::SIZE;
        const auto n = static_cast<uint32>(std::min(end - at, ZqBlocks::SIZE - inBlock));
        const BlockMap::Place place = sources.map.get({at / ZqBlocks::SIZE});
        if (place.isStored()) {
            const ZqfIdx zqfIdx = place.zqfIdx();
            const bool isStored = zqfIdx.value < present;
            if (!isStored && !sources.store.has(zqfIdx)) return false;
            plan->add(isStored ? ReadPlan::Stored : ReadPlan::Delivered,
                      static_cast<uint64>(zqfIdx.byte()) + inBlock, n, to);
        } else if (place.isNothing()) {
            plan->add(ReadPlan::Zeros, 0, n, to);
        } else {
            plan->add(ReadPlan::Layered, static_cast<uint64>(place.slot().byte()) + inBlock, n, to);
        }
        to += n;
        at += n;
    }
    return true;
}

DiskReader::Fault DiskReader::carryOut(const ReadPlan& plan) {
    // A single run needs no announcement, and what is in the cache needs none. The first run that isn't in
    // the cache tells that the others may not be there either.
    const bool isSingle = plan.end() - plan.begin() < 2;
    bool isAnnounced = isSingle;
    for (const ReadPlan::Run& run : plan) {
        if (run.kind == ReadPlan::Zeros) {
            std::memset(run.to, 0, run.size);
        } else if (run.kind == ReadPlan::Delivered) {
            if (const int error = sources.store.read(run.from, run.size, run.to))
                return {error, "delivered blocks", run.from};
        } else {
            const int fd = run.kind == ReadPlan::Stored ? sources.zqf.getFd() : sources.layer.getFd();
            const int64 got = readRun(fd, run, plan.end(), &isAnnounced);
            const bool isStored = run.kind == ReadPlan::Stored;
            const auto file = isStored ? ZqImageFiles::ZQF : ZqImageFiles::LAYER_DATA;
            if (got < 0) return {static_cast<int>(-got), file, run.from};
            const uint64 end = run.from + static_cast<uint64>(got);
            if (got < run.size && !(isStored && sources.zqf.isAtEnd(end)))
                return {Fault::SHORT, file, end, false, isStored};
            std::memset(run.to + got, 0, run.size - static_cast<uint64>(got));
        }
    }
    Fault none;
    none.isCold = isAnnounced && !isSingle;
    return none;
}

int64 DiskReader::readRun(int fd, const ReadPlan::Run& run, const ReadPlan::Run* end,
                          bool* isAnnounced) const {
    SxOs& os = SxOs::get();
    const auto from = static_cast<int64>(run.from);
    int64 got = 0;
    if (!*isAnnounced) {
        got = os.readCachedAt(fd, run.to, run.size, from);
        if (got == run.size) return got;
        got = std::max<int64>(got, 0);
        announce(&run, end);
        *isAnnounced = true;
    }
    const int64 rest = os.readAt(fd, run.to + got, run.size - got, from + got);
    return rest < 0 ? rest : got + rest;
}

void DiskReader::announce(const ReadPlan::Run* run, const ReadPlan::Run* end) const {
    for (; run != end; ++run) {
        const int fd = run->kind == ReadPlan::Stored    ? sources.zqf.getFd()
                       : run->kind == ReadPlan::Layered ? sources.layer.getFd()
                                                        : -1;
        if (fd >= 0) SxOs::get().adviseSoon(fd, static_cast<int64>(run->from), run->size);
    }
}

/// Those blocks of the range that are in `img.zqf`.
void DiskReader::announceAhead(LookAhead::Range range, uint64 present) const {
    uint64 from = 0, to = 0; // bytes of img.zqf
    const uint64 end = std::min(range.to, sizeRaw);
    for (uint64 at = range.from; at < end; at += ZqBlocks::SIZE) {
        const BlockMap::Place place = sources.map.get({at / ZqBlocks::SIZE});
        if (!place.isStored() || place.zqfIdx().value >= present) continue;
        const auto byte = static_cast<uint64>(place.zqfIdx().byte());
        if (byte != to) {
            if (from < to)
                SxOs::get().adviseSoon(sources.zqf.getFd(), static_cast<int64>(from),
                                       static_cast<int64>(to - from));
            from = byte;
        }
        to = byte + ZqBlocks::SIZE;
    }
    if (from < to)
        SxOs::get().adviseSoon(sources.zqf.getFd(), static_cast<int64>(from), static_cast<int64>(to - from));
}

SxString DiskReader::Fault::text() const {
    const SxString place = SxString("'") + file + "' at byte " + at;
    if (error == SHORT) return place + " ends, though its blocks are said to be there";
    return "Cannot read " + place + ": " + SxOs::errorText(error);
}
