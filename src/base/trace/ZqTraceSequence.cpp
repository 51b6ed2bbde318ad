// Traces as runs of neighbouring blocks, and back.

#include "SxIndexSet.h"
#include "SxMap.h"
#include "ZqTrace.h"
#include "ZqTraceRecords.h"

#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
/// Entries of a table by block that there may be for each run; a hash table takes as much room.
constexpr uint64 TABLE_ENTRIES_PER_RUN = 8;

/// Which run begins with a block. The block right after a run's end always begins another run, if the trace
/// has it at all, so only the first blocks of runs are kept: in a table by block where they lie dense, else
/// in a hash table.
class RunStarts {
public:
    RunStarts(const SxList<ZqSequence>& runs, uint64 largestBlock) {
        const auto nRuns = static_cast<uint64>(runs.getSize());
        if (largestBlock / TABLE_ENTRIES_PER_RUN < nRuns) {
            table.resize(static_cast<size_t>(largestBlock + 1), nullptr);
        } else {
            others.resize(runs.getSize());
        }
        for (const ZqSequence& run : runs) {
            if (table.empty()) {
                others.value(run.block) = &run;
            } else {
                table[run.block] = &run;
            }
        }
    }

    /// Null where none does.
    const ZqSequence* find(uint64 block) const {
        if (!table.empty()) return block < table.size() ? table[block] : nullptr;
        const ZqSequence* const* found = others.findPos(block);
        return found ? *found : nullptr;
    }

private:
    std::vector<const ZqSequence*> table;
    SxHashTable<uint64, const ZqSequence*, SxIndexHash> others;
};

} // namespace

SxList<ZqSequence> ZqTrace::traceToSequence() const {
    ZqTraceRecords::requireMatch(pathPrefix);
    const auto time0 = static_cast<uint64>(ZqTraceParams(pathPrefix).time0);
    const SxPtr<Items> items = getItems(true, true, true);
    const int64 n = items->getSize();
    if (n == 0) throw SxException("The trace '" + pathPrefix + "' has no items", UNIT, __LINE__);

    SxList<ZqSequence> runs;
    uint64 largestBlock = 0, next = 0;
    for (int64 i = 0; i < n; ++i) {
        const ZqTraceItem& item = (*items)(i);
        largestBlock = std::max(largestBlock, item.block);
        if (i > 0 && item.block == next && item.flag == (runs.last().flag != 0)) {
            ++runs.last().nFollowing;
        } else {
            ZqSequence run;
            run.block = item.block;
            run.time = static_cast<int64>(item.time - time0);
            run.index = i;
            run.flag = item.flag ? 1 : 0;
            runs.append(run);
        }
        next = item.block + 1;
    }

    const RunStarts starts(runs, largestBlock);
    for (ZqSequence& run : runs) {
        const int64 end = run.index + run.nFollowing + 1;
        if (end == n) break;
        const ZqSequence* const found = starts.find(run.block + static_cast<uint64>(run.nFollowing) + 1);
        if (!found) continue;
        run.jump = found->index - end;
        run.jumpTime = found->time;
    }
    // The first run counts as the beginning of time, also where another one leads to it.
    runs.first().time = 0;
    return runs;
}

SxArray<ZqTraceItem> ZqTrace::sequenceToTrace(const SxList<ZqSequence>& list) {
    int64 total = 0;
    for (const ZqSequence& run : list) {
        int64 length = 0;
        if (run.nFollowing >= 0 && !__builtin_add_overflow(run.nFollowing, int64{1}, &length) &&
            !__builtin_add_overflow(total, length, &total)) {
            continue;
        }
        throw SxException("The run at block " + SxString(run.block) + " can't have " + run.nFollowing +
                              " following blocks",
                          UNIT, __LINE__);
    }
    SxArray<ZqTraceItem> items;
    try {
        items.reserve(total);
    } catch (const std::exception&) {
        throw SxException("There is no memory for the " + SxString(total) + " items of the runs", UNIT,
                          __LINE__);
    }
    for (const ZqSequence& run : list) {
        for (uint64 k = 0; k <= static_cast<uint64>(run.nFollowing); ++k)
            items.append(ZqTraceItem(run.block + k, static_cast<uint64>(run.time), run.flag != 0));
    }
    return items;
}
