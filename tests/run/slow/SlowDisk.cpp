// Loaded before the C library into a drive service: a disk that takes its time for the files of an image.
// `$SLOW_DISK` is a file with the bytes that it takes in a second; 0 means that it takes none, until
// that changes, and -1 that it can't be read. A path after the number: only what lies below that is slow,
// and with 0 it isn't told of either.
// `$SLOW_OPEN` is a file with a path; what lies below that is neither opened nor looked at until it changes.
// While a file `$NO_THREADS` is there, the service gets no thread.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr long MAX_RATE = 1'000'000'000;
constexpr size_t BLOCK = 4096;

/// Whether the file lies below the path.
bool isBelow(int fd, const char* path) {
    char link[32] = {}, target[4096] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return readlink(link, target, sizeof target - 1) > 0 &&
           std::strncmp(target, path, std::strlen(path)) == 0;
}

/// `*isPlace` tells whether that is the rate of what lies below a path.
long bytesPerSecond(int fd, bool* isPlace = nullptr) {
    const char* name = std::getenv("SLOW_DISK");
    std::FILE* file = name ? std::fopen(name, "re") : nullptr;
    long rate = MAX_RATE;
    char path[4096] = {};
    const int n = file ? std::fscanf(file, "%ld %4095s", &rate, path) : 0;
    if (file) std::fclose(file);
    if (isPlace) *isPlace = n == 2;
    return n < 1 || (n == 2 && !isBelow(fd, path)) ? MAX_RATE : rate;
}

void pause(double seconds) {
    const auto whole = static_cast<time_t>(seconds);
    const timespec time = {whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    nanosleep(&time, nullptr);
}

void take(int fd, size_t bytes) {
    static std::mutex turn;
    long rate = bytesPerSecond(fd);
    for (; rate == 0; rate = bytesPerSecond(fd))
        pause(0.01);
    if (rate == MAX_RATE || rate < 0) return;
    const std::lock_guard<std::mutex> lock(turn);
    pause(static_cast<double>(bytes) / static_cast<double>(rate));
}

/// Whether the service can't read it.
bool isBad(int fd) {
    return std::strcmp(program_invocation_short_name, "zqdd") == 0 && bytesPerSecond(fd) < 0;
}

/// Whether the service is not even told of it.
bool isStuck(int fd) {
    bool isPlace = false;
    return std::strcmp(program_invocation_short_name, "zqdd") == 0 && bytesPerSecond(fd, &isPlace) == 0 &&
           isPlace;
}

/// Whether the service is not to open it yet; its clients may.
bool isHeldBack(const char* path) {
    const char* name = std::getenv("SLOW_OPEN");
    if (!name || std::strcmp(program_invocation_short_name, "zqdd") != 0 || std::strcmp(path, name) == 0)
        return false;
    std::FILE* file = std::fopen(name, "re");
    char held[4096] = {};
    const size_t n = file ? std::fread(held, 1, sizeof held - 1, file) : 0;
    if (file) std::fclose(file);
    return n > 0 && std::strncmp(path, held, n) == 0;
}

int openLate(const char* call, const char* path, int flags, unsigned mode) {
    using Call = int (*)(const char*, int, ...);
    while (isHeldBack(path))
        pause(0.01);
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, call))(path, flags, mode);
}

unsigned modeOf(int flags, va_list more) {
    return (flags & O_CREAT) != 0 ? va_arg(more, unsigned) : 0;
}

} // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const unsigned mode = modeOf(flags, more);
    va_end(more);
    return openLate("open", path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const unsigned mode = modeOf(flags, more);
    va_end(more);
    return openLate("open64", path, flags, mode);
}

extern "C" int stat(const char* path, struct stat* info) noexcept {
    using Call = int (*)(const char*, struct stat*);
    while (isHeldBack(path))
        pause(0.01);
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, "stat"))(path, info);
}

extern "C" int fstat(int fd, struct stat* info) noexcept {
    using Call = int (*)(int, struct stat*);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "fstat"));
    while (isStuck(fd))
        pause(0.01);
    return real(fd, info);
}

extern "C" ssize_t pwrite(int fd, const void* bytes, size_t n, off_t offset) {
    using Call = ssize_t (*)(int, const void*, size_t, off_t);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "pwrite"));
    if (n >= BLOCK) take(fd, n);
    return real(fd, bytes, n, offset);
}

extern "C" ssize_t pwrite64(int fd, const void* bytes, size_t n, off_t offset) {
    return pwrite(fd, bytes, n, offset);
}

extern "C" ssize_t pread(int fd, void* bytes, size_t n, off_t offset) {
    using Call = ssize_t (*)(int, void*, size_t, off_t);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "pread"));
    if (!isBad(fd)) return real(fd, bytes, n, offset);
    errno = EIO;
    return -1;
}

extern "C" ssize_t pread64(int fd, void* bytes, size_t n, off_t offset) {
    return pread(fd, bytes, n, offset);
}

extern "C" ssize_t preadv2(int fd, const iovec* parts, int nParts, off_t offset, int flags) {
    using Call = ssize_t (*)(int, const iovec*, int, off_t, int);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "preadv2"));
    if (!isBad(fd)) return real(fd, parts, nParts, offset, flags);
    errno = EIO;
    return -1;
}

extern "C" ssize_t preadv64v2(int fd, const iovec* parts, int nParts, off_t offset, int flags) {
    return preadv2(fd, parts, nParts, offset, flags);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*begin)(void*),
                              void* argument) noexcept {
    using Call = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    const char* name = std::getenv("NO_THREADS");
    if (name && std::strcmp(program_invocation_short_name, "zqdd") == 0 && access(name, F_OK) == 0)
        return EAGAIN;
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, "pthread_create"))(thread, attributes, begin, argument);
}

extern "C" int fdatasync(int fd) {
    using Call = int (*)(int);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "fdatasync"));
    while (bytesPerSecond(fd) == 0)
        pause(0.01);
    return real(fd);
}
