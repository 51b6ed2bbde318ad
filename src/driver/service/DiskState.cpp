#include "DiskState.h"

DiskState::View DiskState::view() const {
    const SxMutexBlock block(&mutex);
    const bool hasDrive = stage == Stage::Mounted || stage == Stage::Detached;
    return {stage, failure, hasDrive, hasDrive ? letter.get() : SxString()};
}

bool DiskState::is(Stage asked) const {
    const SxMutexBlock block(&mutex);
    return stage == asked;
}

SxString DiskState::mount(const SxString& root, const SxString& volume) {
    const SxMutexBlock block(&mutex);
    letter.take(root, volume);
    stage = Stage::Mounted;
    return letter.get();
}

SxString DiskState::takeOver(const SxString& root, const SxString& volume) {
    const SxMutexBlock block(&mutex);
    if (!letter.takeOver(root, volume)) letter.take(root, volume);
    stage = Stage::Mounted;
    return letter.get();
}

void DiskState::detach() {
    const SxMutexBlock block(&mutex);
    stage = Stage::Detached;
}

void DiskState::dropLetter() {
    const SxMutexBlock block(&mutex);
    stage = Stage::Detached;
    letter.remove();
}

void DiskState::fail(const SxString& why) {
    const SxMutexBlock block(&mutex);
    failure = why;
    stage = Stage::Failed;
}

void DiskState::noteFailure(const SxString& why) {
    const SxMutexBlock block(&mutex);
    if (failure.isEmpty()) failure = why;
}

void DiskState::end(const End& how) {
    const SxMutexBlock block(&mutex);
    ended = how;
    stage = Stage::Gone;
}

DiskState::End DiskState::getEnd() const {
    const SxMutexBlock block(&mutex);
    return ended;
}
