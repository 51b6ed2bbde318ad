#pragma once

#include "SxString.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

/// What stands at one path of a folder.
struct TreeMark {
    enum Kind { File, Folder, Link } kind = File;
    uint64 size = 0;
    size_t digest = 0; ///< of the bytes, or of a link's target
    bool operator==(const TreeMark&) const = default;
};

/// All that stands below a folder, by relative path; two of them are equal where nothing has changed.
using TreeSnapshot = std::map<std::string, TreeMark>;

inline std::ostream& operator<<(std::ostream& out, const TreeMark& mark) {
    static constexpr const char* WORDS[] = {"file", "folder", "link"};
    return out << WORDS[mark.kind] << " of " << mark.size << " bytes, digest " << mark.digest;
}

/// A folder of its own for one test, removed with all it holds at the end. Not through the library's files,
/// so that what a test sees doesn't depend on what it tests.
class TempDir {
public:
    explicit TempDir(const std::filesystem::path& base = std::filesystem::temp_directory_path()) {
        std::string name = (std::filesystem::canonical(base) / "tavrin-test-XXXXXX").string();
        if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
        folder = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// Where the system keeps files in memory, or the usual place: for tests that sync ten thousand times and
    /// don't care for the device.
    static std::filesystem::path inMemory() {
        return std::filesystem::is_directory("/dev/shm") ? "/dev/shm"
                                                         : std::filesystem::temp_directory_path();
    }

    /// The absolute path of the folder, or of a name in it.
    std::string path() const { return folder.string(); }
    std::string path(std::string_view name) const { return (folder / name).string(); }
    /// The folder with a trailing slash, as the image classes take it.
    SxString prefix() const { return SxString(folder.string() + "/"); }

    /// Writes a file, and makes the folders above it.
    std::string write(std::string_view name, std::string_view bytes) const {
        const std::filesystem::path file = folder / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
        return file.string();
    }
    std::string read(std::string_view name) const { return readFile(folder / name); }
    bool exists(std::string_view name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(folder / name));
    }
    /// The state of everything below the folder, or below a sub-folder.
    TreeSnapshot snapshot(std::string_view below = "") const {
        return snapshotOf(below.empty() ? folder : folder / below);
    }
    static TreeSnapshot snapshotOf(const std::filesystem::path& root) {
        TreeSnapshot marks;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
            marks[entry.path().lexically_relative(root).string()] = markOf(entry);
        }
        return marks;
    }

    static std::string readFile(const std::filesystem::path& file) {
        std::ifstream in(file, std::ios::binary);
        if (!in) throw std::runtime_error("cannot read " + file.string());
        std::string bytes(std::filesystem::file_size(file), '\0');
        in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }

private:
    static TreeMark markOf(const std::filesystem::directory_entry& entry) {
        if (entry.is_symlink()) {
            return {TreeMark::Link, 0, std::hash<std::string>()(read_symlink(entry.path()).string())};
        }
        if (entry.is_directory()) return {TreeMark::Folder, 0, 0};
        const std::string bytes = readFile(entry.path());
        return {TreeMark::File, bytes.size(), std::hash<std::string>()(bytes)};
    }

    std::filesystem::path folder;
};
