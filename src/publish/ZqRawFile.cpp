#include "ZqRawFile.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"

ZqRawFile::ZqRawFile(const SxString& dir)
    : folder(ZqImageFolder::prefix(dir)),
      temporary(folder + NAME + ".new"),
      made(folder) {
    if (SxFileInfo(temporary).isLink() || SxFSAction::exists(temporary)) SxFSAction::rm(temporary);
}

ZqRawFile::~ZqRawFile() {
    try {
        if (SxFSAction::exists(temporary)) SxFSAction::rm(temporary);
    } catch (const SxException& e) {
        zqLogMsg("publish", "cannot remove what was written so far: " + e.toString(3, "\n"));
    }
}

void ZqRawFile::commit() {
    made.sync();
    SxFSAction::mv(temporary, folder + NAME);
    SxFSAction::syncDir(folder);
    made.keep();
}
