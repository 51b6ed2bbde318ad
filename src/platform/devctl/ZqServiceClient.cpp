#include "ZqServiceClient.h"

#include "SxDeadline.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqMachineRoot.h"
#include "ZqServiceFolder.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

using namespace ZqDriveWire;

namespace {

constexpr const char* UNIT = "src/platform/devctl/ZqServiceClient";
/// How long another client may take to start the service.
constexpr int64 START_MS = 20'000;
/// How often a call is tried: a connection of before may have ended with its service, and a service that was
/// found may just be ending.
constexpr int MAX_TRIES = 4;
/// How often a service that doesn't answer yet is asked for its progress, and how long that may take.
constexpr int64 ASK_MS = 2000;
constexpr int PROGRESS_S = 5;

std::atomic<int> cacheSize{-1};     // bytes; -1: never set
std::atomic<int> patience{INT_MAX}; // seconds

thread_local SxString lastFailure;
thread_local bool lastBusy = false, lastCutOff = false, lastForeign = false;
thread_local SxString lastTag;

/// This thread's connection. A child process must not share it, so it knows whose it is.
struct Connection {
    int fd = -1;
    int64 pid = 0;
    std::string folder;

    ~Connection() { close(); }
    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    bool open(const std::string& serviceFolder);
};

thread_local Connection connection;

bool Connection::open(const std::string& serviceFolder) {
    if (fd >= 0 && (pid != SxOs::processId() || folder != serviceFolder)) close();
    if (fd >= 0) return true;
    const std::string path = serviceFolder + ZqServiceFolder::SOCKET;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close();
        return false;
    }
    pid = SxOs::processId();
    folder = serviceFolder;
    return true;
}

/// Holds the lock under which services start and end.
class StartLock {
public:
    explicit StartLock(const std::string& folder) {
        SxOs& os = SxOs::get();
        fd = os.open(folder + ZqServiceFolder::START_LOCK,
                     SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0600);
        if (fd < 0) return;
        held = SxWait::pass(START_MS, [&] { return os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive) == 0; });
    }
    ~StartLock() {
        if (fd >= 0) SxOs::get().close(fd);
    }
    StartLock(const StartLock&) = delete;
    StartLock& operator=(const StartLock&) = delete;
    bool isHeld() const { return held; }

private:
    int fd;
    bool held = false;
};

void startService(const std::string& root, const std::string& folder) {
    ZqServiceFolder::make(folder);
    const StartLock lock(folder);
    if (!lock.isHeld()) {
        throw SxException("The drive service isn't ready after " + SxString(START_MS / 1000) + " s", UNIT,
                          __LINE__);
    }
    if (connection.open(folder)) return;
    const SxString program = ZqServiceClient::program(), failure = folder + ZqServiceFolder::START_FAILURE;
    if (SxFSAction::exists(failure)) SxFSAction::rm(failure);
    SxProcess process(program, {"--root", SxString(root), "--folder", SxString(folder)}, SxProcess::Silent);
    const int code = process.run();
    if (code == 0) {
        // Under the lock it can't end for want of clients before our connection is there.
        connection.open(folder);
        return;
    }
    const SxString why =
        SxFSAction::test_f(failure) ? SxFileIO::readUtf8(failure) : "it ended with status " + SxString(code);
    throw SxException(SxException(why, UNIT, __LINE__), "Cannot start the drive service '" + program + "'",
                      UNIT, __LINE__);
}

/// Whether the answer may wait for what programs wrote.
bool isSlow(unsigned kind) {
    switch (static_cast<Call>(kind)) {
    case Call::Eject:
    case Call::FlushLayer:
    case Call::Dismount:
    case Call::Reset:
    case Call::GuardOff:
    case Call::GuardReparse:
        return true;
    default:
        return false;
    }
}

/// How long an answer may take, in seconds. Where something is unmounted or written, which has a limit of its
/// own in the service, this counts from the last progress. A service that doesn't answer in time, as one that
/// was stopped, is told of as silent. It isn't taken for one that is gone, whose drives could be tidied up.
int answerSeconds(unsigned kind) {
    int limit = isSlow(kind) ? 90 : 20;
    if (const char* own = std::getenv("TAVRIN_ANSWER_S"))
        limit = static_cast<int>(std::strtol(own, nullptr, 10)); // for tests
    return std::min(limit, patience.load());
}

/// Asks on a connection of its own how far the disk has come that the request `body` is about; false where
/// the service can't say.
bool askProgress(unsigned kind, const std::string& body, uint64* progress) {
    Connection other;
    if (!other.open(connection.folder)) return false;
    const timeval limit = {PROGRESS_S, 0};
    ::setsockopt(other.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const auto call = static_cast<Call>(kind);
    Reader request(body);
    const SxString image = call == Call::Eject || call == Call::FlushLayer ? request.text() : SxString();
    const uint64 deviceId = call == Call::Dismount ? request.number() : 0;
    if (!send(other.fd, static_cast<unsigned>(Call::Progress), Writer().text(image).number(deviceId).body()))
        return false;
    const auto message = receive(other.fd);
    if (!message || message->kind != SUCCESS) return false;
    *progress = Reader(message->body).number();
    return true;
}

/// Waits for the begin of an answer. Where that takes long, the service is asked whether the disk goes on,
/// since a slow one may take any time for what programs have written. False where it stands still for too
/// long.
bool awaitAnswer(unsigned kind, const std::string& body) {
    SxDeadline deadline(int64{answerSeconds(kind)} * 1000);
    while (deadline.getLeftMs() > 0) {
        pollfd waiting = {connection.fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::min(deadline.getLeftMs(), ASK_MS)));
        if (ready > 0) return true;
        uint64 progress = 0;
        if (ready == 0 && isSlow(kind) && askProgress(kind, body, &progress)) deadline.note(progress);
    }
    return false;
}

/// One request and its answer; false where the connection was cut off. Raises where the service doesn't
/// answer in time, since a second request would fare no better.
bool exchange(unsigned kind, const std::string& body, Message* answer) {
    const timeval limit = {answerSeconds(kind), 0};
    ::setsockopt(connection.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(connection.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    errno = 0;
    const bool isSent = send(connection.fd, kind, body);
    if (!isSent && errno != EAGAIN) return false;
    std::optional<Message> message;
    if (isSent && awaitAnswer(kind, body)) {
        errno = 0;
        message = receive(connection.fd);
        if (!message && errno != EAGAIN) return false;
    }
    if (!message) {
        ucred peer = {};
        socklen_t size = sizeof peer;
        ::getsockopt(connection.fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        connection.close();
        throw SxException(ZqVolume::SILENT,
                          "The drive service (process " + SxString(peer.pid) + ") doesn't answer", UNIT,
                          __LINE__);
    }
    *answer = std::move(*message);
    return true;
}

/// Opens the connection, starting the service where that is wanted. False where there is none. `*isNew`: the
/// service may be another one than before, and must be told of the cache size.
bool connectTo(const std::string& root, const std::string& folder, ZqServiceClient::Start start,
               bool* isNew) {
    if (!connection.open(folder)) {
        if (start == ZqServiceClient::Start::Never && !ZqServiceFolder::hasServedDrives(folder)) return false;
        startService(root, folder);
        *isNew = true;
        if (!connection.open(folder)) return false;
    }
    if (!*isNew) return true;
    *isNew = false;
    const int bytes = cacheSize.load();
    Message ignored;
    return bytes < 0 || exchange(static_cast<unsigned>(Call::SetCacheSize),
                                 Writer().number(static_cast<uint64>(bytes)).body(), &ignored);
}

} // namespace

SxString ZqServiceClient::program() {
    const char* own = std::getenv("TAVRIN_ZQDD");
    return own && *own ? SxString(own) : ZqSysEnv::getRTERootDir() + "/zqdd";
}

bool ZqServiceClient::call(Call call, const Writer& request, Reader* answer, Start start) {
    lastFailure = SxString();
    lastTag = SxString();
    lastCutOff = lastForeign = false;
    try {
        const std::string root = ZqMachineRoot::get().str(), folder = ZqServiceFolder::of(root);
        bool isNew = false;
        for (int i = 0; i < MAX_TRIES; ++i) {
            const bool reused = connection.fd >= 0;
            if (!connectTo(root, folder, start, &isNew)) {
                connection.close();
                if (start == Start::Never && !reused) break;
                continue;
            }
            Message message;
            if (!exchange(static_cast<unsigned>(call), request.body(), &message)) {
                connection.close();
                isNew = true;
                continue;
            }
            lastForeign = message.version != VERSION;
            if (answer) *answer = Reader(message.kind == SUCCESS ? message.body : std::string());
            if (message.kind != SUCCESS) lastFailure = SxString(message.body).validUtf8();
            if (message.kind == ALREADY_MOUNTED) lastTag = ZqDiskStatus::ALREADY_MOUNTED;
            return message.kind == SUCCESS;
        }
        lastCutOff = true;
        lastFailure = "The drive service doesn't answer";
    } catch (const SxException& e) {
        lastFailure = e.toString(SxException::ShowMessage, ": ");
        if (e.hasTag(ZqVolume::SILENT)) lastTag = ZqVolume::SILENT;
    }
    return false;
}

bool ZqServiceClient::wasCutOff() {
    return lastCutOff;
}

bool ZqServiceClient::wasForeign() {
    return lastForeign;
}

bool ZqServiceClient::isServing() {
    // One that is open may lead to a service that has ended.
    connection.close();
    return connection.open(ZqServiceFolder::of(ZqMachineRoot::get().str()));
}

SxString ZqServiceClient::keyOf(const SxString& path) {
    std::string host = SxOs::hostPath(path), result;
    if (SxOs::get().canonical(host, &result) == 0) return result;
    if (host.front() != '/') host = SxOs::get().currentDir() + "/" + host;
    while (host.size() > 1 && host.back() == '/')
        host.pop_back();
    return host;
}

void ZqServiceClient::setPatience(int seconds) {
    patience = seconds;
}

void ZqServiceClient::keepCacheSize(int bytes) {
    cacheSize = bytes;
}

void ZqServiceClient::setLastFailure(const SxString& text, const SxString& tag) {
    lastFailure = text;
    lastTag = tag;
}

SxString ZqServiceClient::getLastFailure() {
    return lastFailure;
}

SxString ZqServiceClient::getLastTag() {
    return lastTag;
}

void ZqServiceClient::setBusy(bool busy) {
    lastBusy = busy;
}

bool ZqServiceClient::wasBusy() {
    return lastBusy;
}

ZqDiskStatus ZqServiceClient::readStatus(Reader* answer) {
    ZqDiskStatus status;
    status.image = answer->text();
    status.mountPath = answer->text();
    status.drive = answer->text();
    status.failure = answer->text();
    status.deviceId = answer->number();
    status.sectorSize = answer->number();
    status.cursor = answer->number();
    status.nIncluded = answer->number();
    status.queueLength = answer->number();
    status.nReads = answer->number();
    status.nHeld = answer->number();
    status.nBeyondQA = answer->number();
    status.nStoredBytes = answer->number();
    status.nDeliveredBytes = answer->number();
    status.nLayeredBytes = answer->number();
    status.nZeroBytes = answer->number();
    status.nWaits = answer->number();
    status.heldMs = answer->number();
    status.mounterPid = static_cast<int64>(answer->number());
    status.ready = answer->flag();
    status.replaced = answer->flag();
    status.removable = answer->flag();
    status.underflow = answer->flag();
    status.suspended = answer->flag();
    status.monitored = answer->flag();
    status.servicePid = static_cast<int64>(answer->number());
    status.madeNs = answer->number();
    status.isServedByKernel = answer->flag();
    status.waitSinceNs = answer->number();
    status.lastWaitFromNs = answer->number();
    status.lastWaitToNs = answer->number();
    status.notTaken = answer->text();
    return status;
}
