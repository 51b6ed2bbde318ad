#include "Mounts.h"

#include "SxException.h"
#include "SxOs.h"
#include "SxProcess.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/Mounts";

/// Blanks and the like are written as a backslash and three octal digits.
std::string plain(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            result += static_cast<char>(std::strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// Gives an errno value, as far as the program lets us tell.
int runFusermount(const std::string& path, const char* how) {
    try {
        if (!Mounts::isMounted(path)) return EINVAL;
    } catch (const SxException&) {
        // It looks for itself.
    }
    try {
        return SxProcess("fusermount3", {how, SxString(path)}, SxProcess::Silent).run() == 0 ? 0 : EBUSY;
    } catch (const SxException&) {
        return EPERM; // there is no such program
    }
}

std::string readTable() {
    constexpr const char* FILE = "/proc/self/mountinfo";
    constexpr size_t STEP = 16384;
    const auto fail = [](int error) {
        throw SxException("Cannot read '" + SxString(FILE) + "': " + SxOs::errorText(error), UNIT, __LINE__);
    };
    const int fd = ::open(FILE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail(errno);
    std::string text;
    ssize_t n = 0;
    int error = 0;
    do {
        const size_t size = text.size();
        text.resize(size + STEP);
        n = ::read(fd, text.data() + size, STEP);
        error = n < 0 ? errno : 0;
        text.resize(size + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    } while (n > 0 || error == EINTR);
    ::close(fd);
    if (error != 0) fail(error);
    return text;
}

} // namespace

std::vector<Mounts::Mount> Mounts::all() {
    std::vector<Mount> found;
    std::istringstream table(readTable());
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        Mount mount;
        std::string parent, word;
        fields >> mount.id >> parent >> mount.device >> mount.root >> mount.at;
        while (fields >> word && word != "-") {
        }
        fields >> mount.type >> mount.source >> mount.options;
        for (std::string* text : {&mount.root, &mount.at, &mount.source})
            *text = plain(*text);
        found.push_back(mount);
    }
    return found;
}

std::vector<std::string> Mounts::below(const std::string& folder) {
    const std::string prefix = folder.ends_with("/") ? folder : folder + "/";
    std::vector<std::string> found;
    for (const Mount& mount : all()) {
        if (mount.at.starts_with(prefix)) found.push_back(mount.at);
    }
    return found;
}

int Mounts::unmount(const std::string& path) {
    if (::geteuid() != 0) return runFusermount(path, "-u");
    return ::umount2(path.c_str(), 0) == 0 ? 0 : errno;
}

int Mounts::detach(const std::string& path) {
    if (::geteuid() != 0) return runFusermount(path, "-uz");
    return ::umount2(path.c_str(), MNT_DETACH) == 0 ? 0 : errno;
}

void Mounts::abort(const std::string& path) {
    // A forced unmount ends the connection, whether or not the mount can go.
    if (::geteuid() == 0) ::umount2(path.c_str(), MNT_FORCE);
}

bool Mounts::isMounted(const std::string& path) {
    const std::string parent = path.substr(0, path.find_last_of('/'));
    const std::vector<std::string> mounts = below(parent);
    return std::find(mounts.begin(), mounts.end(), path) != mounts.end();
}
