#include "DriveLetter.h"

#include "DriverLog.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqRootLayout.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/driver/DriveLetter";

SxString devices(const SxString& root) {
    return root + "/dosdevices";
}

} // namespace

void DriveLetter::take(const SxString& root, const SxString& to) {
    ZqRootLayout::make(root);
    for (char letter = 'd'; letter <= 'z'; ++letter) {
        const std::string path = devices(root).str() + "/" + letter + ":";
        const int result = SxOs::get().symlink(to.str(), path);
        if (result == 0) {
            link = path;
            target = to.str();
            drive = SxString(std::string(1, static_cast<char>(letter - 'a' + 'A')) + ":");
            return;
        }
        if (result != -EEXIST) {
            throw SxException("Cannot make the drive letter '" + SxString(path) +
                                  "': " + SxOs::errorText(result),
                              UNIT, __LINE__);
        }
    }
    throw SxException("No drive letter is free in '" + devices(root) + "'", UNIT, __LINE__);
}

void DriveLetter::remove() {
    std::string now;
    if (!link.empty() && SxOs::get().readLink(link, &now) == 0 && now == target) {
        const int result = SxOs::get().unlink(link);
        if (result < 0)
            driverLog("cannot remove drive letter " + SxString(link) + ": " + SxOs::errorText(result));
    }
    link.clear();
    drive = SxString();
}

void DriveLetter::removeBelow(const SxString& root, const SxString& folder) {
    std::vector<std::string> names;
    SxOs::get().list(devices(root).str(), &names);
    for (const std::string& name : names) {
        const std::string path = devices(root).str() + "/" + name;
        std::string to;
        if (SxOs::get().readLink(path, &to) == 0 && to.starts_with(folder.str())) SxOs::get().unlink(path);
    }
}
