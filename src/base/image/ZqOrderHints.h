#pragma once

#include "SxString.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the order of an image knows of sessions, as its optional file `img.hints` says it: groups of
/// stretches that belong together, which of their stretches a session that comes to a group most likely
/// reads, and where it goes from there. Indices are those of stretches of `img.zqf` (ZqBlocks::STRETCH), so
/// the hints are true of one map alone. docs/file-formats.md has the format. A value type. Not locked.
class ZqOrderHints {
public:
    /// A group that a session is likely to come to next.
    struct Next {
        uint32 group = 0;   ///< its place in `groups`
        uint32 percent = 0; ///< 1 to 100
        bool operator==(const Next&) const = default;
    };
    /// The stretches from `first` on, up to but not including `end`.
    struct Group {
        uint32 first = 0, end = 0;
        /// Those that a session most likely reads, in the order in which they are announced.
        std::vector<uint32> hot;
        std::vector<Next> next; ///< at most MAX_NEXT
        bool operator==(const Group&) const = default;
    };

    static constexpr size_t MAX_NEXT = 3;
    /// Stretches that a client announces at most with those that reads wait for: of a group the hot ones that
    /// follow the one that is read.
    static constexpr int64 MAX_TOGETHER = 4;
    /// Bytes of the file at most.
    static constexpr int64 MAX_SIZE = 2'000'000;

    /// Of the map with the MD5 text `checksumIdx_`.
    explicit ZqOrderHints(const SxString& checksumIdx_) : checksumIdx(checksumIdx_) {}

    /// In ascending order; no stretch is in two of them.
    std::vector<Group> groups;

    const SxString& getChecksumIdx() const noexcept { return checksumIdx; }
    /// Hot stretches of all groups.
    uint64 countHot() const;
    /// The group that a stretch is in; null where it is in none.
    const Group* find(uint64 stretchIdx) const;

    /// Replaces the hints in the image or index folder `folder`, as SxFileIO::writeAtomic() does. Where there
    /// are more than MAX_SIZE takes, the last hot stretches of the groups that have most of them are left
    /// out, and then the last groups. Raises where read() would refuse the groups.
    void write(const SxString& folder) const;
    /// The hints in `folder`, of the map with the MD5 text `checksumIdx` and of an image of `nStretches`
    /// stretches. Nothing where there are none. Where they can't be read, are damaged or are of another map,
    /// the log tells that, and there is nothing, too.
    static std::optional<ZqOrderHints> read(const SxString& folder, const SxString& checksumIdx,
                                            uint64 nStretches);
    /// The same of the file `file`; raises naming the file and the fault.
    static ZqOrderHints readFile(const SxString& file, const SxString& checksumIdx, uint64 nStretches);
    /// The same of the bytes of such a file; raises naming the fault.
    static ZqOrderHints parse(std::string_view bytes, const SxString& checksumIdx, uint64 nStretches);

private:
    std::string toBytes() const;

    SxString checksumIdx;
};
