#include "ZqLauncherFiles.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqFold.h"
#include "ZqNewFolder.h"
#include "ZqTries.h"

#include <cerrno>
#include <map>

namespace {

constexpr const char* UNIT = "src/base/ZqLauncherFiles";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

/// What is wrong with a name, or null.
const char* faultOf(const std::string& name, bool mayHaveQuotes) {
    if (name.find_first_not_of('.') == std::string::npos) return "consists of dots alone";
    if (name.find_first_of("/\\") != std::string::npos) return "holds a slash";
    if (name.find(':') != std::string::npos) return "holds a colon";
    if (!mayHaveQuotes && name.find_first_of("\"'") != std::string::npos) return "holds a quote";
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') return "holds a control character";
    }
    return nullptr;
}

void requireNoLinksIn(const SxString& folder) {
    ZqLauncherFiles::requireNoLink(folder);
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        ZqLauncherFiles::requireNoLink(entry.getOrig());
        if (SxFSAction::test_d(entry.getOrig())) requireNoLinksIn(entry.getOrig());
    }
}

SxString parentOf(const SxString& path) {
    return SxFileInfo(path).getPath();
}

/// The way of names from one folder to another, by host paths: a path of the library would take a name that
/// differs in case for the same. Names that the target had at the beginning are compared without case, as
/// Windows programs do; those that come with this move stand beside each other, as they did.
class Moving {
public:
    Moving(const SxString& from_, const SxString& to_)
        : from(SxString(SxOs::hostPath(from_)) + "/"),
          to(SxString(SxOs::hostPath(to_)) + "/") {
        for (const SxFileInfo& entry : SxFSAction::ls(to))
            there[zqFold(zqUtf16(entry.getName()))] = entry.getName();
    }

    template<class Move>
    void run(const SxList<SxString>& names, Move&& move) const {
        ZqTries tries;
        for (const SxString& name : names)
            tries.run([&] { move(name); });
        SxFSAction::syncDir(to);
        SxFSAction::syncDir(from);
        tries.raise();
    }

    void join(const SxString& name) const {
        const auto twin = there.find(zqFold(zqUtf16(name)));
        const bool isWhole = !SxFSAction::isHalfMoved(name);
        if (isWhole && twin == there.end()) {
            SxFSAction::mv(from + name, to + name);
        } else if (isWhole && isFolder(from + name) && isFolder(to + twin->second)) {
            SxList<SxString> inside;
            for (const SxFileInfo& entry : SxFSAction::ls(from + name))
                inside.append(entry.getName());
            ZqLauncherFiles::join(from + name, inside, to + twin->second);
            ZqLauncherFiles::removeEmpty(from + name);
        } else {
            SxFSAction::rm_r(from + name);
        }
    }

    void replace(const SxString& name) const {
        const auto twin = there.find(zqFold(zqUtf16(name)));
        if (twin != there.end() && isFolder(from + name) && isFolder(to + twin->second)) {
            SxList<SxString> inside;
            for (const SxFileInfo& entry : SxFSAction::ls(from + name))
                inside.append(entry.getName());
            if (const auto came = SxFSAction::look(from + name))
                SxFSAction::takeAfter(to + twin->second, *came);
            ZqLauncherFiles::replace(from + name, inside, to + twin->second);
            ZqLauncherFiles::removeEmpty(from + name);
            return;
        }
        if (twin != there.end()) SxFSAction::rm_r(to + twin->second);
        SxFSAction::mv(from + name, to + name);
    }

private:
    static bool isFolder(const SxString& path) {
        const auto found = SxFSAction::look(path);
        return found && found->kind == SxStat::Dir;
    }

    const SxString from, to;                  ///< with their slashes
    std::map<std::u16string, SxString> there; ///< by folded name
};

} // namespace

SxString ZqLauncherFiles::readText(const SxString& path) {
    if (!SxFSAction::test_f(path)) throw SxException("File " + path + " not found.", UNIT, __LINE__);
    try {
        requireNoLink(path);
        const std::string text = SxFileIO::readUtf8(path, MAX_MANIFEST).str();
        return SxString(text.substr(text.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0));
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + path, UNIT, __LINE__);
    }
}

void ZqLauncherFiles::requirePlain(const SxString& name, const SxString& what, bool mayHaveQuotes) {
    const char* fault = name.isEmpty() ? nullptr : faultOf(name.str(), mayHaveQuotes);
    if (fault) throw SxException(what + " '" + name.makeVisible() + "' " + fault, UNIT, __LINE__);
}

void ZqLauncherFiles::requireNoLink(const SxString& path) {
    const auto found = SxFSAction::look(path);
    if (found && found->kind == SxStat::Link)
        throw SxException("'" + path + "' is a link, which isn't followed", UNIT, __LINE__);
}

SxList<SxString> ZqLauncherFiles::missingFolders(const SxString& path) {
    SxList<SxString> missing;
    for (SxString folder = path; SxFSAction::isGone(folder); folder = parentOf(folder)) {
        if (parentOf(folder) == folder) break;
        missing.prepend(folder);
    }
    return missing;
}

void ZqLauncherFiles::makeFolder(const SxString& path) {
    ZqNewFolder folder(path);
    folder.sync();
    folder.keep();
}

void ZqLauncherFiles::copyFolder(const SxString& from, const SxString& to) {
    if (!SxFSAction::test_d(from)) throw SxException("There is no folder '" + from + "'", UNIT, __LINE__);
    requireNoLinksIn(from);
    SxFSAction::mkdir_p(parentOf(to), 0777);
    SxFSAction::cp(from, to);
}

void ZqLauncherFiles::remove(const SxString& path) {
    requireNoLink(path);
    if (SxFSAction::isGone(path)) return;
    SxFSAction::rm_r(path);
    SxFSAction::syncDir(parentOf(path));
}

bool ZqLauncherFiles::removeEmpty(const SxString& path) {
    const auto found = SxFSAction::look(path);
    if (!found) return true;
    if (found->kind != SxStat::Dir) return false;
    for (const SxFileInfo& entry : SxFSAction::ls(path)) {
        if (SxFSAction::isHalfMoved(entry.getName())) SxFSAction::rm_r(entry.getOrig());
    }
    // Not with what may have come into it meanwhile.
    const int result = SxOs::get().removeDir(SxOs::hostPath(path));
    if (result == -ENOTEMPTY || result == -EEXIST) return false;
    if (result < 0 && result != -ENOENT) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot remove folder '" + path + "'", UNIT, __LINE__);
    }
    SxFSAction::syncDir(parentOf(path));
    return true;
}

void ZqLauncherFiles::join(const SxString& from, const SxList<SxString>& names, const SxString& to) {
    const Moving moving(from, to);
    moving.run(names, [&](const SxString& name) { moving.join(name); });
}

void ZqLauncherFiles::replace(const SxString& from, const SxList<SxString>& names, const SxString& to) {
    const Moving moving(from, to);
    moving.run(names, [&](const SxString& name) { moving.replace(name); });
}

void ZqLauncherFiles::move(const SxString& from, const SxString& to) {
    SxFSAction::mv(from, to);
    SxFSAction::syncDir(parentOf(to));
    SxFSAction::syncDir(parentOf(from));
}
