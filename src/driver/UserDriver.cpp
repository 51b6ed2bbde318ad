#include "UserDriver.h"

#include "Mounts.h"
#include "SxException.h"
#include "SxTime.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/UserDriver";
/// How long a driver whose volume is unmounted may take to end by itself.
constexpr int64 END_MS = 2000;

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

void UserDriver::stop() {
    if (!process) return;
    if (!SxWait::pass(END_MS, [this] { return !process->isRunning(); })) process->kill();
    process->wait();
    process.reset();
}
