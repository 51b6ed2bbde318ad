// What is left to do once the copy has its name.

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqExtractContent.h"
#include "ZqExtractNote.h"
#include "ZqExtractPlaces.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqMachineRoot.h"
#include "ZqPreparationLock.h"
#include "ZqRedirection.h"
#include "ZqSaves.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/base/extract/ZqExtractContent";
constexpr const char* JOB = "content extract";

bool isLink(const SxString& path) {
    const auto info = path.isEmpty() ? std::nullopt : SxFSAction::look(path);
    return info && info->kind == SxStat::Link;
}

/// Removes the folders from `path` upward that are empty, up to `end`.
void removeEmpty(const SxString& end, SxString path) {
    while (path.startsWith(end + "/") && SxOs::get().removeDir(SxOs::hostPath(path)) == 0) {
        path = SxFileInfo(path).getPath();
        SxFSAction::syncDir(path);
    }
}

} // namespace

SxString ZqExtractContent::findBegun(const ZqExtractPlaces& places) {
    for (const SxString& each : {places.image, places.moved}) {
        if (!SxFSAction::test_d(each) || !ZqExtractNote::exists(each)) continue;
        const ZqExtractNote note = ZqExtractNote::read(each);
        if (note.isBinding() && note.destination == places.destination) return each;
    }
    // The note has gone already, but not all else: what held it, or the mark.
    const bool isRest = SxFSAction::isGone(places.image) && !ZqExtractNote::exists(places.moved) &&
                        ZqExtractNote::markOf(places.destination).endsWith(places.markEnd().str());
    return isRest ? places.moved : SxString();
}

void ZqExtractContent::goOn(const ZqExtractPlaces& places, const SxString& begun) {
    isNamed = resumed = true;
    if (!ZqExtractNote::exists(begun)) return removeRest(places, begun);
    const auto growth = ZqImageLock::takeExtracted(begun, ZqImageLock::Growth, ZqImageLock::Exclusive, JOB);
    const auto shape = ZqImageLock::takeExtracted(begun, ZqImageLock::Shape, ZqImageLock::Exclusive, JOB);
    ZqExtractNote note = ZqExtractNote::read(begun);
    if (note.isKept != isKept) {
        if (isKept && (begun == places.moved || SxFSAction::isGone(begun + "/" + ZqImageFiles::APP_JSON))) {
            throw SxException("The image " + image +
                                  " is removed in part, so it can't be kept; go on without --keep",
                              UNIT, __LINE__);
        }
        note.isKept = isKept;
        note.write(begun);
    }
    finish(places, begun, note);
}

void ZqExtractContent::finish(const ZqExtractPlaces& places, const SxString& from,
                              const ZqExtractNote& note) {
    const SxString prefix = ZqImageFolder::prefix(from);
    // Once they are made the record may be gone.
    if (!SxFSAction::isGone(prefix + ZqImageFiles::APP_JSON) && !(from == places.moved)) {
        app = ZqAppParams(prefix);
        makeRegistryEntries(places);
    }
    if (note.isKept) {
        ZqExtractNote::remove(from);
        return removeMark(places);
    }
    SxString rest;
    try {
        rest = moveAway(places, from);
        for (const SxFileInfo& entry : SxFSAction::ls(rest)) {
            const SxString name = entry.getName();
            if (name == ZqImageFiles::EXTRACT_JSON || name == ZqImageFiles::LOCK) continue;
            SxFSAction::rm_r(entry);
        }
        SxFSAction::syncDir(rest);
    } catch (const SxException& e) {
        raise("Cannot remove TAVRIN image " + image, " : ", e, __LINE__);
    }
    removePrivate(places, note);
    try {
        removeRest(places, rest);
    } catch (const SxException& e) {
        raise("Cannot remove TAVRIN image " + image, " : ", e, __LINE__);
    }
}

void ZqExtractContent::makeRegistryEntries(const ZqExtractPlaces& places) const {
    if (app.registry.isEmpty()) return;
    try {
        ZqRegistry::createRegEntriesAsAdmin(app.registry, ZqMachineRoot::windowsPath(places.destination));
    } catch (const SxException& e) {
        const SxString words = "Cannot make the registry entries of " + destination;
        log(words + " : " + e.toString(3, "\n"));
        throw SxException(e, words, UNIT, __LINE__).tagged(REGISTRY);
    }
}

/// Takes the name from the image, so that nobody finds half of it there. Gives its path.
SxString ZqExtractContent::moveAway(const ZqExtractPlaces& places, const SxString& from) {
    SxOs& os = SxOs::get();
    SxString left = from;
    if (from == places.image) {
        // Of another image that was here, and whose end nobody can do any longer.
        if (!SxFSAction::isGone(places.moved)) {
            if (!ZqExtractNote::exists(places.moved) && !SxFSAction::ls(places.moved).isEmpty())
                throw SxException("'" + places.moved + "' is in the way, and isn't of this program", UNIT,
                                  __LINE__);
            SxFSAction::rm_r(places.moved);
        }
        const int result = os.rename(places.image.str(), places.moved.str());
        // The place of a file system can't be renamed.
        const bool isFixed = result == -EBUSY || result == -EXDEV;
        if (result < 0 && !isFixed) {
            throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                              "Cannot rename '" + places.image + "' to '" + places.moved + "'", UNIT,
                              __LINE__);
        }
        if (!isFixed) left = places.moved;
        SxFSAction::syncDir(SxFileInfo(places.image).getPath());
    }
    if (places.link.isEmpty()) return left;
    // The note must be found from the link's name as long as it stands.
    const int made = os.symlink(left.str(), places.movedLink.str());
    if (made < 0 && made != -EEXIST) {
        throw SxException(SxException(SxOs::errorText(made), UNIT, __LINE__),
                          "Cannot make '" + places.movedLink + "'", UNIT, __LINE__);
    }
    SxFSAction::rm(places.link);
    SxFSAction::syncDir(SxFileInfo(places.link).getPath());
    return left;
}

void ZqExtractContent::removePrivate(const ZqExtractPlaces& places, const ZqExtractNote& note) {
    if (note.dirmap.isEmpty() && note.filemap.isEmpty()) return;
    // The note is a file in a folder that others may have made, so its names are checked as those of
    // app.json.
    ZqAppParams names;
    names.guid = note.guid;
    names.dirmap = note.dirmap;
    names.filemap = note.filemap;
    const ZqRedirection redirection(names);
    if (!(note.folder == PROTECTED) && !(note.folder == PRIVATE))
        throw SxException("'" + note.folder.makeVisible() + "' is no protected folder", UNIT, __LINE__);
    std::optional<ZqPreparationLock> lock;
    if (SxFSAction::test_d(redirection.getDirectory())) lock.emplace(redirection.getDirectory());
    ZqSaves::requireFree(note.guid, places.image);
    const SxString side = redirection.getDirectory() + "/" + note.folder;
    for (const ZqRedirection::Item& item : redirection.getItems()) {
        const SxString from = side + "/" + item.name;
        try {
            if (ZqRedirection::has(side, item)) {
                SxFSAction::rm_r(from);
                SxFSAction::syncDir(SxFileInfo(from).getPath());
            }
            removeEmpty(side, SxFileInfo(from).getPath());
        } catch (const SxException& e) {
            const SxException level(
                e, "Cannot move " + from + " to " + destination + note.folder + "/" + item.name, UNIT,
                __LINE__);
            raise(SxString("Cannot move reparsed ") + (item.isFolder ? "folders" : "files"), ": ", level,
                  __LINE__);
        }
    }
    if (SxFSAction::test_d(side) && !SxFSAction::ls(side).isEmpty()) privateLeft = side;
}

/// Removes the note, with which nothing more can be gone on with, and what held it.
void ZqExtractContent::removeRest(const ZqExtractPlaces& places, const SxString& from) const {
    SxOs& os = SxOs::get();
    std::string real;
    const int found = os.canonical(from.str(), &real);
    if (found < 0 && found != -ENOENT) {
        throw SxException(SxException(SxOs::errorText(found), UNIT, __LINE__),
                          "Cannot look at '" + from + "'", UNIT, __LINE__);
    }
    if (found == 0) {
        for (const char* name : {ZqImageFiles::LOCK, ZqImageFiles::EXTRACT_JSON}) {
            const SxString file = SxString(real) + "/" + name;
            if (!SxFSAction::isGone(file)) SxFSAction::rm(file);
        }
        const int removed = os.removeDir(real);
        if (removed == -EBUSY) {
            log("'" + SxString(real) + "' stays, empty, since it is the place of a file system");
        } else if (removed < 0) {
            throw SxException(SxException(SxOs::errorText(removed), UNIT, __LINE__),
                              "Cannot remove folder '" + SxString(real) + "'", UNIT, __LINE__);
        }
        SxFSAction::syncDir(SxFileInfo(SxString(real)).getPath());
    }
    for (const SxString& each : {places.moved, places.movedLink})
        if (isLink(each)) SxFSAction::rm(each);
    removeMark(places);
}

/// The last step: as long as the mark is there, what is left of the image is known as such.
void ZqExtractContent::removeMark(const ZqExtractPlaces& places) const {
    if (SxFSAction::isGone(places.destination + ZqExtractNote::MARK)) return;
    SxFSAction::rm(places.destination + ZqExtractNote::MARK);
    SxFSAction::syncDir(places.destination);
}

void ZqExtractContent::requireNoRest(const ZqExtractPlaces& places) {
    if (!ZqExtractNote::exists(places.moved)) return;
    const ZqExtractNote note = ZqExtractNote::read(places.moved);
    const SxString begin = "Image '" + places.image + "' was extracted to '" + note.destination + "'";
    if (note.isBinding())
        refuse(begin + "; go on with: tavrin content extract IMAGE '" + note.destination + "'", __LINE__);
    refuse(begin + ", which isn't there any longer; what is left of the image lies in '" + places.moved + "'",
           __LINE__);
}
