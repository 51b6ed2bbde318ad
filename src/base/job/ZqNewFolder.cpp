#include "ZqNewFolder.h"

#include "SxException.h"
#include "SxFSAction.h"

ZqNewFolder::ZqNewFolder(const SxString& path) {
    SxString missing = SxFileInfo(path).getAbsPath();
    while (!SxFSAction::exists(missing) && !(missing == SxFileInfo(missing).getPath())) {
        made.push_back(missing);
        missing = SxFileInfo(missing).getPath();
    }
    try {
        SxFSAction::mkdir_p(path, 0777);
    } catch (const SxException&) {
        remove();
        throw;
    }
}

void ZqNewFolder::sync() const {
    for (const SxString& path : made)
        SxFSAction::syncDir(SxFileInfo(path).getPath());
}

void ZqNewFolder::remove() {
    for (const SxString& path : made)
        SxOs::get().removeDir(SxOs::hostPath(path));
}
