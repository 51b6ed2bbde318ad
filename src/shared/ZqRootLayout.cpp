#include "ZqRootLayout.h"

#include "SxException.h"
#include "SxFSAction.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/shared/ZqRootLayout";
/// What Wine leaves in each prefix that it has set up.
constexpr const char* WINES_MARK = "/.update-timestamp";

void makeLetter(const SxString& root, const char* letter, const char* target) {
    const SxString link = root + "/dosdevices/" + letter;
    const int result = SxOs::get().symlink(target, link.str());
    if (result == 0 || result == -EEXIST) return;
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                      "Cannot make the drive letter '" + link + "'", UNIT, __LINE__);
}

} // namespace

void ZqRootLayout::make(const SxString& root) {
    for (const char* folder : {"/drive_c", "/dosdevices"})
        SxFSAction::mkdir_p(root + folder, 0777);
    makeLetter(root, "c:", "../drive_c");
    if (SxFSAction::isGone(root + WINES_MARK)) makeLetter(root, "z:", "/");
}
