// Reads files the way an application does, and says how fast that went; for benchmarks whose own language
// would be slower than what they measure.
//
//   reader sequential FILE                   MiB/s of 1 MiB reads from start to end
//   reader files FOLDER LIST                 the same of the files that the lines of the file LIST name, one
//   after
//                                            the other; each is opened when it is its turn
//   reader replay FOLDER LIST                MiB/s of the reads that the lines of LIST tell, in their order:
//   offset
//                                            and bytes of each, and the name of the file, which stays open
//   reader random FILE COUNT SEED N_THREADS  reads/s of COUNT different blocks in random order
//   reader wait FILE N                       N threads that each wait for another part of the file, then the
//                                            number of those that got it
//   reader delays FILE COUNT SEED OUT        milliseconds of COUNT reads of a block, a line each in the file
//                                            OUT; each in another MiB of FILE's second half, after a pause

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace {

constexpr size_t BLOCK = 4096, CHUNK = 1 << 20;

class File {
public:
    explicit File(const char* path) : fd(open(path, O_RDONLY | O_CLOEXEC)) {
        struct stat info = {};
        if (fd < 0 || fstat(fd, &info) != 0)
            throw std::runtime_error(std::string(path) + ": " + std::strerror(errno));
        nBytes = static_cast<size_t>(info.st_size);
    }
    ~File() { close(fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    size_t size() const { return nBytes; }
    void readsAtRandom() const { posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM); }
    bool read(size_t offset, size_t bytes, char* data) const {
        return pread(fd, data, bytes, static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes);
    }

private:
    int fd;
    size_t nBytes;
};

template<class Work>
double secondsOf(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Runs `work` with a number from 0 in each of `n` threads.
template<class Work>
void inThreads(size_t n, Work&& work) {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < n; ++i)
        threads.emplace_back(work, i);
    for (std::thread& thread : threads)
        thread.join();
}

/// Gives its bytes.
size_t readWhole(const File& file, std::vector<char>* data) {
    for (size_t offset = 0; offset < file.size(); offset += CHUNK) {
        if (!file.read(offset, std::min(CHUNK, file.size() - offset), data->data()))
            throw std::runtime_error("cannot read at " + std::to_string(offset));
    }
    return file.size();
}

/// MiB/s of work that gives the bytes which it has read.
double speedOf(const std::function<size_t()>& work) {
    size_t nBytes = 0;
    const double seconds = secondsOf([&] { nBytes = work(); });
    return static_cast<double>(nBytes) / (1 << 20) / seconds;
}

double sequential(const File& file) {
    std::vector<char> data(CHUNK);
    return speedOf([&] { return readWhole(file, &data); });
}

template<class Line>
std::vector<Line> readList(const char* name, const std::function<bool(std::istream&, Line*)>& next) {
    std::ifstream stream(name);
    std::vector<Line> lines;
    for (Line line; next(stream, &line);)
        lines.push_back(line);
    if (lines.empty() || !stream.eof()) throw std::runtime_error(std::string("cannot read the list ") + name);
    return lines;
}

double files(const std::string& folder, const char* list) {
    const auto paths = readList<std::string>(list, [&](std::istream& stream, std::string* path) {
        std::string name;
        if (!std::getline(stream, name)) return false;
        *path = folder + "/" + name;
        return true;
    });
    std::vector<char> data(CHUNK);
    return speedOf([&] {
        size_t nBytes = 0;
        for (const std::string& path : paths)
            nBytes += readWhole(File(path.c_str()), &data);
        return nBytes;
    });
}

struct Read {
    size_t offset = 0, bytes = 0;
    std::string path;
};

double replay(const std::string& folder, const char* list) {
    const auto reads = readList<Read>(list, [&](std::istream& stream, Read* read) {
        std::string name;
        if (!(stream >> read->offset >> read->bytes) || !std::getline(stream.ignore(), name)) return false;
        read->path = folder + "/" + name;
        return read->bytes <= CHUNK;
    });
    std::vector<char> data(CHUNK);
    std::unordered_map<std::string, File> open;
    return speedOf([&] {
        size_t nBytes = 0;
        for (const Read& read : reads) {
            const File& file = open.try_emplace(read.path, read.path.c_str()).first->second;
            if (!file.read(read.offset, read.bytes, data.data()))
                throw std::runtime_error(read.path + ": cannot read at " + std::to_string(read.offset));
            nBytes += read.bytes;
        }
        return nBytes;
    });
}

double random(const File& file, size_t count, unsigned long seed, size_t nThreads) {
    std::vector<size_t> order(file.size() / BLOCK);
    std::iota(order.begin(), order.end(), size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937_64(seed));
    order.resize(std::min(count, order.size()));
    std::atomic<size_t> next{0}, nFailed{0};
    const double seconds = secondsOf([&] {
        inThreads(nThreads, [&](size_t) {
            std::vector<char> data(BLOCK);
            for (size_t i = next++; i < order.size(); i = next++) {
                if (!file.read(order[i] * BLOCK, BLOCK, data.data())) ++nFailed;
            }
        });
    });
    if (nFailed != 0) throw std::runtime_error(std::to_string(nFailed) + " reads failed");
    return static_cast<double>(order.size()) / seconds;
}

size_t wait(const File& file, size_t n) {
    std::atomic<size_t> nGot{0};
    const size_t step = file.size() / (n + 2) / BLOCK * BLOCK;
    inThreads(n, [&](size_t i) {
        std::vector<char> data(BLOCK);
        if (file.read((i + 1) * step, BLOCK, data.data())) ++nGot;
    });
    return nGot;
}

void delays(const File& file, size_t count, unsigned long seed, const char* out) {
    std::ofstream stream(out, std::ios::binary); // it being there says that the reads begin
    file.readsAtRandom();
    const size_t half = file.size() / CHUNK / 2;
    std::vector<size_t> order(half);
    std::iota(order.begin(), order.end(), half);
    std::mt19937_64 numbers(seed);
    std::shuffle(order.begin(), order.end(), numbers);
    if (count > order.size()) throw std::runtime_error("the file is too small");
    order.resize(count);
    std::vector<char> data(BLOCK);
    for (const size_t chunk : order) {
        const size_t offset = chunk * CHUNK + numbers() % (CHUNK / BLOCK) * BLOCK;
        // Up to 150 ms, in which a download that made way fills its link again.
        std::this_thread::sleep_for(std::chrono::milliseconds(50 + numbers() % 100));
        bool read = false;
        const double seconds = secondsOf([&] { read = file.read(offset, BLOCK, data.data()); });
        if (!read) throw std::runtime_error("cannot read at " + std::to_string(offset));
        stream << seconds * 1000 << '\n';
    }
    if (!stream.flush()) throw std::runtime_error(std::string("cannot write ") + out);
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    try {
        if (words.size() == 2 && words[0] == "sequential") {
            std::printf("%.1f\n", sequential(File(argv[2])));
        } else if (words.size() == 3 && words[0] == "files") {
            std::printf("%.1f\n", files(words[1], argv[3]));
        } else if (words.size() == 3 && words[0] == "replay") {
            std::printf("%.1f\n", replay(words[1], argv[3]));
        } else if (words.size() == 5 && words[0] == "random") {
            std::printf("%.1f\n", random(File(argv[2]), std::stoul(words[2]), std::stoul(words[3]),
                                         std::stoul(words[4])));
        } else if (words.size() == 5 && words[0] == "delays") {
            delays(File(argv[2]), std::stoul(words[2]), std::stoul(words[3]), argv[5]);
        } else if (words.size() == 3 && words[0] == "wait") {
            std::printf("%zu\n", wait(File(argv[2]), std::stoul(words[2])));
        } else {
            std::fprintf(stderr,
                         "usage: reader sequential FILE | files FOLDER LIST | replay FOLDER LIST | random "
                         "FILE COUNT SEED N_THREADS | wait FILE N | delays FILE COUNT SEED OUT\n");
            return 2;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "reader: %s\n", e.what());
        return 1;
    }
    return 0;
}
