#include "DriveFailure.h"

#include "SxOs.h"

void DriveFailure::note(const SxString& text) {
    const SxMutexBlock lock(&mutex);
    if (first.isEmpty()) first = text;
}

void DriveFailure::noteError(const SxString& what, int error) {
    note(what + ": " + SxOs::errorText(error));
}

void DriveFailure::forget() {
    const SxMutexBlock lock(&mutex);
    if (!isStopped()) first = "";
}

SxString DriveFailure::getText() const {
    const SxMutexBlock lock(&mutex);
    if (first.isEmpty() && isStopped())
        return "A write has failed, and there was no memory to keep its cause";
    return first;
}
