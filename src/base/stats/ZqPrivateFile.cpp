#include "ZqPrivateFile.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqPrivateFile";
constexpr int PERMISSION = 0600, FOLDER_PERMISSION = 0700;
constexpr uint32 WRITTEN_BY_OTHERS = 0022;

/// Of the open file, since another one may stand at its name by now.
void requireOwn(const SxFileIO& io) {
    SxStat info;
    const int result = SxOs::get().statFd(io.getFd(), &info);
    if (result < 0) throw SxException(SxOs::errorText(result), UNIT, __LINE__);
    if (SxString(info.owner) != ZqSysEnv::getUserId())
        throw SxException("It belongs to another user and isn't believed", UNIT, __LINE__);
    if (info.permissions & WRITTEN_BY_OTHERS)
        throw SxException("Other users may write it, so it isn't believed", UNIT, __LINE__);
    if (info.size > SxFileIO::MAX_TEXT) {
        throw SxException(SxString("It has more than ") + SxFileIO::MAX_TEXT + " bytes", UNIT, __LINE__);
    }
}

} // namespace

std::optional<SxString> ZqPrivateFile::read(const SxString& file) {
    if (!SxFSAction::look(file)) return std::nullopt;
    SxFileIO io(file, "rb");
    requireOwn(io);
    SxString text;
    io.read(&text, SxFileIO::MAX_TEXT);
    return text;
}

void ZqPrivateFile::write(const SxString& file, const SxString& text) {
    makeFolder(file);
    SxFileIO::writeAtomic(file, text, PERMISSION);
}

void ZqPrivateFile::remove(const SxString& file) {
    if (!SxFSAction::look(file)) return;
    SxFSAction::rm(file);
    SxFSAction::syncDir(SxFileInfo(file).getPath());
}

void ZqPrivateFile::makeFolder(const SxString& file) {
    SxString missing = SxFileInfo(file).getPath();
    if (SxFSAction::test_d(missing)) return;
    SxFSAction::mkdir_p(missing, FOLDER_PERMISSION);
    // Some of the folders above may be new, too; to sync the others costs little.
    for (SxString above = SxFileInfo(missing).getPath(); above != missing;
         above = SxFileInfo(missing).getPath()) {
        SxFSAction::syncDir(above);
        missing = above;
    }
}
