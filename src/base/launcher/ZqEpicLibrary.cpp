#include "ZqEpicLibrary.h"

#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqDesktop.h"
#include "ZqFold.h"
#include "ZqLauncherFiles.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

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
    storeFor(image);
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

/// Notes that the player's manifests are set aside, and does that.
void ZqEpicLibrary::storeFor(const SxString& image) {
    for (const char* place : {Files::EPIC_MANIFESTS, Files::EPIC_SAVED})
        Files::requireNoLink(place);
    if (SxFSAction::isGone(Files::EPIC_SAVED) && SxFSAction::isGone(Files::EPIC_MANIFESTS)) return;
    record->changes.of(image).setsAside = true;
    noteFolders(Files::EPIC_BACKUP);
    record->save();
    setAside(image);
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

/// Moves the player's manifests to where they are saved. Where a set is saved already, or mounted titles have
/// their manifests in the launcher's folder, only what belongs to none of them moves.
void ZqEpicLibrary::setAside(const SxString& image) {
    const SxString manifests = Files::EPIC_MANIFESTS, saved = Files::EPIC_SAVED;
    if (SxFSAction::isGone(manifests)) return;
    SxList<SxString> players;
    bool hasOthers = record->changes.folders.contains(manifests);
    for (const SxFileInfo& info : SxFSAction::ls(manifests)) {
        if (record->changes.isOthers(image, &Image::items, info.getName())) {
            hasOthers = true;
        } else {
            players.append(info.getName());
        }
    }
    if (!hasOthers && SxFSAction::isGone(saved)) {
        Files::makeFolder(Files::EPIC_BACKUP);
        zqLogMsg("base", "Moving " + manifests + " to " + saved);
        Files::move(manifests, saved);
        SxFSAction::mkdir_p(manifests, 0777);
        return;
    }
    for (const SxString& name : players) {
        Files::makeFolder(saved);
        const SxString from = manifests + "/" + name, to = saved + "/" + name;
        if (SxFSAction::isGone(to)) {
            Files::move(from, to);
        } else {
            SxFSAction::rm_r(from);
        }
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
    Image& own = record->changes.of(image);
    ZqTries tries;
    const auto removeAll = [&](SxList<SxString> Image::*list, SxString (*pathOf)(const SxString&)) {
        SxList<SxString> left;
        for (const SxString& name : own.*list) {
            if (record->changes.isOthers(image, list, name)) continue;
            if (!tries.run([&] { Files::remove(pathOf(name)); })) left.append(name);
        }
        own.*list = left;
    };
    // Where the set has come back already, or never went, manifests of these names are the player's own.
    if (own.setsAside && SxFSAction::isGone(Files::EPIC_SAVED)) own.items.removeAll();
    removeAll(&Image::items, manifest);
    removeAll(&Image::stores, storeFolder);
    const bool isLast =
        std::none_of(record->changes.images.begin(), record->changes.images.end(),
                     [&](const Image& other) { return !(other.path == image) && other.setsAside; });
    if (own.setsAside && (!isLast || tries.run([&] { returnSet(); }))) own.setsAside = false;
    const bool hasEpic = std::any_of(record->changes.images.begin(), record->changes.images.end(),
                                     [](const Image& other) { return other.hasEpic(); });
    if (!hasEpic) tries.run([&] { removeFolders(); });
    tries.raise();
}

/// Removes the folders that were made, as far as nothing has come into them.
void ZqEpicLibrary::removeFolders() {
    SxList<SxString>& folders = record->changes.folders;
    // Those inside others stand behind these in the list.
    for (auto folder = folders.end(); folder != folders.begin();)
        Files::removeEmpty(*--folder);
    folders.removeAll();
}

/// Brings the saved manifests back as the launcher's. Whatever cuts it off, the next call goes on.
void ZqEpicLibrary::returnSet() {
    const SxString manifests = Files::EPIC_MANIFESTS, saved = Files::EPIC_SAVED;
    Files::requireNoLink(saved);
    Files::requireNoLink(manifests);
    if (SxFSAction::isGone(saved)) return;
    bool hasOurs = false;
    if (!SxFSAction::isGone(manifests)) {
        for (const SxFileInfo& info : SxFSAction::ls(manifests)) {
            const SxString joined = saved + "/" + info.getName();
            if (record->changes.isOthers(SxString(), &Image::items, info.getName())) {
                hasOurs = true;
            } else if (SxFSAction::isGone(joined)) {
                Files::move(info.getOrig(), joined);
            } else {
                SxFSAction::rm_r(info.getOrig());
            }
        }
        SxFSAction::syncDir(manifests);
        if (!hasOurs) Files::remove(manifests);
    }
    zqLogMsg("base", "Moving " + saved + " to " + manifests);
    if (hasOurs) {
        Files::become(manifests, saved);
        for (const SxFileInfo& info : SxFSAction::ls(saved)) {
            const SxString back = manifest(info.getName());
            if (!SxFSAction::isGone(back)) SxFSAction::rm_r(back);
            Files::move(info.getOrig(), back);
        }
        Files::remove(saved);
    } else {
        Files::move(saved, manifests);
    }
    Files::removeEmpty(Files::EPIC_BACKUP);
}

void ZqEpicLibrary::store() {
    storeFor(SxString());
}

void ZqEpicLibrary::restore() {
    returnSet();
    undo(SxString());
    record->save();
}

void ZqEpicLibrary::closeLauncher() {
    for (const int id : ZqSysEnv::getProcessIDs(LAUNCHER)) {
        if (!ZqSysEnv::isInMachineRoot(id)) continue;
        for (const ZqDesktop::Handle window : ZqDesktop::get().getWindowsOfProcess(id)) {
            if (!(ZqDesktop::get().getTitle(window) == LAUNCHER_WINDOW)) continue;
            zqLogMsg("base", "Closing Epic Games Launcher Window");
            ZqDesktop::get().close(window);
        }
        zqLogMsg("base", "Closing Epic Games Launcher Process");
        // Else it might still write what it believes.
        if (ZqSysEnv::killProcess(id))
            SxWait::pass(END_MS, [&] { return !ZqSysEnv::getProcessIDs(LAUNCHER).contains(id); });
    }
}
