#include "ReadPlan.h"
#include "VirtualDisk.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

VirtualDisk::Result VirtualDisk::read(uint64 offset, uint32 size, char* buffer, uint64 token, bool retry,
                                      int* error) {
    if (const auto verdict = admit(offset, size, token, false, retry, error)) return *verdict;
    for (;;) {
        Fault shortage;
        switch (readPresent(offset, size, buffer, &shortage)) {
        case Outcome::Done:
            shortReads.settle(token);
            return Result::Done;
        case Outcome::Short:
            return holdShort(token, shortage, error);
        case Outcome::Failed:
            shortReads.settle(token);
            *error = EIO;
            return Result::Failed;
        case Outcome::Missing:
            if (const auto verdict = hold(offset, size, token, false, error)) return *verdict;
        }
    }
}

/// Reads as if at one moment: where blocks went elsewhere meanwhile it plans and reads once more. Where
/// `img.zqf` comes short, `*shortage` says where.
VirtualDisk::Outcome VirtualDisk::readPresent(uint64 offset, uint32 size, char* to, Fault* shortage) {
    ReadPlan plan;
    for (;;) {
        const uint64 changes = nChanges(), present = cursor.load();
        if (!planRead(offset, size, to, present, &plan)) return Outcome::Missing;
        announceAhead(lookAhead.take(offset, size), present);
        const Fault fault = carryOut(plan);
        const bool isStale = plan.isVolatile() && changes != nChanges();
        if (fault.error == 0 && !isStale) {
            if (fault.isCold) lookAhead.follow(offset + size);
            return Outcome::Done;
        }
        // The cursor may have been lowered, and a file that comes short cut there, since the plan was made.
        if (isStale || present != cursor.load()) continue;
        if (fault.error == Fault::SHORT && fault.isGrowing) {
            *shortage = fault;
            return Outcome::Short;
        }
        fail(fault.text());
        return Outcome::Failed;
    }
}

/// False where a block is missing.
bool VirtualDisk::planRead(uint64 offset, uint32 size, char* to, uint64 present, ReadPlan* plan) const {
    plan->clear();
    const uint64 end = offset + size;
    for (uint64 at = offset; at < end;) {
        const uint64 inBlock = at % ZqBlocks::SIZE;
        const auto n = static_cast<uint32>(std::min(end - at, ZqBlocks::SIZE - inBlock));
        const BlockMap::Place place = map.get({at / ZqBlocks::SIZE});
        if (place.isStored()) {
            const ZqfIdx zqfIdx = place.zqfIdx();
            const bool isStored = zqfIdx.value < present;
            if (!isStored && !store.has(zqfIdx)) return false;
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

VirtualDisk::Fault VirtualDisk::carryOut(const ReadPlan& plan) {
    // A single run needs no announcement, and what is in the cache needs none. The first run that isn't in
    // the cache tells that the others may not be there either.
    const bool isSingle = plan.end() - plan.begin() < 2;
    bool isAnnounced = isSingle;
    for (const ReadPlan::Run& run : plan) {
        if (run.kind == ReadPlan::Zeros) {
            std::memset(run.to, 0, run.size);
        } else if (run.kind == ReadPlan::Delivered) {
            if (const int error = store.read(run.from, run.size, run.to))
                return {error, "delivered blocks", run.from};
        } else {
            const int fd = run.kind == ReadPlan::Stored ? zqf.getFd() : layer.getFd();
            const int64 got = readRun(fd, run, plan.end(), &isAnnounced);
            const bool isStored = run.kind == ReadPlan::Stored;
            const auto file = isStored ? ZqImageFiles::ZQF : ZqImageFiles::LAYER_DATA;
            if (got < 0) return {static_cast<int>(-got), file, run.from};
            const uint64 end = run.from + static_cast<uint64>(got);
            if (got < run.size && !(isStored && isAtEnd(end)))
                return {Fault::SHORT, file, end, false, isStored};
            std::memset(run.to + got, 0, run.size - static_cast<uint64>(got));
        }
    }
    Fault none;
    none.isCold = isAnnounced && !isSingle;
    return none;
}

int64 VirtualDisk::readRun(int fd, const ReadPlan::Run& run, const ReadPlan::Run* end,
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

void VirtualDisk::announce(const ReadPlan::Run* run, const ReadPlan::Run* end) const {
    for (; run != end; ++run) {
        const int fd = run->kind == ReadPlan::Stored    ? zqf.getFd()
                       : run->kind == ReadPlan::Layered ? layer.getFd()
                                                        : -1;
        if (fd >= 0) SxOs::get().adviseSoon(fd, static_cast<int64>(run->from), run->size);
    }
}

/// Those blocks of the range that are in `img.zqf`.
void VirtualDisk::announceAhead(LookAhead::Range range, uint64 present) const {
    uint64 from = 0, to = 0; // bytes of img.zqf
    const uint64 end = std::min(range.to, cfg.sizeRaw);
    for (uint64 at = range.from; at < end; at += ZqBlocks::SIZE) {
        const BlockMap::Place place = map.get({at / ZqBlocks::SIZE});
        if (!place.isStored() || place.zqfIdx().value >= present) continue;
        const auto byte = static_cast<uint64>(place.zqfIdx().byte());
        if (byte != to) {
            if (from < to)
                SxOs::get().adviseSoon(zqf.getFd(), static_cast<int64>(from), static_cast<int64>(to - from));
            from = byte;
        }
        to = byte + ZqBlocks::SIZE;
    }
    if (from < to)
        SxOs::get().adviseSoon(zqf.getFd(), static_cast<int64>(from), static_cast<int64>(to - from));
}

/// Whether byte `from` lies in the last block of `img.zqf`, at the image's end or beyond it: only then is
/// what the block lacks filled with zeros. A file that merely reads so, since it still grows or was cut, is
/// longer by its size now, or by the size that it had when the last block came.
bool VirtualDisk::isAtEnd(uint64 from) const {
    const ZqfIdx last{nIncluded() - 1};
    const uint64 end = endOfZqf.load();
    SxStat info;
    return end > static_cast<uint64>(last.byte()) && from >= end &&
           SxOs::get().statFd(zqf.getFd(), &info) == 0 && from >= static_cast<uint64>(info.size);
}

SxString VirtualDisk::Fault::text() const {
    const SxString place = SxString("'") + file + "' at byte " + at;
    if (error == SHORT) return place + " ends, though its blocks are said to be there";
    return "Cannot read " + place + ": " + SxOs::errorText(error);
}

/// Lists what a request waits for: a write only for blocks of which it writes a part.
void VirtualDisk::findMissing(const HeldRequest& request, std::vector<ZqfIdx>* missing) const {
    const uint64 first = request.offset / ZqBlocks::SIZE,
                 last = (request.offset + request.size - 1) / ZqBlocks::SIZE;
    for (RawIdx rawIdx{first}; rawIdx.value <= last; rawIdx = rawIdx + 1) {
        const bool isEdge = rawIdx.value == first || rawIdx.value == last;
        if (request.write && !(isEdge && isPartWritten(rawIdx, request.offset, request.size))) continue;
        const BlockMap::Place place = map.get(rawIdx);
        if (place.isStored() && isMissing(place.zqfIdx())) missing->push_back(place.zqfIdx());
    }
    std::sort(missing->begin(), missing->end());
    missing->erase(std::unique(missing->begin(), missing->end()), missing->end());
}
