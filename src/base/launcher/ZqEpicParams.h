#pragma once

#include "SxSymbol.h"

/// One manifest of the Epic Games Launcher, a JSON file `.item`: what the launcher knows of one installed
/// title. What isn't named here is the launcher's own, and is written back as it was read. Not locked, but
/// for storeManifests() and restoreManifests(), which take the lock of ZqLauncherRecord and keep it.
class ZqEpicParams {
public:
    SxString LaunchCommand;    ///< command line of the title
    SxString LaunchExecutable; ///< relative to the title's folder
    SxString exeName;          ///< its last part, the name of the title's process
    SxString ManifestLocation; ///< made on reading: the title's folder in the launcher's store
    SxString InstallLocation;  ///< made on reading: on the drive, which "{{ZQDRIVE}}" stands for
    SxString StagingLocation;  ///< made on reading
    SxString InstallationGuid; ///< names the manifest; may be empty
    SxString MandatoryAppFolderName;
    SxString MainWindowProcessName;
    SxString AppName; ///< the id in the launcher's addresses
    SxString MainGameAppName;

    /// All fields empty.
    ZqEpicParams() = default;
    /// Reads at once.
    ZqEpicParams(const SxString& name, const SxString& folder);

    /// Fills the record from the file `folder` + `name`; `folder` ends in a slash. All keys are mandatory.
    /// Raises "File ... not found.", or "Failed to read file ..." with the cause: also where a name that
    /// becomes part of a path or an address holds what would lead elsewhere, or MandatoryAppFolderName is
    /// empty.
    void read(const SxString& name, const SxString& folder);
    /// The same from a text; failures name it `textName`.
    void readText(const SxString& text, const SxString& textName);
    /// Writes the record into `folder`, which is made, or into the launcher's manifests where it is empty, by
    /// the name `name`; where that is empty, too, by getFileName(). The file isn't synced: it need not
    /// outlive the mount that it is for. Raises "Failed to write file ..." with the cause.
    void write(const SxString& name, const SxString& folder);
    /// Logs the fields.
    void print() const;
    /// How the launcher's manifest of the title is called.
    SxString getFileName() const;

    /// Saves the player's manifests: moves them out of the launcher's folder, where an empty one takes their
    /// place. A set that is saved already stays, and what has come to the launcher's folder since joins it.
    static void storeManifests();
    /// Brings the saved manifests back, unless a mounted title needs them aside. What the launcher has added
    /// meanwhile joins them; of two with one name the player's stays.
    static void restoreManifests();

private:
    SxParserKit::SxSymbol root; ///< the whole file
};
