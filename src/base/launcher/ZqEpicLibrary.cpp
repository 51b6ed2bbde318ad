#include "ZqEpicLibrary.h"

#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqDesktop.h"
#include "ZqFold.h"
#include "ZqLauncherFiles.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <set>

namespace {

constexpr const char* UNIT = "src/base/ZqEpicLibrary";
constexpr const char* DRIVE_WORD = "{{ZQDRIVE}}";
constexpr const char* MAIN_ITEM = "epic.item";
constexpr const char* LAUNCHER = "EpicGamesLauncher.exe";
constexpr const char* LAUNCHER_WINDOW = "Epic Games Launcher";
/// How long a process that was ended may take to go, in milliseconds.
constexpr int64 END_MS = 2000;

using Files = ZqLauncherFiles;
using Image = ZqLauncherChanges::Image;

SxString singleFile(const SxString& mntPoint) {
    return mntPoint + "/TAVRIN-protected/app/" + MAIN_ITEM;
}

SxString itemFolder(const SxString& mntPoint) {
    return mntPoint + "/TAVRIN-protected/app/epicitems";
}

ZqEpicParams readEntry(const SxString& file) {
    try {
        const SxFileInfo info(file);
        return ZqEpicParams(info.getName(), info.getPath() + "/");
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read epic library entry file " + file, UNIT, __LINE__);
    }
}

SxString manifest(const SxString& item) {
    return SxString(Files::EPIC_MANIFESTS) + "/" + item;
}

SxString storeFolder(const SxString& name) {
    return SxString(Files::EPIC_STORES) + "/" + name;
}

void removeFolded(SxList<SxString>* names, const SxString& name) {
    SxList<SxString> left;
    for (const SxString& each : *names) {
        if (zqFold(zqUtf16(each)) != zqFold(zqUtf16(name))) left.append(each);
    }
    *names = left;
}

void addOnce(SxList<SxString>* list, const SxString& name) {
    if (!list->contains(name)) list->append(name);
}

} // namespace

class ZqEpicLibrary::Entries {
public:
    /// Reads them; raises where there are none, and where one can't be read.
    explicit Entries(const SxString& mntPoint_) : mntPoint(mntPoint_) {
        const SxString single = singleFile(mntPoint), folder = itemFolder(mntPoint);
        if (SxFSAction::test_f(single)) {
            read(single, single, true);
        } else if (SxFSAction::test_d(folder)) {
            isFolder = true;
            for (const SxFileInfo& info : SxFSAction::find(folder + "/*.item", false))
                read(info.getOrig(), info.getAbsPath(), info.getName() == MAIN_ITEM);
        } else {
            for (const SxFileInfo& info : SxFSAction::ls(mntPoint + "/"))
                zqLogMsg("base", info.getAbsPath());
            throw SxException("No Epic library entry file " + single + " or library entry directory " +
                                  folder + " found",
                              UNIT, __LINE__);
        }
    }

    /// Two that are called alike would overwrite each other, and one mount's clean-up both.
    void requireDistinct() const {
        std::set<std::u16string> names;
        for (const Entry& entry : all) {
            if (names.insert(zqFold(zqUtf16(entry.params.getFileName()))).second) continue;
            throw SxException("Two entries of the Epic library have the InstallationGuid '" +
                                  entry.params.InstallationGuid.makeVisible() + "'; the second is " +
                                  entry.file,
                              UNIT, __LINE__);
        }
        if (std::count_if(all.begin(), all.end(), [](const Entry& entry) { return entry.isMain; }) > 1)
            throw SxException(SxString("Two entries of the Epic library are called ") + MAIN_ITEM, UNIT,
                              __LINE__);
    }
    const Entry* findMain() const {
        for (const Entry& entry : all) {
            if (entry.isMain) return &entry;
        }
        return nullptr;
    }

    std::vector<Entry> all;
    bool isFolder = false;

private:
    void read(const SxString& file, const SxString& shown, bool isMain) {
        Entry entry{shown, readEntry(file), isMain};
        entry.params.InstallLocation = entry.params.InstallLocation.substitute(DRIVE_WORD, mntPoint);
        all.push_back(std::move(entry));
    }

    const SxString mntPoint;
};

void ZqEpicLibrary::requireEntries(const SxString& mntPoint) {
    const Entries entries(mntPoint);
}

ZqEpicParams ZqEpicLibrary::make(const SxString& image, const SxString& mntPoint) {
    const Entries entries(mntPoint);
    entries.requireDistinct();
    for (const Entry& entry : entries.all)
        Files::requireNoLink(manifest(entry.params.getFileName()));
    setAside(image);
    // Only then, since what is noted as made is removed again: where nothing stands that isn't ours.
    note(image, entries);
    record->save();
    for (const Entry& entry : entries.all) {
        try {
            ZqEpicParams(entry.params).write("", "");
        } catch (const SxException& e) {
            throw SxException(e, "Cannot write epic library entry file", UNIT, __LINE__);
        }
        if (entry.isMain) copyStore(image, entry.params);
    }
    const Entry* main = entries.findMain();
    if (main) return main->params;
    throw SxException("Cannot create Epic Games Store Manifest: No epic.item found.", UNIT, __LINE__);
}

/// Notes what will be made.
void ZqEpicLibrary::note(const SxString& image, const Entries& entries) {
    Image& own = record->changes.of(image);
    for (const Entry& entry : entries.all)
        addOnce(&own.items, entry.params.getFileName());
    noteFolders(Files::EPIC_MANIFESTS);
    const Entry* main = entries.findMain();
    if (!main) return;
    const SxString name = main->params.MandatoryAppFolderName, part = name + "/.egstore";
    Files::requireNoLink(storeFolder(name));
    Files::requireNoLink(storeFolder(part));
    // One that was there before is the player's. One that another mount has made serves both.
    for (const SxString& made : {name, part}) {
        const bool isShared = record->changes.isOthers(image, &Image::stores, made);
        if (!isShared && !SxFSAction::isGone(storeFolder(made))) continue;
        addOnce(&own.stores, made);
        break;
    }
    noteFolders(Files::EPIC_STORES);
}

void ZqEpicLibrary::noteFolders(const SxString& folder) {
    for (const SxString& missing : Files::missingFolders(folder)) {
        if (!(missing == "C:/ProgramData") && !(missing == "C:/")) addOnce(&record->changes.folders, missing);
    }
}

/// The names in the launcher's folder that belong to no mounted title. `*hasOthers`: some do, or the folder
/// was made for one.
SxList<SxString> ZqEpicLibrary::findPlayers(bool* hasOthers) const {
    const SxString manifests = Files::EPIC_MANIFESTS;
    SxList<SxString> players;
    *hasOthers = record->changes.folders.contains(manifests);
    for (const SxFileInfo& info : SxFSAction::ls(manifests)) {
        if (record->changes.isNoted(&Image::items, info.getName())) {
            *hasOthers = true;
        } else {
            players.append(info.getName());
        }
    }
    return players;
}

void ZqEpicLibrary::setAside(const SxString& image) {
    const SxString manifests = Files::EPIC_MANIFESTS, saved = Files::EPIC_SAVED;
    Files::requireNoLink(manifests);
    Files::requireNoLink(saved);
    const bool isSaved = !SxFSAction::isGone(saved), isThere = !SxFSAction::isGone(manifests);
    bool hasOthers = false;
    SxList<SxString> players;
    if (isThere) players = findPlayers(&hasOthers);
    const bool goesWhole = isThere && !hasOthers && !isSaved;
    if (!goesWhole && !isSaved && players.isEmpty()) return;
    // What a return that was cut off has still to bring back is aside again.
    record->changes.setReturns = false;
    record->changes.of(image).setsAside = true;
    noteFolders(Files::EPIC_BACKUP);
    record->save();
    if (goesWhole) {
        Files::makeFolder(Files::EPIC_BACKUP);
        zqLogMsg("base", "Moving " + manifests + " to " + saved);
        Files::move(manifests, saved);
        SxFSAction::mkdir_p(manifests, 0777);
    } else if (!players.isEmpty()) {
        Files::makeFolder(saved);
        Files::join(manifests, players, saved);
    }
}

void ZqEpicLibrary::copyStore(const SxString& image, const ZqEpicParams& params) {
    const Image* own = record->changes.find(image);
    const SxString name = params.MandatoryAppFolderName;
    const bool isOurs = own && (own->stores.contains(name) || own->stores.contains(name + "/.egstore"));
    if (!isOurs || SxFSAction::test_d(params.ManifestLocation)) return;
    try {
        Files::copyFolder(params.InstallLocation + "/.egstore", params.ManifestLocation);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot create Epic Games Store Manifest " + params.ManifestLocation, UNIT,
                          __LINE__);
    }
}

void ZqEpicLibrary::undo(const SxString& image) {
    ZqTries tries;
    record->removeMade(image, &Image::items, manifest, &tries);
    record->removeMade(image, &Image::stores, storeFolder, &tries);
    const bool wasAside = record->changes.of(image).setsAside;
    record->changes.of(image).setsAside = false;
    if (!tries.run([&] { bringBack(); }) && !record->changes.setReturns)
        record->changes.of(image).setsAside = wasAside;
    tries.run([&] { removeFolders(); });
    tries.raise();
}

void ZqEpicLibrary::bringBack() {
    ZqLauncherChanges& changes = record->changes;
    const bool isNeeded = std::any_of(changes.images.begin(), changes.images.end(),
                                      [](const Image& image) { return image.setsAside; });
    if (isNeeded) return;
    if (SxFSAction::isGone(Files::EPIC_SAVED)) {
        changes.setReturns = false;
        return;
    }
    Files::requireNoLink(Files::EPIC_SAVED);
    Files::requireNoLink(Files::EPIC_MANIFESTS);
    // From the moment at which the first manifest is back, none of that name may count as ours: it would be
    // removed by whoever goes on after a cut. So that is noted first.
    for (const SxFileInfo& info : SxFSAction::ls(Files::EPIC_SAVED)) {
        for (Image& image : changes.images)
            removeFolded(&image.items, info.getName());
    }
    changes.setReturns = true;
    record->save();
    returnSet();
    changes.setReturns = false;
}

/// Brings the saved manifests back as the launcher's. Whatever cuts it off, the next call goes on.
void ZqEpicLibrary::returnSet() {
    const SxString manifests = Files::EPIC_MANIFESTS, saved = Files::EPIC_SAVED;
    const bool isEmptied = SxFSAction::isGone(manifests) || joinRest();
    zqLogMsg("base", "Moving " + saved + " to " + manifests);
    if (isEmptied) {
        Files::move(saved, manifests);
    } else {
        // Something stays there: manifests of a title that is mounted, or what can't be moved.
        if (const auto former = SxFSAction::look(saved)) SxFSAction::takeAfter(manifests, *former);
        SxList<SxString> names;
        for (const SxFileInfo& info : SxFSAction::ls(saved))
            names.append(info.getName());
        Files::replace(saved, names, manifests);
        Files::removeEmpty(saved);
    }
    Files::removeEmpty(Files::EPIC_BACKUP);
}

/// Lets what the launcher has added join the set, and removes its folder. False where something stays there.
bool ZqEpicLibrary::joinRest() {
    const SxString manifests = Files::EPIC_MANIFESTS;
    bool hasOthers = false;
    SxList<SxString> players = findPlayers(&hasOthers);
    try {
        Files::join(manifests, players, Files::EPIC_SAVED);
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, ": "));
    }
    return Files::removeEmpty(manifests);
}

void ZqEpicLibrary::removeFolders() {
    SxList<SxString>& folders = record->changes.folders;
    if (record->changes.hasEpic() || record->changes.setReturns) return;
    // Those inside others come after these in the list.
    for (auto folder = folders.end(); folder != folders.begin();)
        Files::removeEmpty(*--folder);
    folders.removeAll();
}

void ZqEpicLibrary::closeLauncher() {
    for (const int id : ZqSysEnv::getProcessIDs(LAUNCHER)) {
        if (!ZqSysEnv::isInMachineRoot(id)) continue;
        const auto hasEnded = [&] { return !ZqSysEnv::getProcessIDs(LAUNCHER).contains(id); };
        for (const ZqDesktop::Handle window : ZqDesktop::get().getWindowsOfProcess(id)) {
            if (!(ZqDesktop::get().getTitle(window) == LAUNCHER_WINDOW)) continue;
            zqLogMsg("base", "Closing Epic Games Launcher Window");
            ZqDesktop::get().close(window);
            // It may be writing its files.
            SxWait::pass(END_MS, hasEnded);
        }
        if (hasEnded()) continue;
        zqLogMsg("base", "Closing Epic Games Launcher Process");
        // Else it might still write what it believes.
        if (ZqSysEnv::killProcess(id)) SxWait::pass(END_MS, hasEnded);
    }
}
