#include "ZqLauncherFiles.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqNewFolder.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/base/ZqLauncherFiles";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

/// What is wrong with a name, or null.
const char* faultOf(const std::string& name) {
    if (name.find_first_not_of('.') == std::string::npos) return "consists of dots alone";
    if (name.find_first_of("/\\") != std::string::npos) return "holds a slash";
    if (name.find(':') != std::string::npos) return "holds a colon";
    if (name.find_first_of("\"'") != std::string::npos) return "holds a quote";
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

} // namespace

SxString ZqLauncherFiles::readText(const SxString& path) {
    requireNoLink(path);
    const std::string text = SxFileIO::readUtf8(path, MAX_MANIFEST).str();
    return SxString(text.substr(text.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0));
}

void ZqLauncherFiles::requirePlain(const SxString& name, const SxString& what) {
    const char* fault = name.isEmpty() ? nullptr : faultOf(name.str());
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
    if (found->kind != SxStat::Dir || !SxFSAction::ls(path).isEmpty()) return false;
    remove(path);
    return true;
}

void ZqLauncherFiles::move(const SxString& from, const SxString& to) {
    SxFSAction::mv(from, to);
    SxFSAction::syncDir(parentOf(to));
    SxFSAction::syncDir(parentOf(from));
}

void ZqLauncherFiles::become(const SxString& path, const SxString& other) {
    const auto wanted = SxFSAction::look(other);
    if (!wanted) return;
    SxOs& os = SxOs::get();
    const std::string host = SxOs::hostPath(path);
    int result = os.setOwner(host, wanted->owner, wanted->group);
    if (result == 0 || result == -EPERM) result = os.setPermissions(host, wanted->permissions);
    if (result == 0) return;
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                      "Cannot set the permissions of '" + path + "'", UNIT, __LINE__);
}
