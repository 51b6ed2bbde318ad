#pragma once

#include "BaseTest.h"

#include <cstdlib>
#include <map>
#include <optional>
#include <sys/stat.h>

/// A user without a word about statistics yet.
class StatsHome {
public:
    explicit StatsHome(std::string below = "") : sub(std::move(below)) {
        set("XDG_CONFIG_HOME", "config");
        set("XDG_STATE_HOME", "state");
    }
    ~StatsHome() {
        for (const auto& [name, value] : former)
            value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
    StatsHome(const StatsHome&) = delete;
    StatsHome& operator=(const StatsHome&) = delete;

    static constexpr const char* CONSENTS = "config/tavrin/statistics.json";
    static constexpr const char* WAITING = "state/tavrin/statistics";

    /// What all waiting files hold together.
    std::string waiting() const {
        std::string text;
        if (!dir.exists(sub + WAITING)) return text;
        for (const auto& entry : fs::directory_iterator(dir.path(sub + WAITING)))
            if (entry.path().extension() == ".json") text += TempDir::readFile(entry.path());
        return text;
    }
    static unsigned modeOf(const std::string& path) {
        struct stat info = {};
        return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
    }

    const TempDir dir;

private:
    void set(const char* name, const std::string& folder) {
        const char* value = std::getenv(name);
        former[name] = value ? std::optional<std::string>(value) : std::nullopt;
        ::setenv(name, dir.path(sub + folder).c_str(), 1);
    }

    const std::string sub;
    std::map<const char*, std::optional<std::string>> former;
};
