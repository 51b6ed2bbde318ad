#include "ZqTracePolicy.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqRunTraces.h"
#include "ZqTraceFiles.h"
#include "ZqTraceFormat.h"
#include "ZqTraceParams.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace {

/// So many folders are looked at. A run keeps 20 traces where nobody says otherwise.
constexpr size_t MOST_LOOKS = 100;
/// Bytes of the record of a single run, with much room. Only that of a joined trace, which names its sources,
/// can have more.
constexpr int64 MOST_RECORD = 65536;

/// What tells one run from another, as for an order: digest of the items, and start.
using Identity = std::pair<SxString, int64>;

/// That of the trace in the folder `path`, if it is a sound one of the build: one that an order would take,
/// as far as that can be told without its items. These may have many megabytes, and the digest that a record
/// states is that of what was written. Only a recording that has come to its end states it; of others,
/// nothing but the whole of the items tells whether they are right.
std::optional<Identity> identify(const SxString& path, const SxString& build) {
    // Not through links, which may lead to a disk that is slow or gone.
    const auto folder = SxFSAction::look(path);
    if (!folder || folder->kind != SxStat::Dir) return {};
    const SxString prefix = path + "/";
    const auto record = SxFSAction::look(prefix + ZqTraceFiles::RECORD);
    const auto items = SxFSAction::look(prefix + ZqTraceFiles::ITEMS);
    if (!record || record->kind != SxStat::File || record->size > MOST_RECORD) return {};
    if (!items || items->kind != SxStat::File || items->size < ZqTraceFormat::SIZE) return {};
    const ZqTraceParams trace(prefix);
    const bool isJoined = trace.isSeries() || !trace.sources.empty();
    const bool isWhole = !trace.checksumTrc.isEmpty() && trace.size == items->size;
    if (isJoined || !isWhole || !(trace.checksumMnt == build)) return {};
    return Identity{trace.checksumTrc, trace.time0};
}

/// Sound traces of the build among the image's, counted up to N_ENOUGH. A copy of one doesn't count, and
/// neither does what a run that records would remove.
int64 countSound(const SxString& image, const SxString& build, int64 nKept) {
    const SxString folder = ZqImageFolder::prefix(image) + ZqImageFiles::TRACES;
    const SxList<SxString> over = ZqRunTraces(image).getOver(nKept);
    std::set<Identity> found;
    const auto getN = [&] { return static_cast<int64>(found.size()); };
    try {
        if (SxFSAction::isGone(folder)) return 0;
        std::vector<SxString> paths;
        for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
            if (!over.contains(entry.getName())) paths.push_back(entry.getOrig());
        }
        // Runs name theirs by the time. The newest ones are most likely of this build.
        std::reverse(paths.begin(), paths.end());
        paths.resize(std::min(paths.size(), MOST_LOOKS));
        for (size_t i = 0; i < paths.size() && getN() < ZqTracePolicy::N_ENOUGH; ++i) {
            try {
                if (const auto identity = identify(paths[i], build)) found.insert(*identity);
            } catch (const SxException& e) {
                zqLogMsg("base", "ZqTracePolicy : " + e.toString(SxException::ShowMessage, ": "));
            }
        }
    } catch (const SxException& e) {
        // Whatever is wrong with the folder, the run isn't to fail here.
        zqLogMsg("base", "ZqTracePolicy : " + e.toString(SxException::ShowMessage, ": "));
    }
    return getN();
}

} // namespace

ZqTracePolicy::Decision ZqTracePolicy::decide(const Run& run) {
    if (run.wish != AsNeeded) return {run.wish == Always, Wished};
    if (!run.isComplete) return {true, Partial};
    if (!run.mayRecord) return {false, Unable};
    const int64 nSound = countSound(run.image, run.build, run.nKept);
    if (nSound < N_ENOUGH) return {true, Few, nSound};
    const bool isTurn = run.nUntraced >= EVERY - 1;
    return {isTurn, isTurn ? Turn : Enough, nSound};
}
