#include "ZqRunStamp.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <string>

namespace {

constexpr int64 MS_PER_S = 1000;

SxString stamp(int64 timeMs) {
    using namespace std::chrono;
    const sys_time<milliseconds> time{milliseconds(timeMs)};
    const sys_days day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(floor<seconds>(time - day));
    return SxString::sprintf(
        "%04d-%02u-%02uT%02d-%02d-%02dZ", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
        static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
        static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
}

/// The moment that a name begins with.
int64 timeOf(const SxString& name) {
    using namespace std::chrono;
    const auto number = [&](size_t at, size_t n) { return std::stoi(name.str().substr(at, n)); };
    const sys_days day = year(number(0, 4)) / number(5, 2) / number(8, 2);
    return milliseconds(day.time_since_epoch()).count() +
           ((number(11, 2) * 60 + number(14, 2)) * 60 + number(17, 2)) * MS_PER_S;
}

} // namespace

SxString ZqRunStamp::next(int64 timeMs, const SxString& newest) {
    const SxString time = stamp(timeMs);
    const bool isLater = newest.isEmpty() || time.str() > newest.str().substr(0, time.str().size());
    return isLater ? time : stamp(timeOf(newest) + MS_PER_S);
}

bool ZqRunStamp::matches(const SxString& name, std::string_view pattern) {
    return std::equal(pattern.begin(), pattern.end(), name.str().begin(), name.str().end(),
                      [](char wanted, char found) {
                          const auto c = static_cast<unsigned char>(found);
                          if (wanted == 'd') return std::isdigit(c) != 0;
                          return wanted == 'x' ? std::isxdigit(c) != 0 : wanted == found;
                      });
}
