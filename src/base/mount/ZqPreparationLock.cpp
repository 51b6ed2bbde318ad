#include "ZqPreparationLock.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"

#include <cerrno>

namespace {
constexpr const char* UNIT = "src/base/mount/ZqPreparationLock";
constexpr const char* LOCK = ".tavrin-lock";
} // namespace

ZqPreparationLock::ZqPreparationLock(const SxString& directory_)
    : directory(directory_),
      file(directory + "/" + LOCK),
      host(SxOs::hostPath(file)) {
    SxOs& os = SxOs::get();
    for (;;) {
        SxFSAction::mkdir_p(directory, 0700);
        fd = os.open(host, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0600);
        const int result = fd < 0 ? fd : os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive);
        const bool isFree = result == 0 || result == -ENOLCK || result == -EOPNOTSUPP || result == -ENOSYS;
        // Whoever had it may have removed the folder meanwhile.
        if (isFree && os.hasName(fd, host) != 0) return;
        if (fd >= 0) os.close(fd);
        if (isFree) continue;
        if (result == -EAGAIN) {
            throw SxException("Another mount, perhaps of another version, fills '" + directory +
                                  "' at the moment",
                              UNIT, __LINE__);
        }
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__), "Cannot lock '" + file + "'",
                          UNIT, __LINE__);
    }
}

ZqPreparationLock::~ZqPreparationLock() {
    SxOs::get().close(fd);
}

void ZqPreparationLock::removeFolder() const {
    for (const SxFileInfo& entry : SxFSAction::ls(directory)) {
        if (!(entry.getName() == LOCK)) SxFSAction::rm_r(entry.getOrig());
    }
    SxFSAction::rm(file);
    // One that comes now needs it.
    const int result = SxOs::get().removeDir(SxOs::hostPath(directory));
    if (result < 0 && result != -ENOTEMPTY && result != -EEXIST) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot remove folder '" + directory + "'", UNIT, __LINE__);
    }
    SxFSAction::syncDir(SxFileInfo(directory).getPath());
}
