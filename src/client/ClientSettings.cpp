#include "ClientSettings.h"
#include "Amount.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/SxFileInfo.h>
#include <tavrin/ZqTomlFile.h>
#include <tavrin/ZqXdg.h>

#include <cstdlib>

namespace {
/// A hundred times what the settings need. The reader's time grows with the square of the tables in it.
constexpr int64 MAX_FILE = 64 << 10;
constexpr int64 MOST_TRACES = 1'000'000;
constexpr const char* KEYS = "rate, proxy, cacert, notify, verify and traces";
} // namespace

/// Puts the keys of the file into the settings.
class SettingsReader {
public:
    SettingsReader(const SxString& file_, ClientSettings* settings_) : file(file_), settings(settings_) {}

    void take(const ZqTomlFile::Entry& entry) {
        if (entry.key == "rate") {
            settings->rate = rate(entry);
        } else if (entry.key == "proxy") {
            settings->access.proxy = proxy(entry);
        } else if (entry.key == "cacert") {
            settings->access.trustFile = path(text(entry, "the path of a file"));
        } else if (entry.key == "notify") {
            settings->notify = truth(entry);
        } else if (entry.key == "verify") {
            settings->verify = truth(entry);
        } else if (entry.key == "traces") {
            const int64* number = std::get_if<int64>(&entry.value);
            if (!number || *number < 0 || *number > MOST_TRACES)
                refuse(entry, "a whole number from 0 to " + SxString(MOST_TRACES));
            settings->nTraces = *number;
        } else {
            ZqTomlFile::refuse(file, entry.line,
                               "there is no setting '" + entry.key.makeVisible() + "', but " + KEYS);
        }
    }

private:
    [[noreturn]] void refuse(const ZqTomlFile::Entry& entry, const SxString& takes) const {
        ZqTomlFile::refuse(file, entry.line, entry.key + " takes " + takes);
    }

    bool truth(const ZqTomlFile::Entry& entry) const {
        const bool* value = std::get_if<bool>(&entry.value);
        if (!value) refuse(entry, "true or false");
        return *value;
    }

    SxString text(const ZqTomlFile::Entry& entry, const SxString& takes) const {
        const SxString* value = std::get_if<SxString>(&entry.value);
        if (!value || value->isEmpty()) refuse(entry, takes + ", as a text in quotes");
        return *value;
    }

    uint64 rate(const ZqTomlFile::Entry& entry) const {
        std::string value;
        if (const int64* number = std::get_if<int64>(&entry.value)) value = std::to_string(*number);
        if (const SxString* amount = std::get_if<SxString>(&entry.value)) value = amount->str();
        const std::optional<uint64> result = Amount::rate(value);
        if (!result) refuse(entry, SxString(Amount::RATE_TEXT) + "; with a unit in quotes");
        return *result;
    }

    SxString proxy(const ZqTomlFile::Entry& entry) const {
        SxString value = text(entry, ZqNetAccess::PROXY_TEXT);
        if (ZqNetAccess::isProxyFault(value)) refuse(entry, ZqNetAccess::PROXY_TEXT);
        return value;
    }

    /// A path as the user's shell would take it in the folder of the settings.
    SxString path(const SxString& value) const {
        const std::string& given = value.str();
        const char* home = std::getenv("HOME");
        if (given.starts_with("~/") && home) return SxString(home + given.substr(1));
        const bool isAbsolute = given.starts_with("/") || (given.size() > 1 && given[1] == ':');
        return isAbsolute ? value : SxFileInfo(file).getPath() + "/" + value;
    }

    const SxString file;
    ClientSettings* const settings;
};

SxString ClientSettings::getFile() {
    const std::string folder = zqXdgFolder("XDG_CONFIG_HOME", ".config");
    return folder.empty() ? SxString() : SxString(folder + "/tavrin/config.toml");
}

ClientSettings ClientSettings::read() {
    ClientSettings settings;
    const SxString file = getFile();
    if (file.isEmpty() || SxFSAction::isGone(file)) return settings;
    SettingsReader reader(file, &settings);
    for (const ZqTomlFile::Entry& entry : ZqTomlFile::read(file, MAX_FILE))
        reader.take(entry);
    return settings;
}
