#include "ZqSyncedSize.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"

#include <sstream>

namespace {
constexpr const char* UNIT = "src/base/ZqSyncedSize";
constexpr const char* UNKNOWN = "-"; ///< begins the id of a machine that tells none
constexpr const char* LOST = "lost";

/// The id of the machine's start. Where the machine tells none, only this is known: it hasn't started again
/// since this process began.
std::string startId() {
    static const std::string ofProcess =
        UNKNOWN + std::to_string(SxClock::get().systemMs()) + "." + std::to_string(SxClock::get().steadyNs());
    const std::string boot = SxOs::get().bootId();
    return boot.empty() ? ofProcess : boot;
}
} // namespace

bool ZqSyncedSize::Note::isOfThisStart() const {
    return !boot.empty() && boot == startId();
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
    std::string word;
    note.isLost = text >> word && word == LOST;
    return note;
}

SxString ZqSyncedSize::folder() const {
    return file.str().substr(0, file.str().find_last_of('/') + 1);
}

bool ZqSyncedSize::isWholeImage(uint64 size, const std::function<bool()>& stop) const {
    if (!SxFSAction::exists(folder() + ZqImageFiles::APP_JSON)) return false;
    const ZqAppParams app(folder());
    if (size != app.sizeZqf) return false;
    ZqStreamRecord record;
    record.read(folder());
    // Only what is complete is written into, or was compared with its digest.
    if (record.isWritten) return true;
    if (app.checksumZqf.isEmpty()) return false;
    if (record.isVerified(folder(), app.checksumZqf)) return true;
    zqLogMsg("base", "'" + file + "' is compared with its digest");
    SxFileIO whole(file, "rb");
    const SxString digest = SxMd5::file(&whole, [&](int64) { return !(stop && stop()); });
    if (digest.isEmpty()) throw SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
    return digest == app.checksumZqf;
}

uint64 ZqSyncedSize::believed(uint64 size, const std::function<bool()>& stop) const {
    const Note old = read();
    if (!old.exists || old.isOfThisStart() || old.size >= size) return size;
    if (!isWholeImage(size, stop)) return old.size;
    try {
        SxFileIO(file, "rb").sync();
        note(size);
    } catch (const SxException& e) {
        // Then the next process reads the whole file, too.
        zqLogMsg("base", "ZqSyncedSize: " + e.toString(SxException::ShowMessage, ": "));
    }
    return size;
}

uint64 ZqSyncedSize::cutBack(const std::function<bool()>& stop) const {
    SxStat info;
    if (SxOs::get().lstat(SxOs::hostPath(file), &info) != 0 || info.kind != SxStat::File) return 0;
    const auto size = static_cast<uint64>(info.size);
    const uint64 kept = believed(size, stop);
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
    // What is there already may not be on the device, either.
    SxFileIO(file, "rb").sync();
    note(size);
}

void ZqSyncedSize::write(const Note& note) const {
    SxFileIO::writeAtomic(noteFile(), SxString(note.size) + " " + note.boot +
                                          (note.isLost ? std::string(" ") + LOST : std::string()) + "\n");
}

void ZqSyncedSize::note(uint64 size) const {
    write({true, size, startId(), false});
}

void ZqSyncedSize::noteLoss() const {
    Note old = read();
    if (!old.exists) return;
    old.isLost = true;
    write(old);
}

bool ZqSyncedSize::hasLoss() const {
    const Note old = read();
    return old.isLost && old.isOfThisStart();
}

void ZqSyncedSize::noteComplete(uint64 size) const {
    const Note old = read();
    if (old.exists && old.size != size && !(old.isLost && old.isOfThisStart())) note(size);
}
