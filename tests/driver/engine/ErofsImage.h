#pragma once

#include "Builders.h"
#include "ErofsMetadata.h"
#include "ErofsTree.h"
#include "SxProcess.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

/// Bytes as a RAW image; beyond their end it has zeros up to its size. They may change while it is read.
class BytesReader : public ZqDriveReader {
public:
    explicit BytesReader(std::string bytes_, uint64 size_ = 0)
        : ZqDriveReader("img.raw"),
          bytes(std::move(bytes_)) {
        size = std::max<uint64>(size_, bytes.size());
    }
    std::string bytes;

protected:
    void fetch(uint64 offset, char* to, uint64 n) override {
        if (n > size || offset > size - n) throw std::logic_error("a read beyond the image");
        std::fill_n(to, n, '\0');
        if (offset < bytes.size()) bytes.copy(to, n, offset);
    }
};

/// A tree, and the EROFS that is made of it. Not in memory, since the kernel mounts no image from there.
class ErofsImage {
public:
    static constexpr uint64 BLOCK = 4096;
    /// As a build calls it, but for the times.
    static constexpr const char* BUILD = "-x-1 --all-root -Enoinline_data -T1500000000";

    const TempDir dir{"/var/tmp"};

    ErofsImage() { std::filesystem::create_directory(dir.path("tree")); }

    std::string at(const std::string& name) const { return dir.path("tree/" + name); }
    void write(const std::string& name, std::string_view bytes) const { dir.write("tree/" + name, bytes); }
    /// Gives the RAW image.
    std::string format(const std::string& options = BUILD) const {
        dir.write("raw", "");
        const std::string command = "PATH=$PATH:/usr/sbin:/sbin; mkfs.erofs --quiet " + options + " '" +
                                    dir.path("raw") + "' '" + dir.path("tree") + "'";
        if (SxProcess("/bin/sh", {"-c", SxString(command)}, SxProcess::Silent).run() != 0)
            throw std::runtime_error("failed: " + command);
        return dir.read("raw");
    }
};

/// Where the blocks of an image lie.
struct StoredOrder {
    std::vector<uint64> map; ///< by RAW index; all ones where a block isn't stored
    uint64 nStored = 0;

    /// All blocks where they are.
    explicit StoredOrder(uint64 nRaw) : map(nRaw), nStored(nRaw) { std::iota(map.begin(), map.end(), 0); }
    /// The RAW blocks of `sequence`, in its order, out of `nRaw`.
    StoredOrder(uint64 nRaw, const std::vector<uint64>& sequence)
        : map(nRaw, ~uint64{0}),
          nStored(sequence.size()) {
        for (uint64 zqfIdx = 0; zqfIdx < nStored; ++zqfIdx)
            map[sequence[zqfIdx]] = zqfIdx;
    }

    /// The bytes of `img.zqf`.
    std::string store(const std::string& raw) const {
        std::string zqf(nStored * ErofsImage::BLOCK, '\0');
        for (uint64 rawIdx = 0; rawIdx < map.size(); ++rawIdx) {
            if (map[rawIdx] >= nStored) continue;
            zqf.replace(map[rawIdx] * ErofsImage::BLOCK, ErofsImage::BLOCK, raw, rawIdx * ErofsImage::BLOCK,
                        ErofsImage::BLOCK);
        }
        return zqf;
    }
};

/// The map of an order, as the service has it.
class StoredMap {
public:
    explicit StoredMap(const StoredOrder& order)
        : file(dir, order),
          map(dir.prefix().str(), order.map.size() * ErofsImage::BLOCK, false) {}
    operator const BlockMap&() const { return map; }

private:
    struct File {
        File(const TempDir& dir, const StoredOrder& order) {
            dir.write("img.idx", {reinterpret_cast<const char*>(order.map.data()), order.map.size() * 8});
        }
    };
    const TempDir dir{TempDir::inMemory()};
    const File file;
    const BlockMap map;
};

/// The metadata that is made of an image. Raises what that raises.
inline std::string metadataOf(ZqDriveReader* reader, const StoredOrder& order) {
    const StoredMap map(order);
    ErofsMetadata metadata(reader, map, order.nStored);
    std::string made;
    metadata.write([&](const std::string& part) { made += part; });
    EXPECT_EQ(made.size(), metadata.getSize());
    ErofsTree tree(made);
    tree.requireApart();
    std::set<uint64> inodes;
    uint64 nFileBlocks = 0, nChunks = 0;
    for (const auto& [path, node] : tree.nodes) {
        if (node.blocks.empty() || !inodes.insert(node.number).second) continue;
        nFileBlocks += node.blocks.size();
        nChunks += (node.blocks.size() + node.chunk - 1) / node.chunk;
    }
    EXPECT_EQ(metadata.getNFileBlocks(), nFileBlocks);
    EXPECT_EQ(metadata.getNChunks(), nChunks);
    EXPECT_EQ(tree.nFurther, order.nStored);
    return made;
}

/// Metadata and `img.zqf`, mounted from plain files as long as this lives.
class ErofsMount {
public:
    ErofsMount(const std::string& metadata, const std::string& zqf, std::string folder_)
        : folder(std::move(folder_)) {
        std::filesystem::create_directories(folder);
        const int first = ::open(metadata.c_str(), O_RDONLY | O_CLOEXEC);
        const int second = ::open(zqf.c_str(), O_RDONLY | O_CLOEXEC);
        const auto path = [](int fd) { return "/proc/self/fd/" + std::to_string(fd); };
        if (::mount(path(first).c_str(), folder.c_str(), "erofs", MS_RDONLY | MS_NOSUID | MS_NODEV,
                    ("device=" + path(second)).c_str()) != 0) {
            error = errno;
        }
        ::close(first);
        ::close(second);
    }
    ~ErofsMount() {
        if (error == 0) ::umount2(folder.c_str(), MNT_DETACH);
    }
    ErofsMount(const ErofsMount&) = delete;
    ErofsMount& operator=(const ErofsMount&) = delete;

    const std::string folder;
    int error = 0; ///< an errno value where it isn't mounted

    /// Whether this kernel mounts such files for us; what is in the way otherwise.
    static std::string whyNot() {
        if (::geteuid() != 0) return "mounting needs root";
        const ErofsImage image;
        const std::string raw = image.format();
        const StoredOrder order(raw.size() / ErofsImage::BLOCK);
        BytesReader reader(raw);
        const ErofsMount mount(image.dir.write("meta", metadataOf(&reader, order)),
                               image.dir.write("zqf", raw), image.dir.path("mnt"));
        const bool isOld = mount.error == ENOTBLK || mount.error == ENODEV;
        return isOld ? "the kernel mounts no EROFS from files" : "";
    }

    /// The first thing that the kernel shows in another way than `tree` has it, or an empty text.
    std::string difference(const ErofsTree& tree, const std::string& zqf) const {
        uint64 nSeen = 1;
        for ([[maybe_unused]] const auto& entry : std::filesystem::recursive_directory_iterator(folder))
            ++nSeen;
        if (nSeen != tree.nodes.size()) return std::to_string(nSeen) + " names";
        for (const auto& [path, node] : tree.nodes) {
            const std::string full = folder + "/" + path;
            struct stat stat = {};
            if (::lstat(full.c_str(), &stat) != 0) return path + ": errno " + std::to_string(errno);
            const bool isEqual =
                stat.st_mode == node.mode && static_cast<uint64>(stat.st_size) == node.size &&
                stat.st_nlink == node.nLinks && stat.st_ino == node.number && stat.st_uid == node.uid &&
                stat.st_gid == node.gid && stat.st_mtim.tv_sec == node.seconds &&
                static_cast<uint64>(stat.st_mtim.tv_nsec) == node.nanoseconds;
            if (!isEqual) return path + ": another inode";
            if (S_ISLNK(stat.st_mode) && std::filesystem::read_symlink(full) != node.target)
                return path + ": another target";
            if (S_ISREG(stat.st_mode) && TempDir::readFile(full) != contentOf(node, zqf))
                return path + ": other bytes";
        }
        return "";
    }

private:
    static std::string contentOf(const ErofsTree::Node& node, const std::string& zqf) {
        std::string bytes;
        for (const ErofsTree::Block& at : node.blocks)
            bytes += at.device == 0 ? std::string(ErofsImage::BLOCK, '\0')
                                    : zqf.substr(at.block * ErofsImage::BLOCK, ErofsImage::BLOCK);
        bytes.resize(node.size);
        return bytes;
    }
};
