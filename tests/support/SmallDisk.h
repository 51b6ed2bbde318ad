#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/mount.h>

/// A small disk in the place of a folder, as long as this object lives. `size` is one of tmpfs, such as
/// "32m".
class SmallDisk {
public:
    SmallDisk(std::string folder_, const std::string& size) : folder(std::move(folder_)) {
        std::filesystem::create_directories(folder);
        if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, ("size=" + size).c_str()) != 0)
            throw std::runtime_error("there is no tmpfs");
    }
    ~SmallDisk() { ::umount2(folder.c_str(), MNT_DETACH); }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    /// Takes all its room, until free().
    void fill() const {
        std::ofstream file(folder + "/other", std::ios::binary | std::ios::app);
        for (const size_t size : {size_t{1} << 20, size_t{4096}}) {
            const std::string piece(size, 'x');
            while (file.write(piece.data(), static_cast<std::streamsize>(size)).flush())
                continue;
            file.clear();
        }
    }
    void grow(const std::string& size) const {
        ::mount("tmpfs", folder.c_str(), "tmpfs", MS_REMOUNT, ("size=" + size).c_str());
    }
    void free() const { std::filesystem::remove(folder + "/other"); }

private:
    const std::string folder;
};
