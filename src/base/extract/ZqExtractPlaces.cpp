#include "ZqExtractPlaces.h"

#include "SxFSAction.h"
#include "SxMd5.h"

namespace {

constexpr int MAX_LINKS = 40;
constexpr const char* MOVED = ".tavrin-extracted";

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string below(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The path with all links resolved, also of what isn't there.
std::string resolved(const std::string& path) {
    SxOs& os = SxOs::get();
    std::string result;
    if (path == "/" || os.canonical(path, &result) == 0) return path == "/" ? path : result;
    return below(resolved(folderOf(path)), nameOf(path));
}

/// Where a link, or a chain of them, leads to, also where nothing is there.
std::string followed(std::string path) {
    SxOs& os = SxOs::get();
    std::string target;
    for (int i = 0; i < MAX_LINKS && os.readLink(path, &target) == 0; ++i)
        path = target.starts_with('/') ? target : below(folderOf(path), target);
    return resolved(SxFileInfo(path).getAbsPath().str());
}

std::string hostOf(const SxString& path) {
    std::string host = SxOs::hostPath(SxFileInfo(path).getAbsPath());
    while (host.size() > 1 && host.ends_with('/'))
        host.pop_back();
    return host;
}

/// A name beside `path` that no user gives.
SxString beside(const std::string& path, const char* ending) {
    return below(folderOf(path), "." + nameOf(path) + ending);
}

} // namespace

ZqExtractPlaces::ZqExtractPlaces(const SxString& image_, const SxString& destination_) {
    const std::string given = hostOf(image_), real = followed(given);
    SxStat info;
    if (SxOs::get().lstat(given, &info) == 0 && info.kind == SxStat::Link) link = given;
    if (!link.isEmpty()) movedLink = beside(given, MOVED);
    image = real;
    moved = beside(real, MOVED);
    const std::string wanted = hostOf(destination_);
    parent = resolved(folderOf(wanted));
    destination = below(parent.str(), nameOf(wanted));
    staging = beside(destination.str(), ".tavrin-extract");
    lock = staging + ".lock";
}

SxString ZqExtractPlaces::markEnd() const {
    return "-" + SxMd5::get(image);
}
