#pragma once

#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>

namespace bench {

/// Bytes by which the memory of this process grew above what it held before, at its highest while `work` ran.
template<class Work>
double peakMemoryOf(Work&& work) {
    const auto kilobytes = [](const std::string& wanted) {
        std::ifstream status("/proc/self/status");
        std::string name;
        double value = 0;
        while (status >> name) {
            if (name == wanted + ":" && status >> value) return value;
            status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
        }
        throw std::runtime_error("/proc/self/status doesn't tell " + wanted);
    };
    // 5 sets the highest value back to the present one.
    if (!(std::ofstream("/proc/self/clear_refs") << "5" << std::flush)) {
        throw std::runtime_error("cannot write to /proc/self/clear_refs");
    }
    const double before = kilobytes("VmRSS");
    work();
    return (kilobytes("VmHWM") - before) * 1024;
}

} // namespace bench
