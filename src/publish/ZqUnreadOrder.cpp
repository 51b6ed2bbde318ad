#include "ZqUnreadOrder.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

using Row = ZqFileTable::Row;

/// How likely something is, of so many.
constexpr uint64 CERTAIN = 1'000'000;
/// So many files of the wider kind weigh as much as one of the narrower.
constexpr uint64 WEIGHT = 2;
/// Files that are about as likely stay in the order of the disk.
constexpr uint64 STEPS = 4;
constexpr size_t N_KINDS = 3;

std::string_view folderOf(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view extensionOf(std::string_view path) {
    const std::string_view name = nameOf(path);
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot);
}

/// What files of a kind have in common, from the widest kind to the narrowest.
std::array<std::string, N_KINDS> kindsOf(std::string_view path) {
    const std::string_view folder = folderOf(path), extension = extensionOf(path);
    std::string name(nameOf(path));
    for (char& c : name)
        c = c >= '0' && c <= '9' ? '#' : c;
    const auto join = [](std::string_view a, std::string_view b) {
        return std::string(a).append(1, '/').append(b);
    };
    // They begin with another letter each, so that none is taken for one of another width.
    return {std::string("e").append(extension), "f" + join(folder, extension),
            "n" + join(folderOf(folder), name)};
}

struct Count {
    uint64 nRead = 0, nAll = 0; ///< files

    void add(bool isRead) {
        nRead += isRead ? 1 : 0;
        ++nAll;
    }
    /// How likely one of them is read, whose own fate doesn't count; `wider` is what the wider kind says.
    uint64 chance(bool isRead, uint64 wider) const {
        return ((nRead - (isRead ? 1 : 0)) * CERTAIN + WEIGHT * wider) / (nAll - 1 + WEIGHT);
    }
};

class Files {
public:
    Files(const std::vector<Row>& rows_, const ZqBlockUse& use, const std::function<bool(uint64)>& isOpen)
        : rows(rows_),
          isRead(rows.size()),
          nOpen(rows.size()) {
        for (size_t i = 0; i < rows.size(); ++i) {
            for (uint64 rawIdx = rows[i].first; rawIdx < rows[i].first + rows[i].count; ++rawIdx) {
                isRead[i] = isRead[i] || use.getN(rawIdx) > 0;
                nOpen[i] += isOpen(rawIdx) ? 1 : 0;
            }
        }
        joinPieces();
        count();
        weighFolders();
    }

    /// Places in the table, in order.
    std::vector<size_t> sort() const {
        // The likeliest folder, folders that are alike by their place, the likeliest files, their place.
        std::vector<std::array<uint64, 4>> keys;
        keys.reserve(rows.size());
        for (size_t i = 0; i < rows.size(); ++i) {
            const Folder& folder = folders.at(folderOf(rows[i].path.str()));
            const uint64 step = isRead[i] ? STEPS : chances[i] * STEPS / CERTAIN;
            keys.push_back({CERTAIN - folder.chance(), folder.first, STEPS - step, i});
        }
        std::sort(keys.begin(), keys.end());
        std::vector<size_t> result;
        result.reserve(keys.size());
        for (const auto& key : keys)
            result.push_back(key.back());
        return result;
    }

private:
    struct Folder {
        size_t first = 0;   ///< place in the table of its first file
        uint64 nBlocks = 0; ///< open ones
        uint64 likely = 0;  ///< the sum of their files' chances
        uint64 chance() const { return nBlocks > 0 ? likely / nBlocks : 0; }
    };

    /// Of a file in several pieces all are read where one is, and only the first one counts.
    void joinPieces() {
        std::unordered_map<std::string_view, size_t> firsts;
        for (size_t i = 0; i < rows.size(); ++i) {
            const size_t first = firsts.try_emplace(rows[i].path.str(), i).first->second;
            isPiece.push_back(first != i);
            isRead[first] = isRead[first] || isRead[i];
        }
        for (size_t i = 0; i < rows.size(); ++i)
            isRead[i] = isRead[firsts.at(rows[i].path.str())];
    }

    void count() {
        std::unordered_map<std::string, Count> kinds;
        Count all;
        const auto each = [&](size_t i, const auto& look) {
            for (std::string& kind : kindsOf(rows[i].path.str()))
                look(&kinds[std::move(kind)]);
        };
        for (size_t i = 0; i < rows.size(); ++i) {
            if (isPiece[i]) continue;
            all.add(isRead[i]);
            each(i, [&](Count* kind) { kind->add(isRead[i]); });
        }
        const uint64 ofAll = all.nAll > 0 ? all.nRead * CERTAIN / all.nAll : 0;
        for (size_t i = 0; i < rows.size(); ++i) {
            uint64 chance = ofAll;
            each(i, [&](const Count* kind) { chance = kind->chance(isRead[i], chance); });
            chances.push_back(isRead[i] ? CERTAIN : chance);
        }
    }

    void weighFolders() {
        for (size_t i = 0; i < rows.size(); ++i) {
            Folder& folder = folders.try_emplace(folderOf(rows[i].path.str()), Folder{i}).first->second;
            folder.nBlocks += nOpen[i];
            folder.likely += nOpen[i] * chances[i];
        }
    }

    const std::vector<Row>& rows;
    std::vector<bool> isRead, isPiece;
    std::vector<uint64> nOpen, chances;
    std::unordered_map<std::string_view, Folder> folders;
};

} // namespace

void zqUnreadOrder(const ZqOrderImage& image, const ZqBlockUse& use,
                   const std::function<bool(uint64 rawIdx)>& isOpen,
                   const std::function<void(uint64 rawIdx)>& show) {
    const std::vector<Row>& rows = image.files->getRows();
    for (const size_t i : Files(rows, use, isOpen).sort()) {
        for (uint64 rawIdx = rows[i].first; rawIdx < rows[i].first + rows[i].count; ++rawIdx) {
            if (isOpen(rawIdx)) show(rawIdx);
        }
    }
}
