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

constexpr char FIRST = 'd', LAST = 'z';

std::string pathOf(const SxString& root, char letter) {
    return devices(root).str() + "/" + letter + ":";
}

SxString driveOf(char letter) {
    return SxString(std::string(1, static_cast<char>(letter - 'a' + 'A')) + ":");
}

/// 0 where no link leads there.
char findLetter(const SxString& root, const SxString& to) {
    for (char letter = FIRST; letter <= LAST; ++letter) {
        std::string now;
        if (SxOs::get().readLink(pathOf(root, letter), &now) == 0 && now == to.str()) return letter;
    }
    return 0;
}

} // namespace

void DriveLetter::take(const SxString& root, const SxString& to) {
    ZqRootLayout::make(root);
    for (char letter = FIRST; letter <= LAST; ++letter) {
        const std::string path = pathOf(root, letter);
        const int result = SxOs::get().symlink(to.str(), path);
        if (result == 0) {
            keep(letter, path, to);
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

SxString DriveLetter::find(const SxString& root, const SxString& to) {
    const char letter = findLetter(root, to);
    return letter == 0 ? SxString() : driveOf(letter);
}

bool DriveLetter::takeOver(const SxString& root, const SxString& to) {
    const char letter = findLetter(root, to);
    if (letter != 0) keep(letter, pathOf(root, letter), to);
    return letter != 0;
}

void DriveLetter::keep(char letter, const std::string& path, const SxString& to) {
    link = path;
    target = to.str();
    drive = driveOf(letter);
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

void DriveLetter::removeBelow(const SxString& root, const SxString& folder, const SxList<SxString>& kept) {
    std::vector<std::string> names;
    SxOs::get().list(devices(root).str(), &names);
    for (const std::string& name : names) {
        const std::string path = devices(root).str() + "/" + name;
        std::string to;
        const bool isBelow = SxOs::get().readLink(path, &to) == 0 && to.starts_with(folder.str());
        if (isBelow && !kept.contains(SxString(to))) SxOs::get().unlink(path);
    }
}
