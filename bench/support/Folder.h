#pragma once

#include "SxFSAction.h"
#include "SxFileIO.h"

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>

namespace bench {

/// A folder that is removed at the end; in /tmp where `base` is null.
class Folder {
public:
    explicit Folder(const char* base = std::getenv("TMPDIR")) {
        std::string name = std::string(base ? base : "/tmp") + "/tavrin-bench-XXXXXX";
        if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a temporary folder");
        path = name + "/";
    }
    ~Folder() { SxFSAction::rm_r(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    SxString path; ///< with its trailing slash
};

/// Runs a shell command; ends the run where it fails.
inline void shell(const SxString& command) {
    if (std::system(command.ascii()) != 0) throw std::runtime_error("failed: " + command.str());
}

/// Writes `bytes` random bytes.
inline void writeRandomFile(const SxString& path, int64 bytes, uint64 seed) {
    std::mt19937_64 random(seed);
    SxArray<uint64> chunk(1 << 17);
    SxFileIO file(path, "wb");
    for (int64 done = 0; done < bytes; done += chunk.getSize() * 8) {
        for (uint64& value : chunk)
            value = random();
        file.writeBuffer(chunk.data(), std::min<int64>(bytes - done, chunk.getSize() * 8));
    }
}

} // namespace bench
