#include "SxFileInfo.h"

#include "SxException.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxFileInfo";

bool hasDrive(const std::string& path) {
    return path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0])) &&
           (path.size() == 2 || path[2] == '/' || path[2] == '\\');
}

std::string joinParts(const std::string& root, const std::vector<std::string>& parts) {
    std::string result = root;
    for (size_t i = 0; i < parts.size(); ++i)
        result += (i > 0 ? "/" : "") + parts[i];
    return result;
}

/// Puts what a link leads to in its place: the ".." after it means the folder above that.
void resolveLink(const std::string& root, std::vector<std::string>* parts) {
    SxStat info;
    const std::string path = joinParts(root, *parts);
    if (SxOs::get().lstat(path, &info) < 0 || info.kind != SxStat::Link) return;
    std::string target;
    if (SxOs::get().canonical(path, &target) < 0) return;
    parts->clear();
    for (const SxString& part : SxString(target).tokenize('/'))
        parts->push_back(part.str());
}

} // namespace

SxString SxFileInfo::getName() const {
    const std::string& text = path.str();
    const size_t end = text.find_last_not_of('/');
    if (end == std::string::npos) return SxString();
    const size_t slash = text.rfind('/', end);
    return SxString(text.substr(slash == std::string::npos ? 0 : slash + 1,
                                end - (slash == std::string::npos ? 0 : slash + 1) + 1));
}

SxString SxFileInfo::getPath() const {
    const std::string text = getAbsPath().str();
    const size_t root = hasDrive(text) ? 3 : 1;
    return SxString(text.substr(0, std::max(text.rfind('/'), root)));
}

SxString SxFileInfo::getAbsPath() const {
    std::string text = path.str();
    std::string root = "/";
    const bool drive = hasDrive(text);
    if (drive) {
        std::replace(text.begin(), text.end(), '\\', '/');
        root = text.substr(0, 2) + "/";
        text = text.substr(2);
    } else if (!text.starts_with('/')) {
        text = SxOs::get().currentDir() + "/" + text;
    }
    std::vector<std::string> parts;
    for (const SxString& part : SxString(text).tokenize('/')) {
        if (part == ".") continue;
        if (part == "..") {
            if (!drive) resolveLink(root, &parts);
            if (!parts.empty()) parts.pop_back();
        } else {
            parts.push_back(part.str());
        }
    }
    return SxString(joinParts(root, parts));
}

SxString SxFileInfo::getRelPath(const SxString& base) const {
    const std::string whole = getAbsPath().str();
    std::string folder = SxFileInfo(base).getAbsPath().str();
    if (!folder.ends_with('/')) folder += '/';
    if (!whole.starts_with(folder)) {
        throw SxException("'" + path + "' doesn't lie below '" + base + "'", UNIT, __LINE__);
    }
    return SxString(whole.substr(folder.size()));
}

const SxStat* SxFileInfo::target() const {
    if (!asked) {
        const std::string host = SxOs::hostPath(path);
        linkStatus = SxOs::get().lstat(host, &linkInfo);
        if (linkStatus == 0 && linkInfo.kind != SxStat::Link) {
            info = linkInfo;
            status = 0;
        } else {
            status = linkStatus < 0 ? linkStatus : SxOs::get().stat(host, &info);
        }
        asked = true;
    }
    return status == 0 ? &info : nullptr;
}

bool SxFileInfo::isFile() const {
    const SxStat* found = target();
    return found && found->kind == SxStat::File;
}

bool SxFileInfo::isDir() const {
    const SxStat* found = target();
    return found && found->kind == SxStat::Dir;
}

bool SxFileInfo::isLink() const {
    target();
    return linkStatus == 0 && linkInfo.kind == SxStat::Link;
}

int64 SxFileInfo::getSize() const {
    const SxStat* found = target();
    if (!found) {
        throw SxException(SxException(SxOs::errorText(status), UNIT, __LINE__),
                          "Cannot get the size of '" + path + "'", UNIT, __LINE__);
    }
    return found->size;
}
