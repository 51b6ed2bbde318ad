#include "ZqArchive.h"

#include "SxArray.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <clocale>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqArchive7z";
constexpr int64 CHUNK = 1 << 20;
/// Most entries that are taken: all their names are kept in memory.
constexpr int64 MAX_ENTRIES = 1'000'000;
/// The staging folder; no entry may be called so.
constexpr const char* STAGING = ".unpacking";

struct FreeArchive {
    void operator()(archive* a) const { archive_free(a); }
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};
using Archive = std::unique_ptr<archive, FreeArchive>;
using Entry = std::unique_ptr<archive_entry, FreeArchive>;

/// libarchive converts names by the thread's locale; archives hold Unicode names, paths here are UTF-8.
class Utf8Locale {
public:
    Utf8Locale() : utf8(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (!utf8) throw SxException("The locale C.UTF-8 is missing", UNIT, __LINE__);
        previous = uselocale(utf8);
    }
    ~Utf8Locale() {
        uselocale(previous);
        freelocale(utf8);
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

private:
    locale_t utf8, previous{};
};

[[noreturn]] void fail(const SxString& what, int64 error, int line) {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line), what, UNIT, line);
}

/// The archive's bytes as libarchive asks for them. No exception may pass through its C frames, so one is
/// kept until check().
struct ByteStream {
    SxFileIO file;
    SxArray<char> buffer;
    std::optional<SxException> failure;

    template<class Step>
    auto guarded(Step step) -> decltype(step()) {
        try {
            return step();
        } catch (const SxException& e) {
            failure = e;
            return ARCHIVE_FATAL;
        }
    }
    static ByteStream& of(void* self) { return *static_cast<ByteStream*>(self); }

    static la_ssize_t read(archive*, void* self, const void** bytes) {
        ByteStream& s = of(self);
        *bytes = s.buffer.data();
        return s.guarded([&]() -> la_ssize_t { return s.file.readBuffer(s.buffer.data(), CHUNK); });
    }
    static la_int64_t seek(archive*, void* self, la_int64_t distance, int whence) {
        ByteStream& s = of(self);
        return s.guarded([&]() -> la_int64_t {
            s.file.seek(distance, whence == SEEK_SET   ? SxFileIO::SeekSet
                                  : whence == SEEK_CUR ? SxFileIO::SeekCur
                                                       : SxFileIO::SeekEnd);
            return s.file.getOffset();
        });
    }
    static la_ssize_t write(archive*, void* self, const void* bytes, size_t n) {
        ByteStream& s = of(self);
        return s.guarded([&]() -> la_ssize_t {
            s.file.writeBuffer(bytes, static_cast<int64>(n));
            return static_cast<la_ssize_t>(n);
        });
    }

    /// Warnings count as errors: they tell of names and checksums that are wrong.
    void check(archive* a, la_int64_t result) {
        if (failure) throw SxException(*failure);
        if (result >= 0) return;
        const char* text = archive_error_string(a);
        throw SxException(text ? text : "The archive is damaged", UNIT, __LINE__);
    }
};

std::vector<std::string> splitName(const std::string& name) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', from)) {
        parts.push_back(name.substr(from, at - from));
        from = at + 1;
    }
    if (from < name.size() || parts.empty()) parts.push_back(name.substr(from));
    return parts;
}

/// The parts of an entry's name; raises on a name that could lead elsewhere on this or another system.
std::vector<std::string> safeParts(const std::string& name) {
    if (name.find('\\') != std::string::npos) throw SxException("The name holds a backslash", UNIT, __LINE__);
    if (name.find('\0') != std::string::npos) throw SxException("The name holds a NUL", UNIT, __LINE__);
    std::vector<std::string> parts = splitName(name);
    for (const std::string& part : parts) {
        if (part.empty()) throw SxException("The name is absolute or has an empty part", UNIT, __LINE__);
        if (part == "." || part == "..") {
            throw SxException("The name has a part '" + SxString(part) + "'", UNIT, __LINE__);
        }
        if (part.size() >= 2 && part[1] == ':')
            throw SxException("The name has a drive letter", UNIT, __LINE__);
    }
    if (parts.front() == STAGING) throw SxException("The name is reserved", UNIT, __LINE__);
    return parts;
}

/// One extraction into a folder: entries go to numbered files in the staging folder, and from there to their
/// places at the end.
class Extraction {
public:
    explicit Extraction(const SxString& folder_) : folder(folder_), root(SxOs::hostPath(folder_)) {
        while (root.size() > 1 && root.back() == '/')
            root.pop_back();
        try {
            makeRoot(root);
            removeTree(STAGING);
            makeDir(pathOf(STAGING), 0700);
            int result = SxOs::get().freeSpace(root, &space);
            if (result < 0) fail("Cannot ask for the free space of '" + folder + "'", result, __LINE__);
        } catch (const SxException&) {
            undo();
            throw;
        }
    }
    ~Extraction() {
        if (!finished) undo();
    }
    Extraction(const Extraction&) = delete;
    Extraction& operator=(const Extraction&) = delete;

    void addFolder(const std::vector<std::string>& parts) {
        claim(parts, parts.size());
        wanted.push_back({join(parts, parts.size()), {}, false});
    }

    /// Takes the next file, of `size` bytes; `next` gives its pieces in order and then an empty one.
    template<class Next>
    void addFile(const std::vector<std::string>& parts, int64 size, Next next) {
        const std::string name = join(parts, parts.size());
        claim(parts, parts.size() - 1);
        if (dirs.contains(name) || !files.insert(name).second) {
            throw SxException("The archive holds this name twice", UNIT, __LINE__);
        }
        requirePlace(name, false);
        if (size > space - declared) {
            throw SxException(SxString("The entries up to it declare ") + declared + " + " + size +
                                  " bytes, and only " + space + " are free",
                              UNIT, __LINE__);
        }
        declared += size;
        const std::string staged = std::string(STAGING) + "/" + std::to_string(files.size());
        wanted.push_back({name, staged, true});
        writeStaged(staged, size, next);
    }

    /// Moves everything to its place.
    void finish() {
        std::set<std::string> changedDirs{root};
        for (const Item& item : wanted) {
            const std::vector<std::string> parts = splitName(item.name);
            const size_t nDirs = item.isFile ? parts.size() - 1 : parts.size();
            for (size_t n = 1; n <= nDirs; ++n) {
                const std::string dir = join(parts, n);
                if (requirePlace(dir, true)) continue;
                makeDir(pathOf(dir), 0755);
                changedDirs.insert(pathOf(join(parts, n - 1)));
            }
            if (!item.isFile) continue;
            moveToPlace(item);
            changedDirs.insert(pathOf(join(parts, nDirs)));
        }
        removeTree(STAGING);
        for (const std::string& dir : newRoots)
            changedDirs.insert(parentOf(dir));
        for (const std::string& dir : changedDirs) {
            const int result = SxOs::get().syncDir(dir);
            if (result < 0) fail("Cannot bring folder '" + SxString(dir) + "' to the disk", result, __LINE__);
        }
        finished = true;
    }

private:
    struct Item {
        std::string name, staged; ///< relative to the folder
        bool isFile;
    };

    static std::string join(const std::vector<std::string>& parts, size_t n) {
        std::string name;
        for (size_t i = 0; i < n; ++i)
            name += (i > 0 ? "/" : "") + parts[i];
        return name;
    }
    static std::string parentOf(const std::string& path) {
        return SxFileInfo(SxString(path)).getPath().str();
    }
    std::string pathOf(const std::string& name) const { return name.empty() ? root : root + "/" + name; }

    /// Notes the first `nDirs` parts as folders.
    void claim(const std::vector<std::string>& parts, size_t nDirs) {
        for (size_t n = 1; n <= nDirs; ++n) {
            const std::string dir = join(parts, n);
            if (files.contains(dir)) {
                throw SxException("'" + SxString(dir) + "' is a file and a folder", UNIT, __LINE__);
            }
            if (dirs.insert(dir).second) requirePlace(dir, true);
        }
    }

    /// Whether the name is there already; raises where it is anything but what the archive has, such as a
    /// link, which could lead out of the folder.
    bool requirePlace(const std::string& name, bool isFolder) const {
        SxStat info;
        const int result = SxOs::get().lstat(pathOf(name), &info);
        if (result == -ENOENT || result == -ENOTDIR) return false;
        if (result < 0) fail("Cannot look at '" + SxString(pathOf(name)) + "'", result, __LINE__);
        if (info.kind == (isFolder ? SxStat::Dir : SxStat::File)) return true;
        throw SxException("'" + SxString(pathOf(name)) + "' is there already and " +
                              (info.kind == SxStat::Link ? "is a link"
                               : isFolder                ? "is no folder"
                                                         : "is no file"),
                          UNIT, __LINE__);
    }

    template<class Next>
    void writeStaged(const std::string& staged, int64 size, Next next) {
        SxFileIO file(folder + "/" + staged, "wb", 0600);
        const void* bytes = nullptr;
        int64 written = 0;
        while (const int64 n = next(&bytes)) {
            if (n > size - written) throw SxException("It is longer than the archive says", UNIT, __LINE__);
            file.writeBuffer(bytes, n);
            written += n;
        }
        if (written != size) {
            throw SxException(SxString("Only ") + written + " of its " + size + " bytes are there", UNIT,
                              __LINE__);
        }
        file.sync();
        file.close();
    }

    void makeRoot(const std::string& path) {
        SxStat info;
        if (SxOs::get().stat(path, &info) == 0 && info.kind == SxStat::Dir) return;
        const std::string parent = parentOf(path);
        if (parent != path) makeRoot(parent);
        makeDir(path, 0755);
        newRoots.push_back(path);
    }
    void makeDir(const std::string& path, unsigned permissions) {
        const int result = SxOs::get().makeDir(path, permissions);
        if (result < 0) fail("Cannot create folder '" + SxString(path) + "'", result, __LINE__);
        madeDirs.push_back(path);
    }
    void moveToPlace(const Item& item) {
        const bool replaces = requirePlace(item.name, false);
        const int result = SxOs::get().rename(pathOf(item.staged), pathOf(item.name));
        if (result < 0)
            fail("Cannot move '" + SxString(pathOf(item.name)) + "' to its place", result, __LINE__);
        if (!replaces) madeFiles.push_back(pathOf(item.name));
    }
    void removeTree(const std::string& name) {
        SxStat info;
        if (SxOs::get().lstat(pathOf(name), &info) == 0) SxFSAction::rm_r(folder + "/" + name);
    }

    /// Removes what this object has made; a failure on the way must not hide the one that led here.
    void undo() noexcept {
        try {
            removeTree(STAGING);
        } catch (const SxException&) {
            // The next extraction into this folder removes it.
        }
        for (const std::string& path : madeFiles)
            SxOs::get().unlink(path);
        // What was made last lies deepest.
        std::reverse(madeDirs.begin(), madeDirs.end());
        for (const std::string& path : madeDirs)
            SxOs::get().removeDir(path);
    }

    SxString folder;
    std::string root; ///< host path of the folder
    int64 space = 0, declared = 0;
    bool finished = false;
    std::set<std::string> files, dirs; ///< names in the archive
    std::vector<Item> wanted;
    std::vector<std::string> madeFiles, madeDirs, newRoots; ///< host paths
};

void extractEntry(archive* a, ByteStream& stream, archive_entry* entry, const std::string& name,
                  Extraction& target) {
    const auto type = archive_entry_filetype(entry);
    if (archive_entry_hardlink(entry) || archive_entry_symlink(entry) ||
        (type != AE_IFREG && type != AE_IFDIR)) {
        throw SxException("It is neither a file nor a folder", UNIT, __LINE__);
    }
    const std::vector<std::string> parts = safeParts(name);
    if (type == AE_IFDIR) return target.addFolder(parts);
    if (name.back() == '/') throw SxException("It is a file with the name of a folder", UNIT, __LINE__);
    if (!archive_entry_size_is_set(entry) || archive_entry_size(entry) < 0) {
        throw SxException("It declares no size", UNIT, __LINE__);
    }
    int64 expected = 0;
    target.addFile(parts, archive_entry_size(entry), [&](const void** bytes) -> int64 {
        size_t n = 0;
        la_int64_t offset = 0;
        int result = ARCHIVE_OK;
        while (n == 0 && result == ARCHIVE_OK) {
            result = archive_read_data_block(a, bytes, &n, &offset);
            stream.check(a, result);
        }
        if (result == ARCHIVE_EOF) return 0;
        if (offset != expected) throw SxException("Its bytes are out of order", UNIT, __LINE__);
        expected += static_cast<int64>(n);
        return static_cast<int64>(n);
    });
}

void openReader(archive* a, ByteStream& stream) {
    archive_read_support_format_7zip(a);
    archive_read_set_read_callback(a, ByteStream::read);
    archive_read_set_seek_callback(a, ByteStream::seek);
    archive_read_set_callback_data(a, &stream);
    stream.check(a, archive_read_open1(a));
}

void extractAll(ByteStream& stream, Extraction& target) {
    const Archive a(archive_read_new());
    if (!a) throw SxException("Out of memory", UNIT, __LINE__);
    openReader(a.get(), stream);
    for (int64 nEntries = 0;; ++nEntries) {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(a.get(), &entry);
        if (result == ARCHIVE_EOF) break;
        stream.check(a.get(), result);
        if (nEntries == MAX_ENTRIES) throw SxException("It holds too many entries", UNIT, __LINE__);
        const char* path = archive_entry_pathname_utf8(entry);
        const std::string name = path ? path : "";
        try {
            extractEntry(a.get(), stream, entry, name, target);
        } catch (const SxException& e) {
            throw SxException(e, "Entry '" + SxString(name) + "'", UNIT, __LINE__);
        }
    }
}

void packFile(archive* a, ByteStream& stream, const SxString& folder, const SxString& name) {
    SxFileIO source(folder + "/" + name, "rb");
    source.adviseSequential();
    const int64 size = source.getSize();
    const Entry entry(archive_entry_new());
    if (!entry) throw SxException("Out of memory", UNIT, __LINE__);
    archive_entry_set_pathname(entry.get(), name.ascii());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_size(entry.get(), size);
    stream.check(a, archive_write_header(a, entry.get()));
    SxArray<char> buffer(CHUNK);
    int64 packed = 0;
    while (const int64 n = source.readBuffer(buffer.data(), CHUNK)) {
        const la_ssize_t taken = archive_write_data(a, buffer.data(), static_cast<size_t>(n));
        stream.check(a, taken);
        packed += taken;
    }
    if (packed != size || source.getOffset() != size) {
        throw SxException("It changed its size while it was packed", UNIT, __LINE__);
    }
}

void packAll(ByteStream& stream, const SxString& folder, const SxList<SxString>& names, int level) {
    const Archive a(archive_write_new());
    if (!a) throw SxException("Out of memory", UNIT, __LINE__);
    stream.check(a.get(), archive_write_set_format_7zip(a.get()));
    stream.check(a.get(), archive_write_set_format_option(a.get(), "7zip", "compression-level",
                                                          SxString(level).ascii()));
    archive_write_set_bytes_in_last_block(a.get(), 1);
    stream.check(a.get(), archive_write_open(a.get(), &stream, nullptr, ByteStream::write, nullptr));
    for (const SxString& name : names) {
        try {
            safeParts(name.str());
            packFile(a.get(), stream, folder, name);
        } catch (const SxException& e) {
            throw SxException(e, "Entry '" + name + "'", UNIT, __LINE__);
        }
    }
    stream.check(a.get(), archive_write_close(a.get()));
}

} // namespace

void ZqArchive::extract7z(const SxString& archive, const SxString& folder) {
    try {
        const Utf8Locale locale;
        ByteStream stream{SxFileIO(archive, "rb"), SxArray<char>(CHUNK), {}};
        Extraction target(folder);
        extractAll(stream, target);
        target.finish();
    } catch (const SxException& e) {
        throw SxException(e, "Cannot unpack archive '" + archive + "' to '" + folder + "'", UNIT, __LINE__);
    }
}

void ZqArchive::compress7z(const SxString& archive, const SxString& folder, const SxList<SxString>& names,
                           int level) {
    const SxString tmp = archive + ".tmp";
    try {
        const Utf8Locale locale;
        ByteStream stream{SxFileIO(tmp, "wb", 0644), {}, {}};
        packAll(stream, folder, names, level);
        stream.file.sync();
        stream.file.close();
        SxFSAction::mv(tmp, archive);
        SxFSAction::syncDir(SxFileInfo(archive).getPath());
    } catch (const SxException& e) {
        SxOs::get().unlink(SxOs::hostPath(tmp));
        throw SxException(e, "Cannot pack archive '" + archive + "'", UNIT, __LINE__);
    }
}
