#include "ZqMemoryFacts.h"

#include "SxException.h"
#include "ZqFactFiles.h"

#include <algorithm>
#include <map>

namespace {

/// The figures of the file by their names, in KiB.
std::map<std::string, int64, std::less<>> figuresOf(const std::string& text) {
    std::map<std::string, int64, std::less<>> figures;
    for (const std::string_view line : ZqFactFiles::lines(text)) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view value = ZqFactFiles::trim(line.substr(colon + 1));
        if (value.ends_with("kB")) value = ZqFactFiles::trim(value.substr(0, value.size() - 2));
        if (const auto number = ZqFactFiles::toNumber(value))
            figures.emplace(std::string(line.substr(0, colon)), *number);
    }
    return figures;
}

} // namespace

ZqMemoryFacts ZqMemoryFacts::read(const SxString& root) {
    ZqMemoryFacts facts;
    try {
        const auto figures = figuresOf(ZqFactFiles(root).text("proc/meminfo"));
        const auto of = [&](std::string_view name) {
            const auto found = figures.find(name);
            return found == figures.end() ? -1 : found->second;
        };
        const int64 total = of("MemTotal");
        // Kernels before 3.14 don't tell what is available.
        int64 free = of("MemAvailable");
        if (free < 0) free = of("MemFree");
        if (total <= 0 || free < 0) {
            facts.faults.emplace_back("proc/meminfo doesn't tell how much memory there is");
            return facts;
        }
        free = std::min(free, total);
        facts.totalMiB = total >> 10;
        facts.freeMiB = free >> 10;
        facts.loadPercent =
            static_cast<int64>(static_cast<double>(total - free) * 100 / static_cast<double>(total));
    } catch (const SxException& e) {
        facts.faults.push_back(e.toString(SxException::ShowMessage, ": "));
    }
    return facts;
}
