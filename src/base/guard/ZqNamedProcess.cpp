#include "ZqNamedProcess.h"

#include "SxProcessInfo.h"
#include "SxTime.h"
#include "ZqSysEnv.h"

namespace {
/// Between two looks at all processes of the machine, each of which takes milliseconds of a core.
constexpr int64 SEARCH_LOOK_MS = 50;
} // namespace

/// Whether the command can have started it: a process of the user, or one that descends from this program,
/// which began no earlier than the command. So a stop never ends what the user ran before.
bool ZqNamedProcess::isOurs(const SxProcessInfo& info) const {
    const bool isUsers = info.user == SxProcessInfo::ownUser() || info.isDescendant();
    const SxProcessGroup ours = command->getGroup();
    return isUsers && info.isRunning() && ours.isValid() && info.startTime >= ours.getStartTime();
}

SxProcessGroup ZqNamedProcess::groupOf(int64 id) const {
    const SxProcessGroup found = SxProcessGroup::of(id);
    const bool isNew = found.getStartTime() >= command->getGroup().getStartTime();
    return isNew ? found : SxProcessGroup();
}

int64 ZqNamedProcess::find() const {
    int64 best = -1;
    int bestRank = 0;
    const int64 ownGroup = command->getGroup().getId();
    for (const int id : ZqSysEnv::getProcessIDs(name)) {
        SxProcessInfo info;
        if (!SxProcessInfo::get(id, &info) || !isOurs(info)) continue;
        const int rank = info.group == ownGroup ? 3 : info.isDescendant() ? 2 : 1;
        if (rank <= bestRank) continue;
        best = id;
        bestRank = rank;
    }
    return best;
}

int64 ZqNamedProcess::await(int64 limitMs, const std::function<bool()>& isStopped) const {
    int64 id = -1;
    SxWait::pass(
        limitMs,
        [&] {
            id = find();
            return id >= 0 || isStopped();
        },
        SEARCH_LOOK_MS);
    return id;
}
