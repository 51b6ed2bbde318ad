#include "ZqRegistryChanges.h"

namespace {

using Image = ZqLauncherChanges::Image;
using State = ZqRegistry::State;

const State* findIn(const SxList<State>& states, const State& wanted) {
    for (const State& state : states) {
        if (state.isSameValue(wanted)) return &state;
    }
    return nullptr;
}

} // namespace

void ZqRegistryChanges::make(const SxString& image, const SxList<ZqRegistry::Item>& list,
                             const SxString& mntPoint) {
    ZqLauncherChanges& changes = record->changes;
    const SxList<State> written = ZqRegistry::plan(list, mntPoint);
    SxList<State> made;
    for (const Image& each : changes.images)
        made.append(each.former);
    SxList<State> former = ZqRegistry::look(list, made);
    for (State& state : former) {
        // What another mount has written isn't the player's.
        for (const Image& each : changes.images) {
            if (const State* players = findIn(each.former, state)) state = *players;
        }
    }
    Image& own = changes.of(image);
    const Image before = own;
    own.former = former;
    own.written = written;
    // What an undo of another list couldn't take back is still to be taken back.
    auto formerlyWritten = before.written.begin();
    for (const State& state : before.former) {
        if (!findIn(former, state)) {
            own.former.append(state);
            own.written.append(*formerlyWritten);
        }
        ++formerlyWritten;
    }
    record->save();
    ZqRegistry::createRegEntriesAsAdmin(list, mntPoint);
}

void ZqRegistryChanges::undo(const SxString& image) {
    ZqLauncherChanges& changes = record->changes;
    SxList<State> states = changes.of(image).former;
    for (State& state : states) {
        for (const Image& each : changes.images) {
            const State* others = each.path == image ? nullptr : findIn(each.written, state);
            if (others) state = *others;
        }
    }
    if (!states.isEmpty()) ZqRegistry::put(states);
    Image& own = changes.of(image);
    own.former.removeAll();
    own.written.removeAll();
}
