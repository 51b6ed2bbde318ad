#pragma once

#include <tavrin/ZqNetAccess.h>
#include <tavrin/ZqRunSettings.h>

#include <optional>

/// What the user has settled for all commands, in `$XDG_CONFIG_HOME/tavrin/config.toml`. A value type.
class ClientSettings {
public:
    /// The settings as they are now; all are the defaults where there is no file. Raises naming file and line
    /// where a key is unknown or its value isn't what it takes.
    static ClientSettings read();
    /// The path of the file; empty where the user has no home folder.
    static SxString getFile();

    // The value, or the default where the file has none.
    uint64 getRate() const {
        return rate.value_or(0);
    } ///< of the ordered download, bytes a second; 0: no limit
    const ZqNetAccess& getAccess() const { return access; }
    bool isNotifying() const { return notify.value_or(true); } ///< a run tells the desktop how it goes
    bool isVerifying() const {
        return verify.value_or(true);
    } ///< a run compares an image that nobody has compared
    int64 getNTraces() const { return nTraces.value_or(ZqRunSettings::N_TRACES); } ///< that stay; 0: all

    // Whether the file has a value of its own.
    bool hasRate() const { return rate.has_value(); }
    bool hasNotify() const { return notify.has_value(); }
    bool hasVerify() const { return verify.has_value(); }
    bool hasNTraces() const { return nTraces.has_value(); }

private:
    friend class SettingsReader;

    std::optional<uint64> rate;
    ZqNetAccess access;
    std::optional<bool> notify, verify;
    std::optional<int64> nTraces;
};
