#pragma once

#include "SxString.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace bench {

/// Reads a whole file into fresh memory with one call: what a reader of it is measured against.
inline void readFile(const SxString& path) {
    const int fd = open(path.ascii(), O_RDONLY);
    struct stat info {};
    if (fd < 0 || fstat(fd, &info) < 0) std::abort();
    const auto size = static_cast<size_t>(info.st_size);
    const std::unique_ptr<char[]> bytes(new char[size]);
    if (read(fd, bytes.get(), size) != info.st_size) std::abort();
    benchmark::DoNotOptimize(bytes.get());
    close(fd);
}

inline void nothing() {
}

} // namespace bench
