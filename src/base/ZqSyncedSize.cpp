#include "ZqSyncedSize.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"

#include <algorithm>
#include <sstream>

namespace {
constexpr const char* UNIT = "src/base/ZqSyncedSize";
constexpr const char* UNKNOWN = "-"; ///< for the id of a machine that tells none
} // namespace

bool ZqSyncedSize::Note::isOfThisStart() const {
    return !boot.empty() && boot == SxOs::get().bootId();
}

SxString ZqSyncedSize::noteFile() const {
    return file + ZqImageFiles::SYNCED;
}

ZqSyncedSize::Note ZqSyncedSize::read() const {
    Note note;
    note.exists = SxFSAction::exists(noteFile());
    if (!note.exists) return note;
    std::istringstream text(SxFileIO::readUtf8(noteFile()).str());
    // A note that says nothing vouches for no byte.
    if (!(text >> note.size >> note.boot)) {
        note.size = 0;
        note.boot.clear();
    }
    if (note.boot == UNKNOWN) note.boot.clear();
    return note;
}

uint64 ZqSyncedSize::believed(uint64 size) const {
    const Note note = read();
    return !note.exists || note.isOfThisStart() ? size : std::min(size, note.size);
}

uint64 ZqSyncedSize::cutBack() const {
    SxStat info;
    if (SxOs::get().lstat(SxOs::hostPath(file), &info) != 0 || info.kind != SxStat::File) return 0;
    const auto size = static_cast<uint64>(info.size);
    const uint64 kept = believed(size);
    if (kept == size) return 0;
    try {
        SxFileIO growing(file, "r+b");
        growing.truncate(static_cast<int64>(kept));
    } catch (const SxException& e) {
        throw SxException(e, "Cannot cut '" + file + "' back to what had reached the disk", UNIT, __LINE__);
    }
    zqLogMsg("base", "The last " + SxString(size - kept) + " bytes of '" + file +
                         "' may not have reached the disk when the machine went down, and are fetched again");
    return size - kept;
}

void ZqSyncedSize::begin(uint64 size) const {
    const Note old = read();
    if (old.exists && old.isOfThisStart() && old.size <= size) return;
    // What is there may be as new as what will follow.
    SxFileIO(file, "rb").sync();
    note(size);
}

void ZqSyncedSize::note(uint64 size) const {
    const std::string boot = SxOs::get().bootId();
    SxFileIO::writeAtomic(noteFile(), SxString(size) + " " + (boot.empty() ? UNKNOWN : boot) + "\n");
}

void ZqSyncedSize::noteComplete(uint64 size) const {
    const Note old = read();
    if (old.exists && old.size != size) note(size);
}
