#include "ZqServedFiles.h"

#include "SxException.h"
#include "SxOs.h"
#include "ZqHttpRange.h"
#include "ZqServerFaults.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

constexpr const char* UNIT = "src/platform/serve/ZqServedFiles";
constexpr int64 WRONG_BY = 4096; ///< bytes by which a wrong range is off

/// A time as HTTP has it (RFC 9110, 5.6.7), whatever the locale.
std::string httpDate(int64 milliseconds) {
    static constexpr const char* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t seconds = milliseconds / 1000;
    std::tm t = {};
    ::gmtime_r(&seconds, &t);
    return SxString::sprintf("%s, %02d %s %d %02d:%02d:%02d GMT", DAYS[t.tm_wday], t.tm_mday,
                             MONTHS[t.tm_mon], t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec)
        .str();
}

ZqServedFiles::Answer textOf(int status, const std::string& line) {
    return {status, {}, "text/plain", line + "\n", nullptr, static_cast<int64>(line.size()) + 1};
}

} // namespace

class ZqServedFiles::File {
public:
    explicit File(int fd_) : fd(fd_) {}
    ~File() { SxOs::get().close(fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    const int fd;
    std::string name; ///< relative to the folder
    SxStat info;
    ZqHttpRange range; ///< what is sent of it
};

ZqServedFiles::ZqServedFiles(const SxString& folder, const ZqServerFaults& faults_) : faults(faults_) {
    SxStat info;
    int result = SxOs::get().canonical(SxOs::hostPath(folder), &root);
    if (result == 0) result = SxOs::get().stat(root, &info);
    if (result == 0 && info.kind != SxStat::Dir) result = -ENOTDIR;
    if (result < 0) {
        throw SxException("Cannot serve folder '" + folder + "': " + SxOs::errorText(result), UNIT, __LINE__);
    }
    if (!root.ends_with('/')) root += '/';
}

ZqServedFiles::Counts ZqServedFiles::getCounts(const std::string& name) const {
    const SxMutexBlock block(&mutex);
    const auto found = counts.find(name);
    return found == counts.end() ? Counts() : found->second;
}

uint64 ZqServedFiles::countRequest(const std::string& name) {
    const SxMutexBlock block(&mutex);
    return ++counts[name].requests;
}

std::shared_ptr<ZqServedFiles::File> ZqServedFiles::open(const std::string& path) const {
    SxOs& os = SxOs::get();
    std::string real;
    if (path.find('\0') != std::string::npos || os.canonical(root + path, &real) < 0) return nullptr;
    if (!real.starts_with(root)) return nullptr;
    const int fd = os.open(real, SxOs::Read | SxOs::NoFollow, 0);
    if (fd < 0) return nullptr;
    auto file = std::make_shared<File>(fd);
    file->name = real.substr(root.size());
    const bool plain = os.statFd(fd, &file->info) == 0 && file->info.kind == SxStat::File;
    return plain ? file : nullptr;
}

bool ZqServedFiles::isChanged(const File& file) const {
    return faults.has(ZqServerFaults::Changed) &&
           getCounts(file.name).bytes >= static_cast<uint64>(file.info.size) / 2;
}

ZqServedFiles::Answer ZqServedFiles::answer(const Request& request) {
    if (faults.has(ZqServerFaults::Error500)) return textOf(500, "This server has a fault");
    if (faults.has(ZqServerFaults::Error403)) return textOf(403, "Not without a word");
    if (faults.has(ZqServerFaults::Login)) {
        Answer page = textOf(200, "<html><body>Log in</body></html>");
        page.type = "text/html";
        return page;
    }
    const auto file = open(request.path);
    if (!file) return textOf(404, "There is no such file");
    countRequest(file->name);

    const bool changed = isChanged(*file);
    const SxStat& info = file->info;
    const std::string tag = "\"" + std::to_string(info.inode) + "-" + std::to_string(info.size) + "-" +
                            std::to_string(info.modifiedMs) + (changed ? "-2" : "") + "\"";
    const std::string date = httpDate(info.modifiedMs + (changed ? 1000 : 0));
    Answer made;
    made.status = chooseRange(request, tag, date, file.get(), &made);
    if (made.status == 416) {
        Answer refusal = textOf(416, "The file ends before that range");
        refusal.fields = std::move(made.fields);
        made = std::move(refusal);
    } else {
        made.type = file->name.ends_with(".json") ? "application/json" : "application/octet-stream";
        made.nBytes = file->range.n;
        if (made.nBytes > 0) made.file = file;
    }
    made.fields.emplace_back("ETag", tag);
    made.fields.emplace_back("Last-Modified", date);
    made.fields.emplace_back("Accept-Ranges", "bytes");
    return made;
}

/// Sets the file's range by the request and the faults, and gives the status.
int ZqServedFiles::chooseRange(const Request& request, const std::string& tag, const std::string& date,
                               File* file, Answer* answer) const {
    const int64 size = faults.has(ZqServerFaults::Truncate) ? file->info.size / 2 : file->info.size;
    ZqHttpRange& range = file->range;
    const bool wanted = request.ifRange.empty() || request.ifRange == tag || request.ifRange == date;
    const ZqHttpRange::Kind kind = wanted && !faults.has(ZqServerFaults::Whole)
                                       ? ZqHttpRange::parse(request.range, size, &range)
                                       : ZqHttpRange::None;
    if (kind == ZqHttpRange::None) {
        range = {0, size};
        return 200;
    }
    if (kind == ZqHttpRange::Unsatisfiable) {
        answer->fields.emplace_back("Content-Range", "bytes */" + std::to_string(size));
        return 416;
    }
    if (faults.has(ZqServerFaults::Short)) range.n = std::max<int64>(range.n / 2, 1);
    if (faults.has(ZqServerFaults::WrongRange)) {
        if (range.first > 0) {
            range.first -= std::min(range.first, WRONG_BY);
        } else {
            range.first = std::min(WRONG_BY, size - 1);
            range.n = std::min(range.n, size - range.first);
        }
    }
    answer->fields.emplace_back("Content-Range", range.toField(size));
    return 206;
}

bool ZqServedFiles::isHeldUp(const File& file, int64 at) const {
    return faults.has(ZqServerFaults::Stall) && at >= file.range.n / 2;
}

SxArray<char> ZqServedFiles::read(const File& file, int64 at, int64 n) {
    const int64 middle = file.range.n / 2;
    if (at < middle && faults.has(ZqServerFaults::Stall)) n = std::min(n, middle - at);
    SxArray<char> bytes(n);
    if (SxOs::get().readAt(file.fd, bytes.data(), n, file.range.first + at) != n) return {};
    if (isChanged(file)) {
        for (char& byte : bytes)
            byte = static_cast<char>(~byte);
    }
    // Before the sending, so that whoever has got the bytes finds them counted.
    const SxMutexBlock block(&mutex);
    counts[file.name].bytes += static_cast<uint64>(n);
    counts[""].bytes += static_cast<uint64>(n);
    return bytes;
}
