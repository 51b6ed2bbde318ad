#include "SxTemporaryFile.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxTemporaryFile";
const std::string TEMPORARY = ".tmp";
constexpr size_t N_DIGITS = 8;
/// The byte that a writer locks, far after those that others lock.
constexpr int64 WRITER = int64{1} << 48;

} // namespace

void SxTemporaryFile::removeDead(const SxString& path) {
    SxOs& os = SxOs::get();
    const SxFileInfo info(path);
    const std::string folder = SxOs::hostPath(info.getPath());
    std::vector<std::string> names;
    if (os.list(folder, &names) < 0) return;
    for (const std::string& name : names) {
        if (!isName(name, info.getName())) continue;
        const std::string host = folder + "/" + name;
        const int fd = os.open(host, SxOs::Read | SxOs::Write | SxOs::NoFollow, 0);
        if (fd < 0) continue;
        if (os.lockRange(fd, WRITER, 1, SxOs::Lock::Exclusive) == 0) os.unlink(host);
        os.close(fd);
    }
}

SxTemporaryFile::SxTemporaryFile(const SxString& path_, int permission) : path(path_) {
    removeDead(path);
    SxOs& os = SxOs::get();
    for (;;) {
        name = path + "." + SxString::sprintf("%08x", std::random_device()()) + TEMPORARY;
        host = SxOs::hostPath(name);
        fd = os.open(host, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Exclusive | SxOs::NoFollow,
                     static_cast<unsigned>(permission));
        if (fd == -EEXIST) continue;
        if (fd < 0) {
            throw SxException(SxException(SxOs::errorText(fd), UNIT, __LINE__),
                              "Cannot open file '" + name + "'", UNIT, __LINE__);
        }
        // A file system without locks has nobody who takes the file for a dead writer's. Elsewhere somebody
        // may have done so before it was locked. What can't be told shows with the rename.
        const int locked = os.lockRange(fd, WRITER, 1, SxOs::Lock::Exclusive);
        if (locked != -EAGAIN && (locked != 0 || os.hasName(fd, host) != 0)) return;
        os.close(fd);
    }
}

SxTemporaryFile::~SxTemporaryFile() {
    if (!isRenamed) SxOs::get().unlink(host);
    SxOs::get().close(fd);
}

void SxTemporaryFile::commit() {
    SxFSAction::mv(name, path);
    isRenamed = true;
    SxFSAction::syncDir(SxFileInfo(path).getPath());
}

bool SxTemporaryFile::isName(const SxString& name, const SxString& of) {
    const std::string& text = name.str();
    const std::string begin = of.str() + ".";
    if (text.size() != begin.size() + N_DIGITS + TEMPORARY.size() || !text.starts_with(begin) ||
        !text.ends_with(TEMPORARY)) {
        return false;
    }
    return text.find_first_not_of("0123456789abcdef", begin.size()) == begin.size() + N_DIGITS;
}

SxString SxTemporaryFile::targetOf(const SxString& name) {
    const size_t nAdded = 1 + N_DIGITS + TEMPORARY.size(), n = name.str().size();
    const SxString target = name.str().substr(0, n - std::min(n, nAdded));
    return isName(name, target) ? target : SxString();
}
