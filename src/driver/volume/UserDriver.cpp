#include "UserDriver.h"

#include "Mounts.h"
#include "SxDeadline.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqDriveMeans.h"

#include <csignal>

namespace {

constexpr const char* UNIT = "src/driver/UserDriver";

} // namespace

void UserDriver::start(const SxString& type, const SxString& file, const SxString& folder, bool readOnly,
                       const std::function<bool()>& stopped) {
    const std::string program = ZqDriveMeans::driverOf(type).str();
    const SxString options = readOnly || type != "ext4" ? "ro" : "rw,fakeroot";
    process = std::make_unique<SxProcess>(
        SxString(program), SxList<SxString>{"-f", "-o", options, file, folder}, SxProcess::OutputToError);
    process->start();
    while (!Mounts::isMounted(folder.str())) {
        if (!process->isRunning()) {
            throw SxException("'" + SxString(program) + "' ended with status " + SxString(process->wait()),
                              UNIT, __LINE__);
        }
        if (stopped()) throw SxException("The disk was ejected", UNIT, __LINE__);
        SxTime::msleep(SxWait::LOOK_MS);
    }
}

SxString UserDriver::stop(bool busy, int64 limitMs, const std::function<uint64()>& progress) {
    if (!process) return {};
    // A mount that was detached lives on with its users, and the driver with it, unless it is told to end.
    if (busy) ::kill(static_cast<pid_t>(process->getId()), SIGTERM);
    SxDeadline deadline(limitMs);
    while (process->isRunning()) {
        deadline.note(progress());
        if (deadline.getLeftMs() <= 0) break;
        SxTime::msleep(SxWait::LOOK_MS);
    }
    SxString failure;
    if (process->isRunning()) {
        failure = "its driver stood still for " + SxString(limitMs / 1000) + " s and was killed";
        process->kill();
    }
    const int code = process->wait();
    // What it could not write is known to whoever serves its file; a crash is not.
    constexpr int SIGNALLED = 128;
    if (failure.isEmpty() && code > SIGNALLED) failure = "its driver ended with status " + SxString(code);
    process.reset();
    return failure;
}
