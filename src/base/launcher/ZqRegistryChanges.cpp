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
    SxList<State> made;
    for (const Image& each : record->changes.images)
        made.append(each.former);
    ZqRegistry::createNoted(
        list, mntPoint, made,
        [&](const SxList<State>& former, const SxList<State>& written) { note(image, former, written); });
}

void ZqRegistryChanges::note(const SxString& image, SxList<State> former, SxList<State> written) {
    ZqLauncherChanges& changes = record->changes;
    for (State& state : former) {
        // What another mount has written isn't the player's.
        for (const Image& each : changes.images) {
            if (const State* players = findIn(each.former, state)) state = *players;
        }
    }
    Image& own = changes.of(image);
    // What an undo of another list couldn't take back is still to be taken back.
    auto formerlyWritten = own.written.begin();
    for (const State& state : own.former) {
        if (!findIn(former, state)) {
            former.append(state);
            written.append(*formerlyWritten);
        }
        ++formerlyWritten;
    }
    own.former = former;
    own.written = written;
    record->save();
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
