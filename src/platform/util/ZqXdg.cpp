#include "ZqXdg.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace {

struct User {
    std::string name, home;
};

User currentUser() {
    constexpr size_t BUFFER = 16384;
    std::vector<char> buffer(BUFFER);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return {};
    return {found->pw_name, found->pw_dir};
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

} // namespace

std::string zqXdgFolder(const char* variable, const std::string& belowHome) {
    const char* folder = std::getenv(variable);
    if (folder && folder[0] == '/') return withoutTrailingSlash(folder);
    const char* homeVariable = std::getenv("HOME");
    const std::string home = homeVariable && homeVariable[0] == '/' ? homeVariable : currentUser().home;
    if (home.empty()) return {};
    return withoutTrailingSlash(home) + "/" + belowHome;
}

std::string zqUserName() {
    const std::string name = currentUser().name;
    return name.empty() ? std::to_string(geteuid()) : name;
}
