// Loaded before the C library into a drive service: a disk that takes its time for the files of an image.
// `$SLOW_DISK` is a file with the bytes that it takes in a second; 0 means that it takes none, until
// that changes.

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <mutex>
#include <sys/types.h>
#include <time.h>

namespace {

constexpr long MAX_RATE = 1'000'000'000;
constexpr size_t BLOCK = 4096;

long bytesPerSecond() {
    const char* name = std::getenv("SLOW_DISK");
    std::FILE* file = name ? std::fopen(name, "re") : nullptr;
    long rate = MAX_RATE;
    if (file && std::fscanf(file, "%ld", &rate) != 1) rate = MAX_RATE;
    if (file) std::fclose(file);
    return rate;
}

void pause(double seconds) {
    const auto whole = static_cast<time_t>(seconds);
    const timespec time = {whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    nanosleep(&time, nullptr);
}

void take(size_t bytes) {
    static std::mutex turn;
    const std::lock_guard<std::mutex> lock(turn);
    long rate = bytesPerSecond();
    for (; rate == 0; rate = bytesPerSecond())
        pause(0.01);
    pause(static_cast<double>(bytes) / static_cast<double>(rate));
}

} // namespace

extern "C" ssize_t pwrite(int fd, const void* bytes, size_t n, off_t offset) {
    using Call = ssize_t (*)(int, const void*, size_t, off_t);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "pwrite"));
    if (n >= BLOCK) take(n);
    return real(fd, bytes, n, offset);
}

extern "C" ssize_t pwrite64(int fd, const void* bytes, size_t n, off_t offset) {
    return pwrite(fd, bytes, n, offset);
}

extern "C" int fdatasync(int fd) {
    using Call = int (*)(int);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "fdatasync"));
    while (bytesPerSecond() == 0)
        pause(0.01);
    return real(fd);
}
