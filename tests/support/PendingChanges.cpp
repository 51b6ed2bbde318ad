#include "PendingChanges.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int64 PAGE = 4096;

std::string parentOf(const std::string& path) {
    return fs::path(path).parent_path().string();
}

/// A fault of this fake must not look like one of what is tested.
void require(bool ok, const std::string& what) {
    if (!ok) throw std::logic_error("PendingChanges: " + what + ": " + std::strerror(errno));
}

SxStat statOf(int fd) {
    SxStat info;
    require(SxOs::machine().statFd(fd, &info) == 0, "stat");
    return info;
}

bool coin(std::mt19937_64* random) {
    return random && (*random)() % 2 == 0;
}

/// A file that is open for the time of one change.
class OpenFile {
public:
    OpenFile(const std::string& path, int flags) : fd(::open(path.c_str(), flags | O_CLOEXEC)) {
        require(fd >= 0, "open " + path);
    }
    ~OpenFile() { ::close(fd); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    std::string read(int64 offset, int64 n) const {
        std::string bytes(static_cast<size_t>(std::max<int64>(n, 0)), '\0');
        const int64 got = SxOs::machine().readAt(fd, bytes.data(), static_cast<int64>(bytes.size()), offset);
        require(got == static_cast<int64>(bytes.size()), "read");
        return bytes;
    }
    void write(std::string_view bytes, int64 offset) const {
        const auto n = static_cast<int64>(bytes.size());
        require(SxOs::machine().writeAt(fd, bytes.data(), n, offset) == n, "write");
    }
    void setSize(int64 size) const { require(SxOs::machine().truncate(fd, size) == 0, "truncate"); }

private:
    int fd;
};

} // namespace

PendingChanges::PendingChanges(const std::string& folder_)
    : folder(folder_),
      graveyard(folder_ + ".graveyard") {
    fs::remove_all(graveyard);
    fs::create_directory(graveyard);
}

PendingChanges::~PendingChanges() {
    std::error_code ignored;
    fs::remove_all(graveyard, ignored);
}

void PendingChanges::changeName(const std::string& path) {
    if (names.contains(path)) return;
    Name name{Name::Absent, {}, ++nGroups};
    const fs::file_status status = fs::symlink_status(path);
    if (fs::is_directory(status)) {
        name.was = Name::Folder;
    } else if (fs::exists(status)) {
        name.was = Name::Kept;
        name.grave = graveyard + "/" + std::to_string(++nGraves);
        require(::link(path.c_str(), name.grave.c_str()) == 0, "link " + path);
    }
    names.emplace(path, std::move(name));
}

void PendingChanges::rename(const std::string& from, const std::string& to) {
    changeName(from);
    changeName(to);
    const int64 kept = names.at(from).group, joined = names.at(to).group;
    for (auto& [path, name] : names) {
        if (name.group == joined) name.group = kept;
    }
}

void PendingChanges::moveFolder(const std::string& from, const std::string& to) {
    moves.push_back({from, to});
    rekey(from, to);
}

/// Carries what is pending below a folder to the folder's new name.
void PendingChanges::rekey(const std::string& from, const std::string& to) {
    const std::string prefix = from + "/";
    std::map<std::string, Name> moved;
    for (auto entry = names.lower_bound(prefix); entry != names.end() && entry->first.starts_with(prefix);) {
        moved.emplace(to + "/" + entry->first.substr(prefix.size()), std::move(entry->second));
        entry = names.erase(entry);
    }
    names.merge(moved);
}

void PendingChanges::makeFile(int fd) {
    const SxStat info = statOf(fd);
    changes.erase({info.device, info.inode});
    lost.erase({info.device, info.inode});
}

void PendingChanges::changeFile(int fd, int64 offset, std::string newBytes, int64 newSize) {
    const SxStat info = statOf(fd);
    const OpenFile file("/proc/self/fd/" + std::to_string(fd), O_RDONLY);
    const int64 end =
        newBytes.empty() ? info.size : std::min(info.size, offset + static_cast<int64>(newBytes.size()));
    std::string oldBytes = file.read(offset, end - offset);
    const auto found = lost.find({info.device, info.inode});
    if (found != lost.end() && !newBytes.empty()) {
        // A page that is written to goes to the device as a whole.
        found->second.erase(found->second.lower_bound(offset / PAGE * PAGE),
                            found->second.lower_bound(offset + static_cast<int64>(newBytes.size())));
    }
    changes[{info.device, info.inode}].push_back(
        {offset, std::move(oldBytes), std::move(newBytes), info.size, newSize});
}

void PendingChanges::syncFile(int fd) {
    const SxStat info = statOf(fd);
    changes.erase({info.device, info.inode});
}

void PendingChanges::loseFile(int fd) {
    const SxStat info = statOf(fd);
    const auto found = changes.find({info.device, info.inode});
    if (found == changes.end()) return;
    std::map<int64, std::string>& pages = lost[found->first];
    const OpenFile file("/proc/self/fd/" + std::to_string(fd), O_RDONLY);
    const std::vector<Change>& log = found->second;
    for (auto change = log.rbegin(); change != log.rend(); ++change) {
        const auto end = change->offset + static_cast<int64>(change->newBytes.size());
        for (int64 page = change->offset / PAGE * PAGE; page < end; page += PAGE) {
            std::string& bytes = pages[page];
            if (bytes.empty()) bytes = file.read(page, std::clamp<int64>(info.size - page, 0, PAGE));
            bytes.resize(PAGE, '\0');
            for (int64 at = std::max(page, change->offset); at < std::min(page + PAGE, end); ++at) {
                const auto old = static_cast<size_t>(at - change->offset);
                bytes[static_cast<size_t>(at - page)] =
                    old < change->oldBytes.size() ? change->oldBytes[old] : '\0';
            }
        }
    }
}

void PendingChanges::syncFolder(const std::string& path) {
    std::vector<std::string> durable;
    for (const auto& [name, state] : names) {
        if (parentOf(name) == path) durable.push_back(name);
    }
    for (const std::string& name : durable) {
        const auto entry = names.find(name);
        if (!entry->second.grave.empty()) fs::remove(entry->second.grave);
        names.erase(entry);
        // What pends below a folder that is durably gone must not come back in a new one of that name.
        if (!fs::is_directory(fs::symlink_status(name))) eraseNames(name + "/");
    }
    for (FolderMove& move : moves) {
        move.fromDurable |= parentOf(move.from) == path;
        move.toDurable |= parentOf(move.to) == path;
    }
    std::erase_if(moves, [](const FolderMove& move) { return move.fromDurable && move.toDurable; });
}

void PendingChanges::eraseNames(const std::string& prefix) {
    for (auto entry = names.lower_bound(prefix); entry != names.end() && entry->first.starts_with(prefix);) {
        if (!entry->second.grave.empty()) fs::remove(entry->second.grave);
        entry = names.erase(entry);
    }
}

void PendingChanges::syncAll() {
    eraseNames("");
    moves.clear();
    changes.clear();
}

void PendingChanges::crash(std::mt19937_64* random) {
    undoMoves(random);
    restoreNames(random);
    restoreFiles(random);
    restoreLost();
    changes.clear();
    lost.clear();
}

void PendingChanges::undoMoves(std::mt19937_64* random) {
    // A later move can't have reached the device without the earlier ones.
    const size_t nSurvivors = random ? (*random)() % (moves.size() + 1) : 0;
    for (; moves.size() > nSurvivors; moves.pop_back()) {
        const FolderMove& move = moves.back();
        if (!fs::is_directory(fs::symlink_status(move.to))) continue;
        fs::remove_all(move.from);
        eraseNames(move.from + "/");
        fs::rename(move.to, move.from);
        rekey(move.to, move.from);
    }
    moves.clear();
}

void PendingChanges::restoreNames(std::mt19937_64* random) {
    std::map<int64, bool> survives;
    for (const auto& [path, name] : names) {
        const bool isKept = survives.try_emplace(name.group, coin(random)).first->second;
        if (isKept || !fs::is_directory(parentOf(path))) continue;
        if (name.was == Name::Folder && fs::is_directory(fs::symlink_status(path))) continue;
        fs::remove_all(path);
        if (name.was == Name::Folder) fs::create_directory(path);
        if (name.was == Name::Kept) fs::rename(name.grave, path);
    }
    eraseNames("");
}

void PendingChanges::restoreFiles(std::mt19937_64* random) {
    std::set<Inode> done;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!fs::is_regular_file(entry.symlink_status())) continue;
        SxStat info;
        require(SxOs::machine().lstat(entry.path().string(), &info) == 0, "stat");
        const auto found = changes.find({info.device, info.inode});
        if (found == changes.end() || !done.insert(found->first).second) continue;
        const OpenFile file(entry.path().string(), O_RDWR);
        const std::vector<Change>& log = found->second;
        for (auto change = log.rbegin(); change != log.rend(); ++change) {
            file.write(change->oldBytes, change->offset);
            file.setSize(change->oldSize);
        }
        for (const Change& change : log) {
            if (change.newBytes.empty() && coin(random)) file.setSize(change.newSize);
            for (size_t at = 0; at < change.newBytes.size();) {
                const int64 offset = change.offset + static_cast<int64>(at);
                const auto n = static_cast<size_t>(PAGE - offset % PAGE);
                if (coin(random)) file.write(std::string_view(change.newBytes).substr(at, n), offset);
                at += n;
            }
        }
    }
}

void PendingChanges::restoreLost() {
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!fs::is_regular_file(entry.symlink_status())) continue;
        SxStat info;
        require(SxOs::machine().lstat(entry.path().string(), &info) == 0, "stat");
        const auto found = lost.find({info.device, info.inode});
        if (found == lost.end()) continue;
        const OpenFile file(entry.path().string(), O_RDWR);
        for (const auto& [page, bytes] : found->second) {
            const int64 n = std::min<int64>(PAGE, info.size - page);
            if (n > 0) file.write(std::string_view(bytes).substr(0, static_cast<size_t>(n)), page);
        }
    }
}
