#include "SxTime.h"

#include "SxClock.h"

#include <ctime>

void SxTime::msleep(int64 milliseconds) {
    SxClock::get().sleepNs(milliseconds * 1'000'000);
}

void SxTime::sleep(double seconds) {
    SxClock::get().sleepNs(static_cast<int64>(seconds * 1e9));
}

SxString SxTime::strftime(const SxString& format) {
    const std::time_t now = SxClock::get().systemMs() / 1000;
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[1024];
    const size_t n = std::strftime(buffer, sizeof buffer, format.ascii(), &local);
    return SxString(std::string(buffer, n));
}
