#include "UserDriver.h"

#include "Mounts.h"
#include "SxDeadline.h"
#include "SxException.h"
#include "SxTime.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/UserDriver";

bool isInPath(const std::string& program) {
    const char* folders = std::getenv("PATH");
    for (const SxString& folder : SxString(folders ? folders : "/usr/bin:/bin").tokenize(':')) {
        if (::access((folder + "/" + program).ascii(), X_OK) == 0) return true;
    }
    return false;
}

std::string programFor(const SxString& type) {
    return type == "ext4" ? "fuse2fs" : "squashfuse";
}

} // namespace

void UserDriver::requireMeans(const SxString& type) {
    if (type == "erofs") {
        throw SxException(
            "An EROFS volume can't be mounted without root: run as root, or build the image with "
            "--fs ext4",
            UNIT, __LINE__);
    }
    const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0) {
        throw SxException(
            "Mounting without root needs a /dev/fuse that users may open: run as root, or let root "
            "do 'chmod 666 /dev/fuse'",
            UNIT, __LINE__);
    }
    ::close(fuse);
    if (!isInPath("fusermount3")) {
        throw SxException(
            "Mounting without root needs fusermount3: run as root, or install the package fuse3", UNIT,
            __LINE__);
    }
    const std::string program = programFor(type);
    if (!isInPath(program)) {
        throw SxException("Mounting a volume of type " + type + " without root needs " + SxString(program) +
                              ": run as root, or install the package of that name",
                          UNIT, __LINE__);
    }
}

void UserDriver::start(const SxString& type, const SxString& file, const SxString& folder, bool readOnly,
                       const std::function<bool()>& stopped) {
    const std::string program = programFor(type);
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
