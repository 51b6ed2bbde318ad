#include "FuseFront.h"

#include "DriverLog.h"
#include "FuseWorker.h"
#include "Mounts.h"
#include "RequestSpace.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxQueue.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqServiceFolder.h"

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/FuseFront";
/// Threads that serve requests: more than the machine has cores only wake each other.
constexpr int64 MIN_WORKERS = 2, MAX_WORKERS = 8;
/// Requests of a file system or a loop device count as background ones, and the kernel sends no more than
/// this many at a time. Held reads are among them: at the kernel's usual 12, a few would stop the whole disk.
constexpr unsigned MAX_BACKGROUND = 4096;
/// Wakes that may come before their request is stored: at most one for each thread that serves requests, and
/// room for some that came too late.
constexpr size_t MAX_EARLY = 256;
constexpr fuse_ino_t FILE_INODE = 2;
/// How long threads may take to see that the connection has ended.
constexpr int64 END_MS = 200;
constexpr double FOREVER = 1e9; // seconds

FuseFront* front(fuse_req_t req) {
    return static_cast<FuseFront*>(fuse_req_userdata(req));
}

struct stat attributes(const FuseFront& front, fuse_ino_t ino) {
    struct stat info = {};
    info.st_ino = ino;
    info.st_uid = ::geteuid();
    info.st_gid = ::getegid();
    if (ino == FUSE_ROOT_ID) {
        info.st_mode = S_IFDIR | 0700;
        info.st_nlink = 2;
    } else {
        info.st_mode = S_IFREG | 0600;
        info.st_nlink = 1;
        info.st_size = static_cast<off_t>(front.getDisk()->getSizeRaw());
        info.st_blksize = ZqBlocks::SIZE;
    }
    return info;
}

void opInit(void*, fuse_conn_info* connection) {
    // Copying is faster here than splicing pages that are then read in another order.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE |
                                               FUSE_CAP_SPLICE_MOVE | FUSE_CAP_WRITEBACK_CACHE);
    connection->want |= connection->capable & (FUSE_CAP_ASYNC_DIO | FUSE_CAP_ASYNC_READ);
    connection->max_background = MAX_BACKGROUND;
    connection->congestion_threshold = MAX_BACKGROUND;
    connection->max_write = MAX_REQUEST;
    connection->max_readahead = MAX_REQUEST;
}

void opLookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    if (parent != FUSE_ROOT_ID || std::strcmp(name, ZqServiceFolder::DISK_FILE) != 0) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    fuse_entry_param entry = {};
    entry.ino = FILE_INODE;
    entry.attr = attributes(*front(req), FILE_INODE);
    entry.attr_timeout = entry.entry_timeout = FOREVER;
    fuse_reply_entry(req, &entry);
}

void opGetattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    const struct stat info = attributes(*front(req), ino);
    fuse_reply_attr(req, &info, FOREVER);
}

void opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* file) {
    if (ino != FILE_INODE) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    // Direct I/O, whatever mounts the file: what is read stays in the volume's cache. A second copy in that
    // of this file halves the sequential rate (EROFS, warm: 785 instead of 1,540 MiB/s).
    file->direct_io = 1;
    fuse_reply_open(req, file);
}

void opRead(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info*) {
    front(req)->read(req, static_cast<uint64>(offset), size);
}

void opWrite(fuse_req_t req, fuse_ino_t, const char* data, size_t size, off_t offset, fuse_file_info*) {
    front(req)->write(req, static_cast<uint64>(offset), data, size);
}

void opFsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info*) {
    front(req)->sync(req);
}

/// What the kernel makes of a discard, and of writing zeros.
void opFallocate(fuse_req_t req, fuse_ino_t, int mode, off_t offset, off_t length, fuse_file_info*) {
    constexpr int KEEP = FALLOC_FL_KEEP_SIZE;
    if (mode != (FALLOC_FL_PUNCH_HOLE | KEEP) && mode != (FALLOC_FL_ZERO_RANGE | KEEP)) {
        fuse_reply_err(req, EOPNOTSUPP);
        return;
    }
    front(req)->discard(req, static_cast<uint64>(offset), static_cast<uint64>(length));
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops ops = {};
    ops.init = opInit;
    ops.lookup = opLookup;
    ops.getattr = opGetattr;
    ops.open = opOpen;
    ops.read = opRead;
    ops.write = opWrite;
    ops.fsync = opFsync;
    ops.fallocate = opFallocate;
    return ops;
}

} // namespace

/// Finishes requests that were held.
class FuseFront::Finisher : public SxSystemThread {
public:
    explicit Finisher(FuseFront* front_) : owner(front_) { setThreadName("fuse held"); }
    void push(Request request) { todo.push(std::move(request)); }
    void end() { todo.close(); }

protected:
    void main() override {
        space.adopt();
        while (auto request = todo.pop())
            owner->finish(std::move(*request));
    }

private:
    FuseFront* owner;
    RequestSpace space;
    SxQueue<Request> todo;
};

/// Carries out syncs.
class FuseFront::Syncer : public SxSystemThread {
public:
    explicit Syncer(FuseFront* front_) : owner(front_) { setThreadName("fuse sync"); }
    void push(fuse_req* req) { todo.push(req); }
    void end() { todo.close(); }

protected:
    void main() override {
        while (const auto req = todo.pop()) {
            owner->answer(*req, true, [&] {
                const int error = owner->disk->sync();
                // What found no room stays to be written, and the next sync may find some.
                owner->syncError = error == ENOSPC ? error : 0;
                if (error != ENOSPC) owner->noteWriteError(error);
                fuse_reply_err(*req, error);
            });
        }
    }

private:
    FuseFront* owner;
    SxQueue<fuse_req*> todo;
};

FuseFront::FuseFront(VirtualDisk* disk_) : disk(disk_) {
    const SxMutexBlock block(&heldMutex);
    early.reserve(MAX_EARLY);
}

FuseFront::~FuseFront() {
    end();
}

void FuseFront::mount(const std::string& mountPoint, const std::string& name) {
    const std::string source = "fsname=" + name;
    const char* arguments[] = {"zqdd", "-o", source.c_str(), "-o", "nosuid,nodev,noexec", nullptr};
    fuse_args args = FUSE_ARGS_INIT(5, const_cast<char**>(arguments));
    const fuse_lowlevel_ops ops = operations();
    session = fuse_session_new(&args, &ops, sizeof ops, this);
    fuse_opt_free_args(&args);
    if (!session) throw SxException("Cannot make a FUSE session", UNIT, __LINE__);
    if (fuse_session_mount(session, mountPoint.c_str()) != 0) {
        fuse_session_destroy(session);
        session = nullptr;
        throw SxException("Cannot mount the disk's file at '" + SxString(mountPoint) +
                              "': is /dev/fuse there, and may it be opened?",
                          UNIT, __LINE__);
    }
    {
        const SxMutexBlock block(&mountMutex);
        mountedAt = mountPoint;
    }
    finisher = std::make_unique<Finisher>(this);
    finisher->start();
    syncer = std::make_unique<Syncer>(this);
    syncer->start();
    const int64 nWorkers = std::clamp(SxSystemThread::getNCores(), MIN_WORKERS, MAX_WORKERS);
    const int fd = fuse_session_fd(session), flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    for (int64 i = 0; i < nWorkers; ++i) {
        workers.push_back(std::make_unique<FuseWorker>(session, &looking, &ended));
        workers.back()->prepare();
    }
    ::fcntl(fd, F_SETFL, flags);
    for (const auto& worker : workers)
        worker->start();
}

void FuseFront::abort() {
    const SxMutexBlock block(&mountMutex);
    if (!mountedAt.empty()) Mounts::abort(mountedAt);
}

void FuseFront::end() {
    if (!session) return;
    // The connection ends before the session does. What libfuse reads after the session's end is dropped, and
    // whoever had sent it would wait for ever.
    abort();
    {
        const SxMutexBlock block(&mountMutex);
        const int error = mountedAt.empty() ? 0 : Mounts::detach(mountedAt);
        // The abort may have unmounted it already.
        if (error != 0 && error != EINVAL)
            driverLog("cannot unmount " + SxString(mountedAt) + ": " + SxOs::errorText(error));
        mountedAt.clear();
    }
    endWorkers();
    // Where mounting has failed, they may be missing.
    if (finisher) {
        finisher->end();
        finisher->wait();
    }
    if (syncer) {
        syncer->end();
        syncer->wait();
    }
    {
        // What is still held has nobody to be answered to; the requests must be given back all the same.
        const SxMutexBlock block(&heldMutex);
        for (const auto& [token, request] : held)
            fuse_reply_err(request.req, EIO);
        held.clear();
    }
    // Nothing is mounted at this point; libfuse frees what it has noted of the mount.
    fuse_session_unmount(session);
    fuse_session_destroy(session);
    session = nullptr;
}

/// A mount that somebody has detached by hand has no path by which its connection could be ended. Where a
/// program still uses it, or the volume, a signal wakes the threads, and they leave the connection. The
/// kernel ends it with its last descriptor, which goes with the session.
void FuseFront::endWorkers() {
    const auto haveEnded = [this] {
        return std::none_of(workers.begin(), workers.end(),
                            [](const auto& worker) { return worker->isRunning(); });
    };
    if (!SxWait::pass(END_MS, haveEnded)) {
        fuse_session_exit(session);
        while (!SxWait::pass(SxWait::LOOK_MS, haveEnded)) {
            for (const auto& worker : workers)
                worker->interrupt();
        }
    }
    for (const auto& worker : workers)
        worker->wait();
    workers.clear();
}

/// Answers a request by what `serve` does, or stores it. Where `serve` finds no memory, or raises otherwise,
/// nobody has the request: it is answered here, with ENOMEM or EIO, and the thread goes on. A thread that
/// ended would leave its request unanswered for ever, and the finisher all held ones.
template<class Serve>
void FuseFront::answer(fuse_req* req, bool isWrite, Serve&& serve) {
    int error = 0;
    try {
        return serve();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (const std::exception&) {
        error = EIO;
    }
    const auto token = reinterpret_cast<uint64>(req);
    disk->forget(token);
    {
        const SxMutexBlock block(&heldMutex);
        std::erase(early, token);
    }
    if (isWrite) noteWriteError(error);
    fuse_reply_err(req, error);
}

void FuseFront::read(fuse_req* req, uint64 offset, uint64 size) {
    const uint64 end = disk->getSizeRaw();
    if (offset >= end || size > MAX_REQUEST) {
        if (size > MAX_REQUEST) {
            fuse_reply_err(req, EINVAL);
        } else {
            fuse_reply_buf(req, nullptr, 0);
        }
        return;
    }
    const auto n = static_cast<uint32>(std::min(size, end - offset));
    answer(req, false, [&] {
        int error = 0;
        switch (disk->read(offset, n, RequestSpace::get(), reinterpret_cast<uint64>(req), false, &error)) {
        case VirtualDisk::Result::Done:
            fuse_reply_buf(req, RequestSpace::get(), n);
            break;
        case VirtualDisk::Result::Failed:
            fuse_reply_err(req, error);
            break;
        case VirtualDisk::Result::Held:
            hold({req, offset, n, Request::Read, {}});
            break;
        }
    });
}

void FuseFront::sync(fuse_req* req) {
    answer(req, true, [&] { syncer->push(req); });
}

void FuseFront::noteWriteError(int error) {
    int none = 0;
    if (error != 0) writeError.compare_exchange_strong(none, error);
}

void FuseFront::write(fuse_req* req, uint64 offset, const char* data, uint64 size) {
    const uint64 end = disk->getSizeRaw();
    if (offset > end || size > MAX_REQUEST || size > end - offset) {
        fuse_reply_err(req, EFBIG);
        return;
    }
    const auto n = static_cast<uint32>(size);
    answer(req, true, [&] {
        int error = 0;
        switch (disk->write(offset, n, data, reinterpret_cast<uint64>(req), false, &error)) {
        case VirtualDisk::Result::Done:
            nWritten += n;
            fuse_reply_write(req, n);
            break;
        case VirtualDisk::Result::Failed:
            noteWriteError(error);
            fuse_reply_err(req, error);
            break;
        case VirtualDisk::Result::Held:
            hold({req, offset, n, Request::Write, std::vector<char>(data, data + n)});
            break;
        }
    });
}

void FuseFront::discard(fuse_req* req, uint64 offset, uint64 size) {
    answer(req, true, [&] {
        int error = 0;
        const auto result = disk->discard(offset, size, reinterpret_cast<uint64>(req), false, &error);
        if (result == VirtualDisk::Result::Held) {
            hold({req, offset, size, Request::Discard, {}});
        } else {
            fuse_reply_err(req, error);
        }
    });
}

void FuseFront::hold(Request request) {
    const auto token = reinterpret_cast<uint64>(request.req);
    {
        const SxMutexBlock block(&heldMutex);
        if (std::erase(early, token) == 0) {
            held.emplace(token, std::move(request));
            return;
        }
    }
    finisher->push(std::move(request));
}

void FuseFront::wake(uint64 token) {
    Request request;
    {
        const SxMutexBlock block(&heldMutex);
        const auto found = held.find(token);
        if (found == held.end()) {
            early.push_back(token);
            return;
        }
        request = std::move(found->second);
        held.erase(found);
    }
    // The caller may have others to wake, and has nothing to do with a failure of this one.
    fuse_req* const req = request.req;
    answer(req, request.kind != Request::Read, [&] { finisher->push(std::move(request)); });
}

void FuseFront::finish(Request request) {
    fuse_req* const req = request.req;
    answer(req, request.kind != Request::Read, [&] { tryAgain(std::move(request)); });
}

void FuseFront::tryAgain(Request request) {
    const auto token = reinterpret_cast<uint64>(request.req);
    if (request.kind == Request::Discard) {
        int error = 0;
        const auto result = disk->discard(request.offset, request.size, token, true, &error);
        if (result == VirtualDisk::Result::Held) return hold(std::move(request));
        fuse_reply_err(request.req, error);
        return;
    }
    const bool isWrite = request.kind == Request::Write;
    const auto size = static_cast<uint32>(request.size);
    int error = 0;
    const VirtualDisk::Result result =
        isWrite ? disk->write(request.offset, size, request.data.data(), token, true, &error)
                : disk->read(request.offset, size, RequestSpace::get(), token, true, &error);
    if (result == VirtualDisk::Result::Held) {
        hold(std::move(request));
    } else if (result == VirtualDisk::Result::Failed) {
        if (isWrite) noteWriteError(error);
        fuse_reply_err(request.req, error);
    } else if (isWrite) {
        nWritten += request.size;
        fuse_reply_write(request.req, request.size);
    } else {
        fuse_reply_buf(request.req, RequestSpace::get(), request.size);
    }
}
