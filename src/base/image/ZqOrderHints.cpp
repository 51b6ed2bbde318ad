#include "ZqOrderHints.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxXxh64.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr const char* UNIT = "src/base/image/ZqOrderHints";
constexpr std::string_view MAGIC = "ZHINTS01";
constexpr size_t DIGEST = 32; ///< of the map, as text
constexpr size_t NUMBER = sizeof(uint32), CHECKSUM = sizeof(uint64);
constexpr size_t HEADER = MAGIC.size() + DIGEST + 2 * NUMBER;
constexpr size_t GROUP = 4 * NUMBER, NEXT = 2 * NUMBER; ///< beside 4 bytes for each hot stretch
constexpr uint32 ALL_PERCENT = 100;

void append(std::string* bytes, size_t value) {
    const auto number = static_cast<uint32>(value);
    bytes->append(reinterpret_cast<const char*>(&number), NUMBER);
}

/// Reads the numbers between header and checksum.
class Numbers {
public:
    Numbers(const char* bytes_, size_t nLeft_) : bytes(bytes_), nLeft(nLeft_) {}

    uint32 take() {
        requireLeft(1, NUMBER);
        uint32 value = 0;
        std::memcpy(&value, bytes, NUMBER);
        bytes += NUMBER;
        nLeft -= NUMBER;
        return value;
    }
    /// A number of entries of `size` bytes each, all of which the file still holds.
    uint32 takeCount(size_t size) {
        const uint32 n = take();
        requireLeft(n, size);
        return n;
    }
    void requireEnd() const {
        if (nLeft > 0) throw SxException("Bytes follow its last group", UNIT, __LINE__);
    }

private:
    void requireLeft(size_t n, size_t size) const {
        if (n > nLeft / size) throw SxException("It is cut short", UNIT, __LINE__);
    }

    const char* bytes;
    size_t nLeft;
};

ZqOrderHints::Group takeGroup(Numbers* numbers) {
    ZqOrderHints::Group group;
    group.first = numbers->take();
    group.end = numbers->take();
    const uint32 nHot = numbers->takeCount(NUMBER), nNext = numbers->takeCount(NEXT);
    group.hot.reserve(nHot);
    for (uint32 i = 0; i < nHot; ++i)
        group.hot.push_back(numbers->take());
    for (uint32 i = 0; i < nNext; ++i) {
        const uint32 next = numbers->take(), percent = numbers->take();
        group.next.push_back({next, percent});
    }
    return group;
}

/// Where `group` begins at or after stretch `begin`, what is wrong with it in an image of `nStretches` whose
/// hints have `nGroups`.
const char* findFault(const ZqOrderHints::Group& group, uint64 begin, uint64 nStretches, size_t nGroups) {
    if (group.first < begin) return "overlaps the one before";
    if (group.end <= group.first) return "has no stretches";
    if (group.end > nStretches) return "lies beyond the image's end";
    const auto isOutside = [&](uint32 idx) { return idx < group.first || idx >= group.end; };
    if (std::any_of(group.hot.begin(), group.hot.end(), isOutside))
        return "names a hot stretch that isn't in it";
    std::vector<uint32> sorted = group.hot;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return "names a stretch twice";
    if (group.next.size() > ZqOrderHints::MAX_NEXT) return "has too many successors";
    const auto isWrong = [&](const ZqOrderHints::Next& next) {
        return next.group >= nGroups || next.percent < 1 || next.percent > ALL_PERCENT;
    };
    if (std::any_of(group.next.begin(), group.next.end(), isWrong)) return "has a successor that can't be";
    return nullptr;
}

void requireRight(const std::vector<ZqOrderHints::Group>& groups, uint64 nStretches) {
    uint64 begin = 0;
    for (size_t i = 0; i < groups.size(); ++i) {
        if (const char* fault = findFault(groups[i], begin, nStretches, groups.size())) {
            throw SxException("Its group " + SxString(static_cast<uint64>(i)) + " " + fault, UNIT, __LINE__);
        }
        begin = groups[i].end;
    }
}

/// Cuts what is too much for the file: groups, with whatever leads to them, and their hot stretches.
void fit(std::vector<ZqOrderHints::Group>* groups) {
    size_t nLeft = static_cast<size_t>(ZqOrderHints::MAX_SIZE) - HEADER - CHECKSUM;
    size_t nGroups = 0;
    for (; nGroups < groups->size(); ++nGroups) {
        const size_t size = GROUP + (*groups)[nGroups].next.size() * NEXT;
        if (size > nLeft) break;
        nLeft -= size;
    }
    groups->resize(nGroups);
    for (ZqOrderHints::Group& group : *groups)
        std::erase_if(group.next, [&](const ZqOrderHints::Next& next) { return next.group >= nGroups; });
    nLeft /= NUMBER;
    // How hot a stretch is shows in its place, so all groups are cut at the same place.
    for (size_t place = 0;; ++place) {
        const auto n = static_cast<size_t>(std::count_if(
            groups->begin(), groups->end(), [&](const auto& group) { return group.hot.size() > place; }));
        if (n == 0) return;
        if (n <= nLeft) {
            nLeft -= n;
            continue;
        }
        for (ZqOrderHints::Group& group : *groups) {
            if (group.hot.size() > place) group.hot.resize(place);
        }
        return;
    }
}

} // namespace

uint64 ZqOrderHints::countHot() const {
    uint64 n = 0;
    for (const Group& group : groups)
        n += group.hot.size();
    return n;
}

const ZqOrderHints::Group* ZqOrderHints::find(uint64 stretchIdx) const {
    const auto after = std::upper_bound(groups.begin(), groups.end(), stretchIdx,
                                        [](uint64 idx, const Group& group) { return idx < group.first; });
    if (after == groups.begin()) return nullptr;
    const Group& group = *(after - 1);
    return stretchIdx < group.end ? &group : nullptr;
}

std::string ZqOrderHints::toBytes() const {
    std::vector<Group> kept = groups;
    fit(&kept);
    std::string bytes(MAGIC);
    bytes += checksumIdx.str();
    append(&bytes, ZqBlocks::STRETCH);
    append(&bytes, kept.size());
    for (const Group& group : kept) {
        for (const size_t number :
             {size_t{group.first}, size_t{group.end}, group.hot.size(), group.next.size()})
            append(&bytes, number);
        for (const uint32 stretchIdx : group.hot)
            append(&bytes, stretchIdx);
        for (const Next& next : group.next) {
            append(&bytes, next.group);
            append(&bytes, next.percent);
        }
    }
    const uint64 checksum = SxXxh64::of(bytes.data(), static_cast<int64>(bytes.size()));
    return bytes.append(reinterpret_cast<const char*>(&checksum), CHECKSUM);
}

void ZqOrderHints::write(const SxString& folder) const {
    const SxString file = ZqImageFolder::prefix(folder) + ZqImageFiles::HINTS;
    try {
        if (checksumIdx.str().size() != DIGEST) throw SxException("Its map has no digest", UNIT, __LINE__);
        requireRight(groups, std::numeric_limits<uint32>::max());
        SxFileIO::writeAtomic(file, SxString(toBytes()));
    } catch (const SxException& e) {
        throw SxException(e, "Cannot write the hints '" + file + "'", UNIT, __LINE__);
    }
}

std::optional<ZqOrderHints> ZqOrderHints::read(const SxString& folder, const SxString& checksumIdx,
                                               uint64 nStretches) {
    const SxString file = ZqImageFolder::prefix(folder) + ZqImageFiles::HINTS;
    if (SxFSAction::isGone(file)) return std::nullopt;
    try {
        return readFile(file, checksumIdx, nStretches);
    } catch (const SxException& e) {
        zqLogMsg("base", "Goes on without hints: " + e.toString(SxException::ShowMessage, ": "));
        return std::nullopt;
    }
}

ZqOrderHints ZqOrderHints::readFile(const SxString& file, const SxString& checksumIdx, uint64 nStretches) {
    try {
        SxArray<char> bytes(MAX_SIZE + 1);
        SxFileIO(file, "rb").read(&bytes);
        return parse({bytes.data(), static_cast<size_t>(bytes.getSize())}, checksumIdx, nStretches);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot use the hints '" + file + "'", UNIT, __LINE__);
    }
}

ZqOrderHints ZqOrderHints::parse(std::string_view bytes, const SxString& checksumIdx, uint64 nStretches) {
    if (bytes.size() > static_cast<size_t>(MAX_SIZE)) throw SxException("It is too large", UNIT, __LINE__);
    if (bytes.size() < HEADER + CHECKSUM || !bytes.starts_with(MAGIC))
        throw SxException("It isn't a file of hints", UNIT, __LINE__);
    const size_t nHashed = bytes.size() - CHECKSUM;
    uint64 checksum = 0;
    std::memcpy(&checksum, bytes.data() + nHashed, CHECKSUM);
    if (checksum != SxXxh64::of(bytes.data(), static_cast<int64>(nHashed)))
        throw SxException("Its checksum is wrong", UNIT, __LINE__);
    if (checksumIdx.isEmpty() || bytes.substr(MAGIC.size(), DIGEST) != checksumIdx.str())
        throw SxException("It is of another map", UNIT, __LINE__);
    constexpr size_t NUMBERS = MAGIC.size() + DIGEST;
    Numbers numbers(bytes.data() + NUMBERS, nHashed - NUMBERS);
    if (numbers.take() != ZqBlocks::STRETCH)
        throw SxException("Its stretches have another size", UNIT, __LINE__);
    ZqOrderHints hints(checksumIdx);
    const uint32 nGroups = numbers.takeCount(GROUP);
    hints.groups.reserve(nGroups);
    for (uint32 i = 0; i < nGroups; ++i)
        hints.groups.push_back(takeGroup(&numbers));
    numbers.requireEnd();
    requireRight(hints.groups, nStretches);
    return hints;
}
