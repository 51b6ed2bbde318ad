#include "ZqReadable.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>

int64 ZqReadable::whole(double n) {
    // The largest doubles below the ends of 64 bits.
    constexpr double MOST = 9223372036854774784.0;
    return std::llround(std::clamp(n, -MOST, MOST));
}

SxString ZqReadable::bytes(double n) {
    constexpr std::array<const char*, 5> UNITS = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    size_t i = 0;
    for (; n >= 1000 && i + 1 < UNITS.size(); ++i)
        n /= 1024;
    return SxString::sprintf(i == 0 ? "%.0f %s" : "%.1f %s", n, UNITS[i]);
}

SxString ZqReadable::megabytes(uint64 nBytes) {
    constexpr uint64 MEGABYTE = 1'000'000;
    return SxString(nBytes / MEGABYTE + (nBytes % MEGABYTE != 0 ? 1 : 0)) + " MB";
}

SxString ZqReadable::count(int64 n) {
    std::string digits = std::to_string(n);
    const size_t first = n < 0 ? 1 : 0;
    for (size_t at = digits.size(); at > first + 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return SxString(std::move(digits));
}

SxString ZqReadable::seconds(int64 ms) {
    return SxString::sprintf("%.2f s", static_cast<double>(ms) / 1e3);
}

SxString ZqReadable::duration(int64 ms) {
    constexpr int64 MINUTE = 60'000, HOUR = 60 * MINUTE;
    if (ms < 10 * MINUTE) return seconds(ms);
    if (ms < 10 * HOUR) return SxString::sprintf("%.1f min", static_cast<double>(ms) / MINUTE);
    return SxString::sprintf("%.1f h", static_cast<double>(ms) / HOUR);
}

SxString ZqReadable::date(int64 ms) {
    using namespace std::chrono;
    const sys_time<milliseconds> time{milliseconds(ms)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    return SxString::sprintf("%04d-%02u-%02u %02d:%02d UTC", static_cast<int>(date.year()),
                             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                             static_cast<int>(clock.hours().count()),
                             static_cast<int>(clock.minutes().count()));
}

SxString ZqReadable::counted(int64 n, const char* one, const char* many) {
    return count(n) + " " + (n == 1 ? one : many);
}

double ZqReadable::percentage(uint64 part, int64 whole) {
    return whole == 0 ? 0 : static_cast<double>(part) * 100.0 / static_cast<double>(whole);
}
