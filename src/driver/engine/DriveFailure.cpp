#include "DriveFailure.h"

#include "SxOs.h"

void DriveFailure::note(const SxString& text) {
    const SxMutexBlock lock(&mutex);
    if (first.isEmpty()) first = text;
}

int DriveFailure::stop(const SxString& what, int error) {
    stopped = true;
    note(what + ": " + SxOs::errorText(error));
    return error;
}

void DriveFailure::forget() {
    const SxMutexBlock lock(&mutex);
    if (!isStopped()) first = "";
}

SxString DriveFailure::getText() const {
    const SxMutexBlock lock(&mutex);
    return first;
}
