#include "MissingQueue.h"

#include <algorithm>
#include <utility>

void MissingQueue::add(HeldRequest* request) {
    if (queued.size() > 2 * nQueued + MAX_STALE) {
        std::erase_if(queued, [this](const Entry& entry) { return !stands(entry); });
    }
    for (const ZqfIdx zqfIdx : request->missing) {
        const auto [block, isNew] = blocks.try_emplace(zqfIdx, Wanted{request, {}, nTickets + 1, NOT_POPPED});
        if (!isNew) {
            block->second.more.push_back(request);
            continue;
        }
        queued.push_back({zqfIdx, ++nTickets});
        ++nQueued;
    }
}

void MissingQueue::remove(HeldRequest* request) {
    for (const ZqfIdx zqfIdx : request->missing) {
        const auto block = blocks.find(zqfIdx);
        if (block == blocks.end()) continue;
        Wanted& wanted = block->second;
        if (wanted.first != request) {
            std::erase(wanted.more, request);
        } else if (!wanted.more.empty()) {
            wanted.first = wanted.more.front();
            wanted.more.erase(wanted.more.begin());
        } else {
            leave(wanted);
            blocks.erase(block);
        }
    }
}

std::vector<HeldRequest*> MissingQueue::arrive(ZqfIdx first, ZqfIdx end) {
    std::vector<HeldRequest*> complete;
    const auto countDown = [&complete](HeldRequest* request) {
        if (--request->nMissing == 0) complete.push_back(request);
    };
    const auto begin = blocks.lower_bound(first);
    auto block = begin;
    for (; block != blocks.end() && block->first < end; ++block) {
        leave(block->second);
        countDown(block->second.first);
        std::for_each(block->second.more.begin(), block->second.more.end(), countDown);
    }
    blocks.erase(begin, block);
    return complete;
}

void MissingQueue::rebuild(const std::vector<HeldRequest*>& requests) {
    const std::map<ZqfIdx, Wanted> old = std::exchange(blocks, {});
    queued.clear();
    returned.clear();
    popped.clear();
    nQueued = 0;
    for (HeldRequest* request : requests)
        add(request);
    std::vector<Entry> out;
    for (const auto& [zqfIdx, was] : old) {
        const auto block = blocks.find(zqfIdx);
        if (was.poppedNs == NOT_POPPED || block == blocks.end()) continue;
        block->second.poppedNs = was.poppedNs;
        --nQueued;
        out.push_back({zqfIdx, block->second.ticket});
    }
    const auto earlier = [this](const Entry& a, const Entry& b) {
        return blocks.at(a.zqfIdx).poppedNs < blocks.at(b.zqfIdx).poppedNs;
    };
    std::stable_sort(out.begin(), out.end(), earlier);
    popped.assign(out.begin(), out.end());
}

void MissingQueue::takeBack(int64 nowNs) {
    while (!popped.empty()) {
        const Entry entry = popped.front();
        const auto block = blocks.find(entry.zqfIdx);
        if (block != blocks.end() && block->second.ticket == entry.ticket) {
            if (nowNs - block->second.poppedNs < RETURN_NS) return;
            block->second.poppedNs = NOT_POPPED;
            returned.push_back(entry);
            ++nQueued;
        }
        popped.pop_front();
    }
}

uint64 MissingQueue::length(int64 nowNs) {
    takeBack(nowNs);
    return nQueued;
}

bool MissingQueue::stands(const Entry& entry) const {
    const auto block = blocks.find(entry.zqfIdx);
    return block != blocks.end() && block->second.ticket == entry.ticket &&
           block->second.poppedNs == NOT_POPPED;
}

void MissingQueue::popFrom(std::deque<Entry>* queue, uint64 max, int64 nowNs, std::vector<uint64>* zqfIdxs) {
    while (!queue->empty() && zqfIdxs->size() < max) {
        const Entry entry = queue->front();
        queue->pop_front();
        if (!stands(entry)) continue;
        blocks.at(entry.zqfIdx).poppedNs = nowNs;
        --nQueued;
        popped.push_back(entry);
        zqfIdxs->push_back(entry.zqfIdx.value);
    }
}

std::vector<uint64> MissingQueue::pop(uint64 max, int64 nowNs) {
    takeBack(nowNs);
    std::vector<uint64> zqfIdxs;
    popFrom(&returned, max, nowNs, &zqfIdxs);
    popFrom(&queued, max, nowNs, &zqfIdxs);
    return zqfIdxs;
}

ZqfIdx MissingQueue::firstMissing(const HeldRequest& request) const {
    const auto isWanted = [this](ZqfIdx zqfIdx) { return blocks.contains(zqfIdx); };
    return *std::find_if(request.missing.begin(), request.missing.end(), isWanted);
}
