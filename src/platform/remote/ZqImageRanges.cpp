#include "ZqImageRanges.h"

#include "ZqLog.h"
#include "ZqRangeSource.h"

#include <cstring>

namespace {
constexpr uint64 STRETCH = ZqStretchLayout::STRETCH;
constexpr size_t N_LOADERS = 4;
/// Likely ones that are under way at a time. What is under way can't be held to the byte, so with more of
/// them who asks for another stretch would wait longer than without any.
constexpr uint64 N_LIKELY = 1;

/// How many of `stretches` follow each other from `stretchIdx` on.
uint64 countRun(const std::set<uint64>& stretches, uint64 stretchIdx) {
    uint64 n = 0;
    while (stretches.contains(stretchIdx + n))
        ++n;
    return n;
}
} // namespace

/// Says that somebody fetches a stretch and waits for it, until it ends; made where no loader is to have it.
class ZqImageRanges::Demand {
public:
    Demand(ZqStretchClaims* claims_, uint64 stretchIdx_)
        : claims(claims_),
          stretchIdx(stretchIdx_),
          isMade(claims->beginDemand(stretchIdx)) {}
    ~Demand() {
        if (isMade) claims->endDemand(stretchIdx);
    }
    Demand(const Demand&) = delete;
    Demand& operator=(const Demand&) = delete;
    explicit operator bool() const { return isMade; }

private:
    ZqStretchClaims* const claims;
    const uint64 stretchIdx;
    const bool isMade;
};

/// Says that somebody waits for what is claimed, until it ends.
class ZqImageRanges::Wait {
public:
    explicit Wait(ZqStretchClaims* claims_) : claims(claims_) { claims->beginWait(); }
    ~Wait() { claims->endWait(); }
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

private:
    ZqStretchClaims* const claims;
};

ZqImageRanges::ZqImageRanges(ZqImageForms* forms_, ZqStretchCache* cache_, ZqStreamEdge* edge_,
                             ZqImageCounts* counts_)
    : forms(forms_),
      cache(cache_),
      edge(edge_),
      counts(counts_),
      ahead(forms->getLink(), forms->getLayout()),
      loaders(N_LOADERS) {
    for (auto& loader : loaders) {
        loader = std::make_unique<ZqStopThread>(
            "zqahead", [this](const ZqStopTest& isStopped) { runLoader(isStopped); });
    }
}

ZqImageRanges::~ZqImageRanges() {
    for (const auto& loader : loaders)
        loader->stop();
    claims.wake();
    for (const auto& loader : loaders)
        loader->wait();
}

void ZqImageRanges::start() {
    try {
        for (const auto& loader : loaders)
            loader->start();
    } catch (const SxException& e) {
        // Nobody depends on them: who waits for what one of them should bring takes that himself.
        zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
    }
}

SxArray<uint64> ZqImageRanges::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                        const SxArray<uint64>& likely) {
    ZqStretchClaims::Group group, unwanted;
    for (int64 i = 0; i < std::min(offsets.getSize(), sizes.getSize()); ++i) {
        if (sizes(i) == 0) continue;
        for (uint64 idx = offsets(i) / STRETCH; idx <= (offsets(i) + sizes(i) - 1) / STRETCH; ++idx) {
            if (static_cast<int64>(group.size()) < ZqRangeSource::GROUP) group[idx] = nullptr;
        }
    }
    std::vector<uint64> missing = claims.regroup(&group, &unwanted);
    std::erase_if(missing, [this](uint64 idx) { return edge->isReachedSoon(idx) || cache->has(idx); });
    std::set<uint64> left;
    for (const uint64 offset : likely) {
        const uint64 idx = offset / STRETCH;
        if (!group.contains(idx) && !claims.find(idx) && !isThere(idx)) left.insert(idx);
    }
    // Several stretches fill the link by themselves, so none of them brings others with it, unless these are
    // likely.
    for (const uint64 idx : missing)
        group[idx] = beginDemand(idx, missing.size() > 1, left);
    claims.announce(&group);
    SxArray<uint64> begun;
    std::vector<Fetch> fetches;
    for (const uint64 offset : likely) {
        const uint64 idx = offset / STRETCH;
        if (!left.contains(idx)) continue;
        if (!claims.find(idx)) {
            if (Fetch fetch = makeLikely(idx, left)) fetches.push_back(fetch);
        }
        if (!claims.find(idx) && !cache->has(idx)) continue;
        begun.append(idx * STRETCH);
        SxMutexBlock lock(&mutex);
        likelyBegun.insert(idx);
    }
    claims.passLikely(fetches);
    return begun;
}

bool ZqImageRanges::wasLikely(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    return likelyBegun.erase(stretchIdx) > 0;
}

void ZqImageRanges::read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop) {
    for (const uint64 end = offset + size; offset < end;) {
        const uint64 idx = offset / STRETCH, inside = offset % STRETCH;
        const Bytes bytes = getStretch(idx, stop);
        try {
            follow(idx);
        } catch (const SxException& e) {
            // What is there is good; whoever needs the others asks for them, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
        const uint64 n = std::min(end - offset, forms->getLayout().sizeOf(idx) - inside);
        std::memcpy(buffer, bytes->data() + inside, n);
        buffer += n;
        offset += n;
    }
}

ZqImageRanges::Bytes ZqImageRanges::getStretch(uint64 stretchIdx, const ZqStopTest& stop) {
    for (;;) {
        if (Bytes bytes = awaitClaimed(stretchIdx, stop)) {
            // What was known beforehand says nothing for what is tried.
            const bool wasKnown = wasLikely(stretchIdx);
            if (cache->noteUse(stretchIdx) && !wasKnown) ahead.noteUse();
            return bytes;
        }
        const Demand demand(&claims, stretchIdx);
        if (!demand) continue;
        // Before the look whether it is there: the stream brings it before it moves on.
        const bool isLeft = edge->isReachedSoon(stretchIdx);
        if (cache->has(stretchIdx)) continue;
        Fetch fetch = claims.takeAnnounced(stretchIdx);
        if (!fetch && isLeft) {
            if (Bytes bytes = awaitStream(stretchIdx, stop)) return bytes;
        }
        if (!fetch) fetch = beginDemand(stretchIdx, false);
        Bytes bytes = fetch->request->takeNext(stop);
        // Before a loader has the request, which is for one thread at a time.
        keep(*fetch->request, stretchIdx, bytes, false);
        claims.pass(fetch);
        return bytes;
    }
}

ZqImageRanges::Bytes ZqImageRanges::find(uint64 stretchIdx) {
    if (Bytes bytes = cache->get(stretchIdx, forms->getChoice().getKnownTable())) return bytes;
    return cache->findStreamed(stretchIdx);
}

ZqImageRanges::Bytes ZqImageRanges::awaitStream(uint64 stretchIdx, const ZqStopTest& stop) {
    for (;;) {
        forms->getLink()->checkStop(stop);
        const bool isComing = edge->isReachedSoon(stretchIdx);
        if (Bytes bytes = find(stretchIdx)) {
            counts->add(&ZqImageFigures::nLeft, forms->getLayout().sizeOf(stretchIdx));
            return bytes;
        }
        if (!isComing) return nullptr;
        forms->getLink()->hastenStreams();
        edge->await(stretchIdx);
    }
}

ZqImageRanges::Bytes ZqImageRanges::awaitClaimed(uint64 stretchIdx, const ZqStopTest& stop) {
    const Wait wait(&claims);
    for (;;) {
        forms->getLink()->checkStop(stop);
        const SxPtr<ZqStretchRequest> by = claims.find(stretchIdx);
        if (Bytes bytes = find(stretchIdx)) return bytes;
        if (!by) return nullptr;
        // From now on somebody waits for it.
        by->hasten();
        const Fetch fetch = claims.takePassed(stretchIdx);
        if (!fetch) continue;
        // The loaders may all have others, which are held now.
        try {
            fetch->begin(ZqTransfer::Kind::OnDemand);
            takeUpTo(fetch.getPtr(), stretchIdx + 1, stop);
            claims.pass(fetch);
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) throw;
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
    }
}

void ZqImageRanges::keep(const ZqStretchRequest& by, uint64 stretchIdx, const Bytes& bytes, bool isUnasked) {
    counts->add(isUnasked ? &ZqImageFigures::nAhead : &ZqImageFigures::nOnDemand,
                forms->getLayout().sizeOf(stretchIdx));
    if (by.getCheckedBy()) forms->trust(stretchIdx);
    // The stream has brought it meanwhile, or is about to. What is kept is counted where that comes to it.
    const bool isKept =
        !edge->hasBegun(stretchIdx) && cache->keep(stretchIdx, bytes, by.getCheckedBy(), isUnasked);
    if (!isKept) counts->add(&ZqImageFigures::nTwice, by.wireSize(stretchIdx));
}

// What follows

ZqImageRanges::Fetch ZqImageRanges::makeFetch(uint64 stretchIdx, bool isAwaited) {
    return Fetch::create(&claims, forms, stretchIdx, isAwaited);
}

ZqImageRanges::Fetch ZqImageRanges::beginDemand(uint64 stretchIdx, bool isAlone,
                                                const std::set<uint64>& likely) {
    Fetch fetch = makeFetch(stretchIdx, true);
    const uint64 n = isAlone ? 0 : countFollowing(stretchIdx + 1);
    const bool isSure = isGoneThrough(stretchIdx);
    // Where it is known what comes next, nothing is tried.
    const bool isTry = !isSure && likely.empty() && ahead.mayTry();
    const uint64 nSure = countRun(likely, stretchIdx + 1);
    claimFollowing(fetch.getPtr(), isSure || isTry ? std::max(n, nSure) : nSure);
    if (isTry && fetch->hasClaims()) ahead.noteTry();
    fetch->begin(ZqTransfer::Kind::OnDemand);
    return fetch;
}

ZqImageRanges::Fetch ZqImageRanges::makeLikely(uint64 stretchIdx, const std::set<uint64>& likely) {
    const Fetch fetch = makeFetch(stretchIdx, false);
    claimFollowing(fetch.getPtr(), countRun(likely, stretchIdx));
    return fetch->hasClaims() ? fetch : nullptr;
}

uint64 ZqImageRanges::countFollowing(uint64 firstIdx) const {
    return ahead.countFollowing(firstIdx, forms->getChoice().getTable());
}

bool ZqImageRanges::isGoneThrough(uint64 stretchIdx) const {
    return (stretchIdx >= 1 && isThere(stretchIdx - 1)) || (stretchIdx >= 2 && isThere(stretchIdx - 2));
}

bool ZqImageRanges::isThere(uint64 stretchIdx) const {
    return cache->has(stretchIdx) || edge->hasPassed(stretchIdx);
}

void ZqImageRanges::follow(uint64 stretchIdx) {
    const uint64 n = countFollowing(stretchIdx + 1);
    if (n == 0 || !isGoneThrough(stretchIdx)) return;
    uint64 first = stretchIdx + 1;
    while (first <= stretchIdx + n && (claims.find(first) || isThere(first)))
        ++first;
    if (first > stretchIdx + 1 + n / 2) return;
    const Fetch fetch = makeFetch(first, false);
    // What lies further on may pack worse.
    claimFollowing(fetch.getPtr(), countFollowing(first));
    if (!fetch->hasClaims()) return;
    fetch->begin(ZqTransfer::Kind::Ahead);
    claims.pass(fetch);
}

void ZqImageRanges::claimFollowing(ZqStretchFetch* fetch, uint64 n) {
    for (const uint64 end = std::min(fetch->getEnd() + n, forms->getLayout().count());
         fetch->getEnd() < end;) {
        const uint64 idx = fetch->getEnd();
        const auto mayCome = [&](uint64 nClaimed) {
            return !edge->hasBegun(idx) && !edge->isReachedSoon(idx) && !cache->has(idx) &&
                   cache->hasRoomFor(nClaimed);
        };
        // Others see a claim, so none is made that is sure to be taken back.
        if (!mayCome(claims.count() + 1)) break;
        // What is claimed is counted as if it had come. So it counts twice for a moment, and never not at
        // all.
        const uint64 nClaimed = fetch->claimNext();
        if (nClaimed == 0) break;
        if (!mayCome(nClaimed)) {
            fetch->unclaim();
            break;
        }
    }
    if (fetch->hasClaims()) fetch->request->extend(fetch->getEnd());
}

void ZqImageRanges::takeUpTo(ZqStretchFetch* fetch, uint64 endIdx, const ZqStopTest& stop) {
    while (fetch->request->getNext() < endIdx) {
        const uint64 idx = fetch->request->getNext();
        const Bytes bytes = fetch->request->takeNext(stop);
        keep(*fetch->request, idx, bytes, true);
        fetch->release();
    }
}

void ZqImageRanges::runLoader(const ZqStopTest& isStopped) {
    while (!isStopped()) {
        const Fetch fetch = claims.takePassed(isStopped, N_LIKELY);
        if (!fetch) continue;
        try {
            fetch->begin(ZqTransfer::Kind::Ahead);
            takeUpTo(fetch.getPtr(), fetch->getEnd(), isStopped);
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) return;
            // Whoever needs the bytes asks for them again, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        } catch (const std::exception& e) {
            zqLogMsg("NET", SxString("What follows isn't fetched for now: ") + e.what());
        }
        claims.noteEnd(fetch);
    }
}
