#pragma once

#include "Builders.h"
#include "FaultOs.h"
#include "VirtualDisk.h"
#include "ZqBlocks.h"

#include <map>
#include <set>

enum class Mode { Ro, Rtw, Rw };

/// An image folder for a drive, with what its stored blocks are to hold. Blocks that aren't present yet hold
/// garbage in the file, so that a read beyond the cursor shows.
class DriveImage {
public:
    static constexpr uint64 BLOCK = 4096;

    /// `nRaw` blocks in random order, some without a place; the last RAW block and the last stored one may be
    /// short. `below`: sub-folder of the image.
    explicit DriveImage(TestRandom& random, uint64 nRaw, double stored = 0.8, const char* below = "",
                        const std::filesystem::path& base = std::filesystem::temp_directory_path())
        : dir(base),
          image(random, nRaw, stored),
          prefix(dir.prefix() + below),
          sizeRaw(nRaw * BLOCK - (random.chance(0.5) ? random.below(BLOCK) : 0)),
          nZqf(image.nZqf()),
          zqf(image.zqf) {
        image.write(prefix);
        const uint64 cut = random.chance(0.5) ? random.below(BLOCK) : 0;
        zqf.replace(zqf.size() - cut, cut, cut, '\0');
        sizeZqf = zqf.size() - cut;
        std::filesystem::resize_file(path("img.zqf"), sizeZqf);
        put(0, nZqf, true);
    }

    VirtualDisk::Config config(Mode mode, uint64 cursor) const {
        return {prefix, sizeRaw, 4096, cursor, mode == Mode::Ro, mode == Mode::Rtw, 0};
    }
    /// Puts what is stored, or garbage, into the file's blocks from `first` to `end` - 1.
    void put(uint64 first, uint64 end, bool garbage) const {
        const uint64 from = std::min(first * BLOCK, sizeZqf), to = std::min(end * BLOCK, sizeZqf);
        std::fstream out((prefix + "img.zqf").str(), std::ios::binary | std::ios::in | std::ios::out);
        out.seekp(static_cast<std::streamoff>(from));
        const std::string bytes = garbage ? std::string(to - from, 'G') : zqf.substr(from, to - from);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) throw std::runtime_error("cannot write img.zqf");
    }
    /// Makes the file what it is when the cursor moves.
    void moveCursor(uint64 from, uint64 to) const { put(std::min(from, to), std::max(from, to), to < from); }
    /// The bytes of the disk at the start.
    std::string rawBytes() const {
        std::string raw(nRaw() * BLOCK, '\0');
        for (uint64 rawIdx = 0; rawIdx < nRaw(); ++rawIdx) {
            if (hasPlace(rawIdx)) raw.replace(rawIdx * BLOCK, BLOCK, zqf, zqfIdxOf(rawIdx) * BLOCK, BLOCK);
        }
        raw.resize(sizeRaw);
        return raw;
    }
    uint64 nRaw() const { return image.nRaw(); }
    bool hasPlace(uint64 rawIdx) const { return zqfIdxOf(rawIdx) != ~uint64{0}; }
    uint64 zqfIdxOf(uint64 rawIdx) const { return image.map(static_cast<int64>(rawIdx)); }
    uint64 validBytes(uint64 rawIdx) const { return std::min(BLOCK, sizeRaw - rawIdx * BLOCK); }
    std::string path(const char* name) const { return (prefix + name).str(); }

    TempDir dir;
    TestImage image;
    SxString prefix;
    uint64 sizeRaw, nZqf, sizeZqf;
    std::string zqf; ///< what the stored blocks are to hold
};

/// A drive of an image, with what it has read and the tokens that it has woken.
struct Drive {
    using Result = VirtualDisk::Result;

    Drive(const DriveImage& image_, Mode mode) : Drive(image_, mode, image_.nZqf) {}
    Drive(const DriveImage& image_, Mode mode, uint64 cursor)
        : image(image_),
          disk(image.config(mode, cursor), [this](uint64 token) { woken.push_back(token); }) {}

    Result read(uint64 rawIdx, uint64 n, uint64 token, bool retry = false) {
        const uint64 offset = rawIdx * ZqBlocks::SIZE;
        buffer.assign(std::min(n * ZqBlocks::SIZE, image.sizeRaw - offset), '?');
        error = 0;
        return disk.read(offset, static_cast<uint32>(buffer.size()), buffer.data(), token, retry, &error);
    }
    /// A block that nobody waits for, or the error.
    std::string read(uint64 rawIdx) {
        return read(rawIdx, 1, 1) == Result::Done ? buffer : "errno " + std::to_string(error);
    }
    /// Gives 0 or the error.
    int write(uint64 rawIdx, const std::string& block) {
        error = 0;
        const auto size = static_cast<uint32>(image.validBytes(rawIdx));
        disk.write(rawIdx * ZqBlocks::SIZE, size, block.data(), 1, false, &error);
        return error;
    }

    /// Gives 0 or the error.
    int discard(uint64 rawIdx, uint64 n) {
        error = 0;
        const uint64 offset = rawIdx * ZqBlocks::SIZE;
        disk.discard(offset, std::min(n * ZqBlocks::SIZE, image.sizeRaw - offset), 1, false, &error);
        return error;
    }

    const DriveImage& image;
    std::vector<uint64> woken;
    VirtualDisk disk;
    std::string buffer;
    int error = 0;
};
