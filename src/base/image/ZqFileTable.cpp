#include "ZqFileTable.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <utility>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr const char* UNIT = "src/base/image/ZqFileTable";
constexpr std::string_view MAGIC = "ZFILES01", MAGIC_OF_ALL = "ZFILES";
constexpr size_t MD5_TEXT = 32;
constexpr size_t HEADER = 48, ROW = 28, FOOTER = 16; ///< bytes; of a row without its path
constexpr uint64 MAX_SIZE = uint64{2} << 30;         ///< bytes of the file; enough for fifteen million files
constexpr uint64 MAX_PATH = 8192;                    ///< bytes
constexpr size_t PIECE = 1 << 20;                    ///< bytes that are read or written at once

template<class T>
void put(std::string* to, T value) {
    to->append(reinterpret_cast<const char*>(&value), sizeof value);
}

template<class T>
T get(const char* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

bool isPath(std::string_view path) {
    return !path.empty() && path.size() <= MAX_PATH && path.front() != '/' && path.back() != '/' &&
           path.find("//") == std::string_view::npos && path.find('\0') == std::string_view::npos;
}

/// What is wrong with a row that follows one which ends before block `end`, as a clause, or nothing.
SxString findFault(const ZqFileTable::Row& row, uint64 end, uint64 nRaw) {
    if (!isPath(row.path)) return "has no path";
    if (row.count == 0) return "has no block";
    if (row.count > nRaw || row.first > nRaw - row.count) {
        return SxString("lies beyond the drive's ") + nRaw + " blocks";
    }
    if (row.first < end) return "isn't after the one before";
    return {};
}

/// Texts of paths may hold anything.
SxString describe(size_t i, const ZqFileTable::Row& row, const SxString& fault) {
    return "row " + SxString(i) + ", of '" + row.path.makeVisible() + "', " + fault;
}

} // namespace

ZqFileTable::ZqFileTable(const SxString& buildId_, uint64 nRaw, std::vector<Row> rows_)
    : buildId(buildId_),
      rows(std::move(rows_)) {
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.first < b.first; });
    uint64 end = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const SxString fault = findFault(rows[i], end, nRaw);
        if (!fault.isEmpty()) {
            throw SxException("The drive's files don't fit it: " + describe(i, rows[i], fault), UNIT,
                              __LINE__);
        }
        end = rows[i].first + rows[i].count;
    }
}

uint64 ZqFileTable::getNFiles() const {
    // By their hashes first: paths of one folder begin alike, and comparing them costs most.
    std::vector<std::pair<size_t, std::string_view>> paths;
    paths.reserve(rows.size());
    for (const Row& row : rows)
        paths.emplace_back(std::hash<std::string_view>()(row.path), row.path);
    std::sort(paths.begin(), paths.end());
    return static_cast<uint64>(std::unique(paths.begin(), paths.end()) - paths.begin());
}

bool ZqFileTable::exists(const SxString& folder) {
    return !SxFSAction::isGone(folder + ZqImageFiles::FILES);
}

void ZqFileTable::write(const SxString& folder) const {
    const SxString path = folder + ZqImageFiles::FILES;
    if (buildId.str().size() != MD5_TEXT) {
        throw SxException("'" + path + "' can't be written: the build '" + buildId + "' is no MD5 text", UNIT,
                          __LINE__);
    }
    uint64 total = HEADER + FOOTER;
    for (const Row& row : rows)
        total += ROW + row.path.str().size();
    if (total > MAX_SIZE) {
        throw SxException("'" + path + "' would have " + total + " bytes, at most " + MAX_SIZE + " can be",
                          UNIT, __LINE__);
    }
    SxFileIO::writeAtomic(path, [this](SxFileIO* file) {
        SxMd5 md5;
        std::string bytes;
        const auto flush = [&] {
            md5.update(bytes.data(), static_cast<int64>(bytes.size()));
            file->writeBuffer(bytes.data(), static_cast<int64>(bytes.size()));
            bytes.clear();
        };
        bytes.append(MAGIC).append(buildId.str());
        put(&bytes, static_cast<uint64>(rows.size()));
        for (const Row& row : rows) {
            put(&bytes, row.first);
            put(&bytes, row.count);
            put(&bytes, row.size);
            put(&bytes, static_cast<uint32>(row.path.str().size()));
            bytes.append(row.path.str());
            if (bytes.size() >= PIECE) flush();
        }
        flush();
        md5.finish();
        file->writeBuffer(md5.getDigest().data(), FOOTER);
    });
}

/// Reads the file from front to back, in pieces.
class ZqFileTable::Reader {
public:
    explicit Reader(const SxString& path) : file(path, "rb"), size(static_cast<uint64>(file.getSize())) {
        if (size < HEADER + FOOTER || size > MAX_SIZE) throw wrong("it has a size that none has", __LINE__);
    }

    /// Raises unless the file ends with the digest of all that stands before.
    void checkDigest() {
        SxMd5 md5;
        begin();
        for (left = size - FOOTER; left > 0;) {
            const std::string_view piece = take(std::min<uint64>(left, PIECE));
            md5.update(piece.data(), static_cast<int64>(piece.size()));
        }
        md5.finish();
        left = FOOTER;
        if (std::memcmp(take(FOOTER).data(), md5.getDigest().data(), FOOTER) != 0) {
            throw wrong("it was cut off or altered, since it hasn't its digest", __LINE__);
        }
    }

    /// Begins with the header. Gives the number of rows.
    uint64 readHeader(const SxString& wanted) {
        begin();
        left = size - FOOTER;
        const std::string_view header = take(HEADER);
        if (!header.starts_with(MAGIC)) {
            throw wrong(header.starts_with(MAGIC_OF_ALL) ? "it has another format than those that are known"
                                                         : "it is no table of a drive's files",
                        __LINE__);
        }
        const SxString build = header.substr(MAGIC.size(), MD5_TEXT);
        const auto nRows = get<uint64>(header.data() + MAGIC.size() + MD5_TEXT);
        if (!(build == wanted)) {
            throw wrong("it belongs to the build " + build.makeVisible() + ", and the image is " + wanted,
                        __LINE__);
        }
        if (nRows > left / (ROW + 1)) throw wrong("it has fewer rows than it says", __LINE__);
        return nRows;
    }

    Row readRow() {
        const std::string_view fields = take(ROW);
        Row row{get<uint64>(fields.data()), get<uint64>(fields.data() + 8), get<uint64>(fields.data() + 16),
                SxString()};
        const auto nPath = get<uint32>(fields.data() + 24);
        if (nPath > MAX_PATH) throw wrong("a path in it is too long", __LINE__);
        row.path = take(nPath);
        return row;
    }

    void finish() const {
        if (left > 0) throw wrong("something follows its rows", __LINE__);
    }

    SxException wrong(const SxString& what, int line) const {
        return SxException("'" + file.getFilePath() + "' can't be used: " + what, UNIT, line);
    }

private:
    void begin() {
        file.seek(0);
        buffer.clear();
        at = 0;
    }

    /// The next `n` bytes of those that are left; valid until the next call.
    std::string_view take(uint64 n) {
        if (n > left) throw wrong("it ends within a row", __LINE__);
        if (buffer.size() - at < n) {
            buffer.erase(0, at);
            at = 0;
            const size_t old = buffer.size();
            buffer.resize(old + std::max<uint64>(n - old, PIECE));
            const int64 got = file.readBuffer(buffer.data() + old, static_cast<int64>(buffer.size() - old));
            buffer.resize(old + static_cast<size_t>(got));
            if (buffer.size() < n)
                throw SxException(SxFileIO::fileReadErr(file.getFilePath()), UNIT, __LINE__);
        }
        const std::string_view bytes(buffer.data() + at, n);
        at += n;
        left -= n;
        return bytes;
    }

    SxFileIO file;
    const uint64 size;
    uint64 left = 0;    ///< bytes that may be taken
    std::string buffer; ///< from `at` on, what was read and isn't taken yet
    size_t at = 0;
};

ZqFileTable ZqFileTable::read(const SxString& folder, const SxString& buildId, uint64 nRaw) {
    Reader reader(folder + ZqImageFiles::FILES);
    reader.checkDigest();
    ZqFileTable table;
    table.buildId = buildId;
    const uint64 nRows = reader.readHeader(buildId);
    // Each has a block of its own.
    if (nRows > nRaw) throw reader.wrong("it has more rows than the drive has blocks", __LINE__);
    table.rows.reserve(nRows);
    for (uint64 end = 0; table.rows.size() < nRows;) {
        Row row = reader.readRow();
        const SxString fault = findFault(row, end, nRaw);
        if (!fault.isEmpty()) throw reader.wrong(describe(table.rows.size(), row, fault), __LINE__);
        end = row.first + row.count;
        table.rows.push_back(std::move(row));
    }
    reader.finish();
    return table;
}
