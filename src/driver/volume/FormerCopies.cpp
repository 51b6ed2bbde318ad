#include "FormerCopies.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/FormerCopies";
/// An overlay's mark on a folder that hides all that the volume has in it.
constexpr const char* OPAQUE = "trusted.overlay.opaque";
/// Between the private folder's name and the date.
constexpr const char* FORMER = "-former-";
/// Keys of the note, a line each.
constexpr const char* VERSION = "version ";
constexpr const char* MOVING = "moving to ";

[[noreturn]] void fail(const std::string& what, int line) {
    throw SxException(SxString(what) + ": " + SxOs::errorText(errno), UNIT, line);
}

enum class Kind { Missing, Folder, Removed, Other };

/// What stands at `path`; never through a link. `Removed`: an overlay's mark that a name is gone.
Kind kindOf(const std::string& path) {
    const auto info = SxFSAction::look(path);
    if (!info) return Kind::Missing;
    if (info->kind == SxStat::Dir) return Kind::Folder;
    return info->isRemoval ? Kind::Removed : Kind::Other;
}

bool isBelow(const FormerCopies::Path& path, const FormerCopies::Path& folder) {
    return path.size() >= folder.size() && std::equal(folder.begin(), folder.end(), path.begin());
}

} // namespace

/// One pass through a folder of the private side.
class FormerCopies::Walk {
public:
    Walk(const std::string& folder_, const std::string& dated_, const std::vector<Path>& kept_)
        : folder(folder_),
          dated(dated_),
          kept(kept_) {}

    /// `onVolume`: the same folder on the volume, which may lack it.
    void run(const std::string& onVolume, const Path& at) {
        const std::string here = under(folder, at);
        takeMark(here, at);
        for (const SxFileInfo& info : SxFSAction::ls(here)) {
            const std::string name = info.getName().str();
            Path path = at;
            path.push_back(name);
            if (std::any_of(kept.begin(), kept.end(), [&](const Path& each) { return isBelow(path, each); }))
                continue;
            const Kind own = kindOf(here + "/" + name), volumes = kindOf(onVolume + "/" + name);
            const bool merges = volumes == Kind::Folder || volumes == Kind::Missing;
            if (own == Kind::Folder && merges) {
                // Also one that this version lacks: marks in it would hide what a later one brings.
                run(onVolume + "/" + name, path);
            } else if (own == Kind::Removed || volumes != Kind::Missing) {
                move(here + "/" + name, path);
            }
        }
    }
    bool hasMoved() const { return moved; }

private:
    static std::string under(std::string base, const Path& path) {
        for (const std::string& part : path)
            base += "/" + part;
        return base;
    }
    /// Makes the folder in the dated one that `path` has its place in.
    std::string makeFolders(const Path& path) {
        const std::string at = under(dated, path);
        SxFSAction::mkdir_p(at, 0700);
        moved = true;
        return at;
    }
    /// The mark goes to a folder of the same name, so that all can be put back as it was.
    void takeMark(const std::string& here, const Path& at) {
        char value[8];
        const ssize_t n = ::lgetxattr(here.c_str(), OPAQUE, value, sizeof value);
        if (n < 0 && (errno == ENODATA || errno == ENOTSUP)) return;
        if (n < 0) fail("Cannot read the marks of '" + here + "'", __LINE__);
        const std::string to = makeFolders(at);
        if (::lsetxattr(to.c_str(), OPAQUE, value, static_cast<size_t>(n), 0) != 0 ||
            ::lremovexattr(here.c_str(), OPAQUE) != 0) {
            fail("Cannot move the mark of '" + here + "' to '" + to + "'", __LINE__);
        }
    }
    void move(const std::string& from, const Path& path) {
        const std::string to = makeFolders({path.begin(), path.end() - 1}) + "/" + path.back();
        std::string free = to;
        // What has that name already is never replaced, whoever has put it there.
        for (int i = 2; kindOf(free) != Kind::Missing; ++i)
            free = to + "." + std::to_string(i);
        if (::rename(from.c_str(), free.c_str()) != 0) {
            fail("Cannot move '" + from + "' to '" + free + "'", __LINE__);
        }
    }

    const std::string &folder, &dated;
    const std::vector<Path>& kept;
    bool moved = false;
};

FormerCopies::FormerCopies(const std::string& folder_, const std::string& version_)
    : folder(folder_),
      notePath(folder_),
      version(version_) {
    notePath.insert(folder.rfind('/') + 1, ".").append(".tavrin-version");
    const Note note = read();
    known = note.version == version && note.dated.empty();
    due = !version.empty() && !note.version.empty() && !known;
    if (!due) return;
    const std::string parent = folder.substr(0, folder.rfind('/') + 1);
    const std::string start = folder.substr(parent.size()) + FORMER;
    const bool goesOn =
        note.version == version && note.dated.starts_with(start) && note.dated.find('/') == std::string::npos;
    dated = parent + (goesOn ? note.dated : datedName());
}

std::string FormerCopies::datedName() const {
    const size_t slash = folder.rfind('/') + 1;
    const std::string name = folder.substr(slash) + FORMER + SxTime::strftime("%Y-%m-%d-%H%M%S").str();
    std::string free = name;
    for (int i = 2; kindOf(folder.substr(0, slash) + free) != Kind::Missing; ++i)
        free = name + "-" + std::to_string(i);
    return free;
}

FormerCopies::Note FormerCopies::read() const {
    Note note;
    if (!SxFSAction::test_f(notePath)) return note;
    for (const SxString& line : SxFileIO::readUtf8(notePath).tokenize('\n')) {
        const std::string& text = line.str();
        if (text.starts_with(VERSION)) note.version = text.substr(std::string(VERSION).size());
        if (text.starts_with(MOVING)) note.dated = text.substr(std::string(MOVING).size());
    }
    return note;
}

void FormerCopies::write(const Note& note) const {
    std::string text = VERSION + note.version + "\n";
    if (!note.dated.empty()) text += MOVING + note.dated + "\n";
    SxFileIO::writeAtomic(notePath, SxString(text), 0600);
}

void FormerCopies::begin() {
    if (due) write({version, dated.substr(dated.rfind('/') + 1)});
}

void FormerCopies::move(const std::string& onVolume, const Path& inPrivate, const std::vector<Path>& kept) {
    Walk walk(folder, dated, kept);
    walk.run(onVolume, inPrivate);
    if (walk.hasMoved()) movedTo = dated;
}

void FormerCopies::finish() {
    if (version.empty() || known) return;
    // A mount that was killed may have moved names, too, which aren't on the disk yet.
    if (due) {
        const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool synced = fd >= 0 && ::syncfs(fd) == 0;
        const int error = errno;
        if (fd >= 0) ::close(fd);
        errno = error;
        if (!synced) fail("Cannot write '" + folder + "' to its disk", __LINE__);
    }
    write({version, {}});
    known = true;
    due = false;
}
