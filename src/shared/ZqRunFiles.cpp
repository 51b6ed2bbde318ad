#include "ZqRunFiles.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxTemporaryFile.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <string>
#include <string_view>

namespace {

constexpr int64 MS_PER_S = 1000;
constexpr const char* LOG_END = ".log";
constexpr const char* RECORD_END = ".json";
constexpr size_t N_ID = 8;
/// What the names look like: in the place of 'd' stands a digit, in that of 'x' a hexadecimal one.
constexpr std::string_view PATTERNS[] = {"dddd-dd-ddTdd-dd-ddZ-xxxxxxxx.json", "dddd-dd-ddTdd-dd-ddZ.log"};

bool matches(const SxString& name, ZqRunFiles::Kind kind) {
    const std::string_view pattern = PATTERNS[kind];
    return std::equal(pattern.begin(), pattern.end(), name.str().begin(), name.str().end(),
                      [](char wanted, char found) {
                          const auto c = static_cast<unsigned char>(found);
                          if (wanted == 'd') return std::isdigit(c) != 0;
                          return wanted == 'x' ? std::isxdigit(c) != 0 : wanted == found;
                      });
}

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

/// That of `timeMs`, or the second after the one of `newest`, which may be empty, where that comes later.
SxString stampAfter(int64 timeMs, const SxString& newest) {
    const SxString time = stamp(timeMs);
    const bool isLater = newest.isEmpty() || time.str() > newest.str().substr(0, time.str().size());
    return isLater ? time : stamp(timeOf(newest) + MS_PER_S);
}

SxString recordEnd(const SxString& id) {
    return "-" + id.str().substr(0, N_ID) + RECORD_END;
}

} // namespace

ZqRunFiles::ZqRunFiles(const SxString& image, Kind kind_)
    : folder(ZqImageFolder::prefix(image) + ZqImageFiles::RUNS),
      kind(kind_) {
}

std::vector<SxString> ZqRunFiles::list() const {
    std::vector<SxString> names;
    if (!SxFSAction::test_d(folder)) return names;
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const auto info = SxFSAction::look(entry.getOrig());
        const bool isFile = info && info->kind == SxStat::File; // and not a link, which may lead anywhere
        if (isFile && matches(entry.getName(), kind)) names.push_back(entry.getName());
    }
    std::sort(names.begin(), names.end());
    return names;
}

SxString ZqRunFiles::next(int64 timeMs, const SxString& id) const {
    const std::vector<SxString> names = list();
    const SxString time = stampAfter(timeMs, names.empty() ? SxString() : names.back());
    return folder + time + (kind == Log ? SxString(LOG_END) : recordEnd(id));
}

SxList<SxException> ZqRunFiles::removeOld(size_t nKept) const {
    SxList<SxException> failures;
    try {
        for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
            const SxString of = SxTemporaryFile::targetOf(entry.getName());
            if (matches(of, kind)) SxFileIO::tidyAfterWriters(folder + of);
        }
        const std::vector<SxString> names = list();
        for (size_t i = 0; i + nKept < names.size(); ++i) {
            try {
                SxFSAction::rm(folder + names[i]);
            } catch (const SxException& e) {
                failures << e;
            }
        }
    } catch (const SxException& e) {
        failures << e;
    }
    return failures;
}

bool ZqRunFiles::isRecordOf(const SxString& name, const SxString& id) {
    return matches(name, Record) && name.endsWith(recordEnd(id));
}

SxString ZqRunFiles::imageOf(const SxString& file) {
    const std::string& path = file.str();
    constexpr size_t N_RUNS = std::string_view(ZqImageFiles::RUNS).size();
    return path.substr(0, path.rfind('/') + 1 - N_RUNS);
}

bool ZqRunFiles::isOwn(const SxString& name) {
    const SxString target = SxTemporaryFile::targetOf(name);
    const SxString& of = target.isEmpty() ? name : target;
    return matches(of, Record) || matches(of, Log) || ZqImageFiles::RUNS + of == ZqImageFiles::PREPARATIONS;
}
