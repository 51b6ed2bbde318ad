#include "MountTable.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

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

} // namespace

std::vector<std::string> MountTable::below(const std::string& folder) {
    const std::string prefix = folder.ends_with("/") ? folder : folder + "/";
    std::vector<std::string> found;
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, at;
        fields >> id >> parent >> device >> root >> at;
        at = plain(at);
        if (at.starts_with(prefix)) found.push_back(at);
    }
    return found;
}
