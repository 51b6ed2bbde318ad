#include "ControlServer.h"
#include "DriverLog.h"
#include "Helper.h"
#include "Leftovers.h"
#include "StarterTies.h"
#include "SxException.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqRootOwner.h"
#include "ZqServiceFolder.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

// The drive service. It serves the disks of one machine root, and is started by the first call of the control
// library that needs it. A reader whose block is missing waits in the kernel, and a process that reads from a
// drive which it serves itself could never end when it is killed. So disks live in a process of their own,
// which outlives its clients:
//
//   ControlServer    requests of clients of the same user
//   Service          the table of disks
//     Disk           one image: state, letter, tear-down
//       VirtualDisk  map, cursor, delivered blocks, held requests, write layer, trace; no FUSE, no mount
//       FuseFront    the disk as one file; a held read is a stored request, never a waiting thread
//       Helper       mount, unmount, sync, loop and overlay calls, each in a process of its own
//
// How it is called:
//
//   zqdd --root MACHINE_ROOT --folder SERVICE_FOLDER    goes to the background when it listens; the start
//                                                       lock is held by whoever starts it
//   zqdd helper OPERATION ...                           see HelperOps
//
// $TAVRIN_ZQDD_IDLE_MS: how long it stays with nothing to do, 30000 where not set. $TAVRIN_ZQDD_LOG: its log
// file, else `zqdd.log` in its folder.

namespace {

constexpr int64 IDLE_MS = 30'000;
/// How long another service that is about to end is waited for.
constexpr int64 END_MS = 15'000;
/// Bytes of a log; one that has more is put aside as `.old` when a service starts.
constexpr int64 MAX_LOG = 1 << 20;

std::atomic<bool> stopRequested{false};

void requestStop(int) {
    stopRequested = true;
}

/// Where memory is short, the kernel writes out what programs wrote to a drive, and lets whoever asks for
/// memory wait for it; this process would wait for itself. To be called before the first thread, since
/// threads inherit it. It takes a right that users lack, whose drives are written to by a process of their
/// own, and that containers may lack, too: then the log says so.
void forbidReclaimThroughDrives() {
#ifndef PR_SET_IO_FLUSHER
    constexpr int PR_SET_IO_FLUSHER = 57;
#endif
    if (::prctl(PR_SET_IO_FLUSHER, 1, 0, 0, 0) != 0 && ::geteuid() == 0)
        driverLog("can't be kept out of reclaim: " + SxOs::errorText(errno));
}

SxString option(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
    }
    return {};
}

int64 idleMs() {
    const char* text = std::getenv("TAVRIN_ZQDD_IDLE_MS");
    bool bad = !text;
    const int64 value = bad ? 0 : SxString(text).toInt64(&bad);
    return bad ? IDLE_MS : value;
}

/// The log takes the place of standard error, and nothing of the client's stays open.
void redirectOutput(const std::string& folder) {
    const char* own = std::getenv("TAVRIN_ZQDD_LOG");
    const std::string file = own && *own ? std::string(own) : folder + "zqdd.log";
    struct stat info = {};
    if (::stat(file.c_str(), &info) == 0 && info.st_size > MAX_LOG) {
        std::rename(file.c_str(), (file + ".old").c_str());
    }
    const int log = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(log >= 0 ? log : null, STDERR_FILENO);
    if (log > STDERR_FILENO) ::close(log);
    if (null > STDERR_FILENO) ::close(null);
}

/// Takes the lock that a service holds for its whole life, since one service lives at a time. That is done
/// before the sweep: the start lock goes with a client that dies while it starts a service, and the next
/// service would take live drives for remains. A service that is about to end is waited for; raises where it
/// doesn't.
void takeLifeLock(const SxString& folder) {
    SxOs& os = SxOs::get();
    const int fd = os.open((folder + ZqServiceFolder::LIFE_LOCK).str(),
                           SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0600);
    if (fd >= 0 && SxWait::pass(END_MS, [&] { return os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive) == 0; }))
        return;
    throw SxException("Another drive service of this machine root is still running", "src/driver/main",
                      __LINE__);
}

int serve(const SxString& root, const SxString& folder, int readyFd) {
    try {
        takeLifeLock(folder);
        Leftovers::Disks served = Leftovers::findServed(folder);
        served.merge(Leftovers::sweep(root, folder, served, [&](const SxString& image, bool isWritten) {
            Service::noteLeft(folder, image, isWritten);
        }));
        Service service(root, folder);
        service.takeOver(served);
        ControlServer server(&service, folder.str(), idleMs());
        server.listen();
        [[maybe_unused]] const ssize_t written = ::write(readyFd, "1", 1);
        ::close(readyFd);
        server.run(stopRequested);
        server.end();
        return EXIT_SUCCESS;
    } catch (const std::exception& e) {
        const SxString text = e.what();
        driverLog(text);
        SxFileIO::writeAtomic(folder + ZqServiceFolder::START_FAILURE, text, 0600);
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "helper") == 0) return Helper::main(argc, argv);
    const SxString root = option(argc, argv, "--root"), folder = option(argc, argv, "--folder");
    if (root.isEmpty() || folder.isEmpty()) {
        std::fputs("usage: zqdd --root MACHINE_ROOT --folder SERVICE_FOLDER\n", stderr);
        return 2;
    }
    ZqRootOwner::keep(root);
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return EXIT_FAILURE;
    const pid_t child = ::fork();
    if (child < 0) return EXIT_FAILURE;
    if (child > 0) {
        ::close(ready[1]);
        char mark = 0;
        return ::read(ready[0], &mark, 1) == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    ::close(ready[0]);
    ::setsid();
    ::umask(0077);
    if (::chdir("/") != 0) return EXIT_FAILURE;
    redirectOutput(folder.str());
    if (const SxString kept = StarterTies::leave(); !kept.isEmpty())
        driverLog("goes on with what its starter has: " + kept);
    forbidReclaimThroughDrives();
    std::signal(SIGPIPE, SIG_IGN);
    // A limit that can't be lifted then fails one write, and not all drives.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    return serve(root, folder, ready[1]);
}
