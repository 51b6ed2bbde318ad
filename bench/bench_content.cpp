// Packing 2 GiB of files that are in the page cache. The bound is the slower of two things that packing can't
// do without: MD5 of the bytes (one thread, from memory), and a synced copy of the files. That is why reading
// and writing run on the job's thread and the digest on another, with four buffers of 10,240,000 bytes
// between them (ZqDigestPipe).

#include "Folder.h"
#include "Ratio.h"

#include <cstdlib>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

constexpr int64 N_FILES = 16;
constexpr int64 FILE_SIZE = 128 << 20;

/// The client beside this program's folder.
std::string clientPath() {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self);
    const std::string path(self, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return path.substr(0, path.rfind("/bench/")) + "/bin/tavrin";
}

/// Runs the client; gives its peak memory in kilobytes.
int64 runClient(const std::vector<std::string>& args) {
    const std::string program = clientPath();
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    int status = 0;
    struct rusage usage {};
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0 ||
        wait4(pid, &status, 0, &usage) != pid || status != 0) {
        throw std::runtime_error("the client failed");
    }
    return usage.ru_maxrss;
}

void md5FromMemory() {
    static const std::vector<char> bytes(64 << 20, 'x');
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_md5(), nullptr);
    for (int64 done = 0; done < N_FILES * FILE_SIZE; done += static_cast<int64>(bytes.size())) {
        EVP_DigestUpdate(context, bytes.data(), bytes.size());
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context, digest, nullptr);
    EVP_MD_CTX_free(context);
    benchmark::DoNotOptimize(digest);
}

// Goal: bound/ours at least 0.9, peak memory under 100 MB.
void createContent(benchmark::State& state) {
    const bench::Folder folder;
    const SxString source = folder.path + "src/", copy = folder.path + "copy", image = folder.path + "image";
    SxFSAction::mkdir_p(source);
    for (int64 i = 0; i < N_FILES; ++i) {
        bench::writeRandomFile(source + i + ".bin", FILE_SIZE, static_cast<uint64>(i));
    }
    const auto prepare = [&] {
        for (const SxString& path : {copy, image}) {
            if (SxFSAction::exists(path)) SxFSAction::rm_r(path);
        }
        bench::shell("sync && cat '" + source + "'* > /dev/null");
    };
    std::vector<double> ratios, ours, copies, digests;
    int64 peakKb = 0;
    for (auto _ : state) {
        prepare();
        const double copying = bench::secondsOf(
            [&] { bench::shell("cp -r '" + source + "' '" + copy + "' && sync -f '" + copy + "'"); });
        const double hashing = bench::secondsOf(md5FromMemory);
        prepare();
        const double creating = bench::secondsOf([&] {
            peakKb = std::max(peakKb, runClient({"--quiet", "content", "create", source.str(), image.str()}));
        });
        state.SetIterationTime(creating);
        ours.push_back(creating * 1e3);
        copies.push_back(copying * 1e3);
        digests.push_back(hashing * 1e3);
        ratios.push_back(std::max(copying, hashing) / creating);
    }
    state.counters["ours_ms"] = bench::median(ours);
    state.counters["cp_ms"] = bench::median(copies);
    state.counters["md5_ms"] = bench::median(digests);
    state.counters["bound/ours"] = bench::median(ratios);
    state.counters["peak_MB"] = static_cast<double>(peakKb) / 1000;
}
BENCHMARK(createContent)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
