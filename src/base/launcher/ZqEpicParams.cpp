#include "ZqEpicParams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "ZqEpicLibrary.h"
#include "ZqLauncherFiles.h"
#include "ZqLauncherRecord.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqEpicParams";
constexpr const char* RULE =
    "--------------------------------------------------------------------------------";

/// A field that stands under a key of its name.
struct Key {
    const char* name;
    SxString ZqEpicParams::*field;
    bool isRead; ///< else it is made
};

/// In the order in which they are written.
constexpr Key KEYS[] = {{"LaunchCommand", &ZqEpicParams::LaunchCommand, true},
                        {"LaunchExecutable", &ZqEpicParams::LaunchExecutable, true},
                        {"ManifestLocation", &ZqEpicParams::ManifestLocation, false},
                        {"InstallationGuid", &ZqEpicParams::InstallationGuid, true},
                        {"InstallLocation", &ZqEpicParams::InstallLocation, false},
                        {"StagingLocation", &ZqEpicParams::StagingLocation, false},
                        {"MainWindowProcessName", &ZqEpicParams::MainWindowProcessName, true},
                        {"MandatoryAppFolderName", &ZqEpicParams::MandatoryAppFolderName, true},
                        {"AppName", &ZqEpicParams::AppName, true},
                        {"MainGameAppName", &ZqEpicParams::MainGameAppName, true}};

SxString lastPart(const SxString& path) {
    const std::string& text = path.str();
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? path : SxString(text.substr(slash + 1));
}

} // namespace

ZqEpicParams::ZqEpicParams(const SxString& name, const SxString& folder) {
    read(name, folder);
}

void ZqEpicParams::read(const SxString& name, const SxString& folder) {
    const SxString path = folder + name;
    readText(ZqLauncherFiles::readText(path), path);
}

void ZqEpicParams::readText(const SxString& text, const SxString& textName) {
    try {
        SxJSONParser parser;
        parser.readString(text, textName);
        root = parser.getRootSymbol();
        for (const Key& key : KEYS) {
            if (key.isRead) this->*key.field = root.getElem(key.name, true).toString();
        }
        if (MandatoryAppFolderName.isEmpty())
            throw SxException("The MandatoryAppFolderName is empty", UNIT, __LINE__);
        ZqLauncherFiles::requirePlain(MandatoryAppFolderName, "The MandatoryAppFolderName");
        ZqLauncherFiles::requirePlain(InstallationGuid, "The InstallationGuid");
        ZqLauncherFiles::requirePlain(AppName, "The AppName");
        const SxString store =
            SxString(ZqLauncherFiles::EPIC_STORES) + "/" + MandatoryAppFolderName + "/.egstore";
        InstallLocation = "{{ZQDRIVE}}/TAVRIN-protected/app/" + MandatoryAppFolderName;
        ManifestLocation = store;
        StagingLocation = store + "/bps";
        exeName = lastPart(ZqSysEnv::unifySlashes(LaunchExecutable));
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + textName, UNIT, __LINE__);
    }
}

SxString ZqEpicParams::getFileName() const {
    return (InstallationGuid.isEmpty() ? SxString("epic") : InstallationGuid) + ".item";
}

void ZqEpicParams::write(const SxString& name, const SxString& folder) {
    const SxString place = folder.isEmpty() ? SxString(ZqLauncherFiles::EPIC_MANIFESTS) + "/" : folder;
    const SxString path = place + (name.isEmpty() ? getFileName() : name);
    try {
        SxFSAction::mkdir_p(SxFileInfo(path).getPath(), 0777);
        if (!root.isValid()) root.setType(SxParserAst::Object);
        for (const Key& key : KEYS)
            root.setElem(key.name, this->*key.field);
        ZqLauncherFiles::requireNoLink(path);
        SxFileIO file;
        file.create(path, 0644);
        file.write(root.toJson(4) + "\n");
        file.close();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + SxFileInfo(path).getAbsPath(), UNIT, __LINE__);
    }
}

void ZqEpicParams::print() const {
    zqLogMsg("base", RULE);
    zqLogMsg("base", "ZqEpicParams Content");
    for (const Key& key : KEYS)
        zqLogMsg("base", SxString(key.name) + ": " + this->*key.field);
    zqLogMsg("base", "exeName: " + exeName);
    zqLogMsg("base", RULE);
}

void ZqEpicParams::storeManifests() {
    ZqLauncherRecord record;
    ZqEpicLibrary(&record).setAside(SxString());
}

void ZqEpicParams::restoreManifests() {
    ZqLauncherRecord::undo([](ZqLauncherRecord* record) { ZqEpicLibrary(record).undo(SxString()); });
}
