#pragma once

#include "TempDir.h"

/// The files in which a machine tells of itself, as a test makes them.
class MachineTree {
public:
    SxString root() const { return dir.path(); }
    std::string path(const std::string& name) const { return dir.path(name); }
    void write(const std::string& name, const std::string& text) const { dir.write(name, text); }
    /// A link as sysfs has them, and a folder that it leads to, below the root.
    void link(const std::string& name, const std::string& target) const {
        namespace fs = std::filesystem;
        fs::create_directories(dir.path(target));
        const fs::path at = dir.path(name);
        fs::create_directories(at.parent_path());
        fs::create_symlink(fs::path(dir.path(target)).lexically_relative(at.parent_path()), at);
    }
    void remove(const std::string& name) const { std::filesystem::remove_all(dir.path(name)); }

private:
    const TempDir dir;
};
