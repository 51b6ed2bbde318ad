#include "ZqTableLoader.h"

#include "SxClock.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqRangeReader.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/platform/remote/ZqTableLoader";
/// The longest pause, in first ones: 10 min with the usual settings.
constexpr int64 MOST_PAUSES = 120;
} // namespace

ZqTableLoader::ZqTableLoader(const SxPtr<ZqRemoteFile>& packed_, uint64 sizeZqf_, const SxString& digest_,
                             ZqFormChoice* choice_)
    : packed(packed_),
      sizeZqf(sizeZqf_),
      digest(digest_),
      choice(choice_),
      thread("zqtable", [this](const ZqStopTest& isStopped) {
          stopping = isStopped;
          run();
      }) {
}

ZqTableLoader::~ZqTableLoader() {
    thread.stop();
    choice->wake();
    thread.wait();
}

void ZqTableLoader::run() {
    const int64 firstMs = packed->getLink()->getSettings().maxBackOffMs;
    int64 pauseMs = firstMs;
    for (;;) {
        choice->beginLook();
        const Outcome outcome = tryLoadOrNote();
        if (outcome == Outcome::Ended) return;
        // It was of use before it failed.
        if (usedMs > pauseMs) pauseMs = firstMs;
        // The plain form goes on meanwhile, as if it never came. Whoever asks for it anew doesn't wait so
        // long.
        if (!choice->awaitWanted(pauseMs, stopping)) return;
        // A table may be large, and one that is bad stays so for long. To ask a server whether it is there
        // costs little, and it may be back at any time.
        const Packed after = choice->getState();
        if (outcome == Outcome::Away && after == Packed::Aside) continue;
        const bool isStill =
            after == Packed::Aside || (outcome == Outcome::Absent && after == Packed::Absent);
        pauseMs = isStill ? std::min(2 * pauseMs, MOST_PAUSES * firstMs) : firstMs;
    }
}

/// What isn't raised for a look's failure, as for want of memory, ends it like one: the thread goes on.
ZqTableLoader::Outcome ZqTableLoader::tryLoadOrNote() {
    try {
        return tryLoad();
    } catch (const std::exception& e) {
        try {
            choice->noteWaits(SxException(e.what(), UNIT, __LINE__));
            zqLogMsg("NET", SxString("The seek table has to wait: ") + e.what());
        } catch (const std::exception&) {
            choice->noteWaits({});
        }
        return Outcome::Failed;
    }
}

/// The outcome is that of this attempt: the state may be another one by now, where somebody asks again.
ZqTableLoader::Outcome ZqTableLoader::tryLoad() {
    usedMs = 0;
    try {
        load();
        const int64 beginNs = SxClock::get().steadyNs();
        const Packed after = choice->awaitUseless(stopping);
        usedMs = (SxClock::get().steadyNs() - beginNs) / 1'000'000;
        if (stopping()) return Outcome::Ended;
        return after == Packed::Aside ? Outcome::Failed : Outcome::Absent;
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) return Outcome::Ended;
        const bool isAside = choice->getState() == Packed::Aside;
        if (e.hasTag(ZqNetLink::NOT_FOUND) && !isAside) {
            return choice->noteAbsent(e) ? Outcome::Absent : Outcome::Failed;
        }
        const bool isAway = ZqNetLink::isAway(e);
        if (isAside || isAway) {
            choice->noteWaits(e);
            zqLogMsg("NET", "The seek table has to wait: " + e.toString(SxException::ShowMessage, ": "));
        } else {
            choice->leave(e);
        }
        return isAway ? Outcome::Away : Outcome::Failed;
    }
}

SxArray<char> ZqTableLoader::fetch(uint64 first, uint64 end) {
    SxArray<char> bytes(static_cast<int64>(end - first));
    ZqRangeReader reader(*packed, first, end, ZqTransfer::Kind::Small);
    const uint64 n = reader.readAll(bytes.data(), end - first, stopping);
    bytes.resize(static_cast<int64>(n), true);
    return bytes;
}

SxPtr<ZqSeekTable> ZqTableLoader::parse(const SxArray<char>& tail, uint64 size) const {
    try {
        const auto nTail = static_cast<uint64>(tail.getSize());
        return SxPtr<ZqSeekTable>::create(tail.data(), nTail, size, sizeZqf);
    } catch (const SxException& e) {
        throw e.tagged(ZqNetLink::WRONG);
    }
}

void ZqTableLoader::load() {
    // It may be another file than the one that was left aside.
    const Packed before = choice->getState();
    if (before == Packed::Aside || before == Packed::Absent) packed->getFacts()->forget();
    const SxArray<char> front = fetch(0, ZqPackedForm::ORIGIN_SIZE);
    if (!ZqPackedForm::mayBeOf(digest, front.data(), front.getSize())) {
        choice->refuse();
        return;
    }
    // The table is asked for by its place, which the size in the first answer gives: few servers and stores
    // know a request for the last bytes.
    const uint64 size = packed->getSize();
    if (size == ZqRemoteFile::UNKNOWN) {
        throw SxException(ZqNetLink::WRONG, "The server doesn't say how many bytes it has", UNIT, __LINE__);
    }
    const uint64 nTail = std::min(size, ZqSeekTable::maxTail(sizeZqf));
    const SxArray<char> tail = fetch(size - nTail, size);
    if (!choice->take(parse(tail, size), ZqPackedForm::isStatedOf(digest, front.data(), front.getSize())))
        choice->refuse();
}
