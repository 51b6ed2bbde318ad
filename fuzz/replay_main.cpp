// Runs the cases given by file or folder through a fuzz target, without a fuzzer.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> cases;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            for (const auto& entry : fs::directory_iterator(argv[i]))
                cases.push_back(entry.path());
        } else {
            cases.emplace_back(argv[i]);
        }
    }
    for (const fs::path& path : cases) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(in), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    }
    std::printf("%zu cases\n", cases.size());
    return cases.empty() ? 1 : 0;
}
