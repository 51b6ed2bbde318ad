#include "SxFileIO.h"

#include "SxFSAction.h"
#include "SxOs.h"
#include "SxTemporaryFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

namespace {

constexpr const char* UNIT = "src/core/SxFileIO";

SxException failure(const SxString& what, int64 error, int line) {
    return SxException(SxException(SxOs::errorText(error), UNIT, line), what, UNIT, line);
}

struct ModeWord {
    const char* word;
    unsigned mode;
    unsigned flags;
};

constexpr ModeWord MODES[] = {
    {"rb", SxFileIO::ModeRead, SxOs::Read},
    {"r", SxFileIO::ModeRead, SxOs::Read},
    {"r+b", SxFileIO::ModeRead | SxFileIO::ModeWrite, SxOs::Read | SxOs::Write},
    {"wb", SxFileIO::ModeWrite, SxOs::Write | SxOs::Create | SxOs::Truncate},
    {"ab", SxFileIO::ModeAppend, SxOs::Append | SxOs::Create},
};

} // namespace

SxFileIO::~SxFileIO() {
    if (fd >= 0) SxOs::get().close(fd);
}

SxFileIO& SxFileIO::operator=(SxFileIO&& other) noexcept {
    std::swap(fd, other.fd);
    std::swap(mode, other.mode);
    std::swap(offset, other.offset);
    std::swap(path, other.path);
    return *this;
}

void SxFileIO::open(const SxString& path_, const SxString& mode_, int permission) {
    if (isOpen()) close();
    for (const ModeWord& entry : MODES) {
        if (!(mode_ == entry.word)) continue;
        adopt(SxOs::get().open(SxOs::hostPath(path_), entry.flags, static_cast<unsigned>(permission)),
              entry.mode, path_);
        return;
    }
    throw SxException("Cannot open file '" + path_ + "' with mode '" + mode_ + "'", UNIT, __LINE__);
}

void SxFileIO::create(const SxString& path_, int permission) {
    if (isOpen()) close();
    const std::string host = SxOs::hostPath(path_);
    const int removed = SxOs::get().unlink(host);
    if (removed < 0 && removed != -ENOENT)
        throw failure("Cannot replace file '" + path_ + "'", removed, __LINE__);
    adopt(SxOs::get().open(host, SxOs::Write | SxOs::Create | SxOs::Exclusive | SxOs::NoFollow,
                           static_cast<unsigned>(permission)),
          ModeWrite, path_);
}

void SxFileIO::openOrCreate(const SxString& path_, int permission) {
    if (isOpen()) close();
    const int result =
        SxOs::get().open(SxOs::hostPath(path_), SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow,
                         static_cast<unsigned>(permission));
    // The system's own text tells of too many links.
    if (result == -ELOOP) throw SxException("'" + path_ + "' is a link, not a file", UNIT, __LINE__);
    adopt(result, ModeRead | ModeWrite, path_);
}

void SxFileIO::adopt(int result, unsigned newMode, const SxString& newPath) {
    if (result < 0) throw failure("Cannot open file '" + newPath + "'", result, __LINE__);
    fd = result;
    mode = newMode;
    path = newPath;
    SxStat info;
    const int status = SxOs::get().statFd(fd, &info);
    if (status < 0 || info.kind != SxStat::File) {
        SxOs::get().close(std::exchange(fd, -1));
        if (status < 0) throw failure("Cannot look at file '" + newPath + "'", status, __LINE__);
        throw SxException("'" + newPath + "' is not a plain file", UNIT, __LINE__);
    }
    offset = newMode == ModeAppend ? info.size : 0;
}

void SxFileIO::close() {
    if (!isOpen()) return;
    const int result = SxOs::get().close(std::exchange(fd, -1));
    if (result < 0) throw failure(fileWriteErr(path), result, __LINE__);
}

void SxFileIO::sync() {
    const int result = SxOs::get().sync(fd);
    if (result < 0) throw failure("Cannot bring file '" + path + "' to the disk", result, __LINE__);
}

void SxFileIO::startWriteback(int64 from, int64 n) {
    SxOs::get().startWriteback(fd, from, n);
}

void SxFileIO::adviseSequential() {
    SxOs::get().adviseSequential(fd);
}

void SxFileIO::adviseDone(int64 from, int64 n) {
    SxOs::get().adviseDone(fd, from, n);
}

int64 SxFileIO::getSize() const {
    SxStat info;
    const int result = SxOs::get().statFd(fd, &info);
    if (result < 0) throw failure("Cannot get the size of file '" + path + "'", result, __LINE__);
    return info.size;
}

void SxFileIO::seek(int64 distance, Seek from) {
    const int64 target = distance + (from == SeekCur ? offset : from == SeekEnd ? getSize() : 0);
    if (target < 0) {
        throw SxException("Cannot go to a place before the start of file '" + path + "'", UNIT, __LINE__);
    }
    offset = target;
}

void SxFileIO::truncate(int64 size) {
    const int result = SxOs::get().truncate(fd, size);
    if (result < 0) throw failure("Cannot set the size of file '" + path + "' to " + size, result, __LINE__);
}

int64 SxFileIO::readSome(void* buffer, int64 n) {
    const int64 got = SxOs::get().readAt(fd, buffer, n, offset);
    if (got < 0) throw failure(fileReadErr(path) + " at byte " + offset, got, __LINE__);
    offset += got;
    return got;
}

int64 SxFileIO::readBuffer(void* buffer, int64 n) {
    if (!hasMode(ModeRead)) throw SxException("File '" + path + "' isn't open for reading", UNIT, __LINE__);
    return readSome(buffer, n);
}

void SxFileIO::writeBuffer(const void* buffer, int64 n) {
    if (!hasMode(ModeWrite) && !hasMode(ModeAppend)) {
        throw SxException("File '" + path + "' isn't open for writing", UNIT, __LINE__);
    }
    int64 done = 0;
    while (done < n) {
        const int64 put = SxOs::get().writeAt(fd, static_cast<const char*>(buffer) + done, n - done, offset);
        if (put <= 0) {
            const SxString cause = put < 0 ? SxOs::errorText(put) : SxString("no byte was taken");
            throw SxException("FileWriteError", fileWriteErr(path) + " at byte " + offset + ": " + cause,
                              "src/core/SxFileIO", __LINE__);
        }
        done += put;
        offset += put;
    }
}

int64 SxFileIO::read(SxString* text, int64 n) {
    const int64 left = std::max<int64>(getSize() - offset, 0);
    std::string bytes(static_cast<size_t>(n < 0 ? left : std::min(n, left)), '\0');
    const int64 got = readBuffer(bytes.data(), static_cast<int64>(bytes.size()));
    bytes.resize(static_cast<size_t>(got));
    *text = SxString(std::move(bytes));
    return got;
}

void SxFileIO::write(const SxString& text, int64 n) {
    const auto size = static_cast<int64>(text.str().size());
    writeBuffer(text.ascii(), n < 0 ? size : std::min(n, size));
}

SxList<SxString> SxFileIO::readLines(int64 n) {
    const int64 start = offset;
    SxString text;
    read(&text);
    SxList<SxString> lines;
    size_t from = 0;
    const std::string& all = text.str();
    while (from < all.size() && (n == 0 || lines.getSize() < n)) {
        const size_t at = std::min(all.find('\n', from), all.size());
        lines.append(SxString(all.substr(from, at - from)));
        from = std::min(at + 1, all.size());
    }
    offset = start + static_cast<int64>(from);
    return lines;
}

SxList<SxString> SxFileIO::readLines(const SxString& path, int64 n) {
    SxFileIO file(path, "rb");
    if (file.getSize() > MAX_TEXT) {
        throw SxException("File '" + path + "' is too large for a text: " + file.getSize() + " bytes", UNIT,
                          __LINE__);
    }
    return file.readLines(n);
}

SxString SxFileIO::readUtf8(const SxString& path, int64 maxBytes) {
    SxFileIO file(path, "rb");
    if (file.getSize() > maxBytes) {
        throw SxException("File '" + path + "' is too large: " + file.getSize() + " bytes, at most " +
                              maxBytes + " are taken",
                          UNIT, __LINE__);
    }
    SxString text;
    file.read(&text);
    return text;
}

void SxFileIO::writeAtomic(const SxString& path, const SxString& text, int permission) {
    writeAtomic(
        path, [&](SxFileIO* file) { file->write(text); }, permission);
}

void SxFileIO::tidyAfterWriters(const SxString& path) {
    SxTemporaryFile::removeDead(path);
}

bool SxFileIO::isTemporaryName(const SxString& name, const SxString& of) {
    return SxTemporaryFile::isName(name, of);
}

void SxFileIO::writeAtomic(const SxString& path, const std::function<void(SxFileIO* file)>& fill,
                           int permission) {
    std::optional<SxStat> former;
    if (permission == KEEP) former = SxFSAction::look(path);
    if (former && former->kind != SxStat::File) former.reset();
    if (permission == KEEP) permission = former ? static_cast<int>(former->permissions & 0777) : 0644;
    SxTemporaryFile temporary(path, permission);
    SxFileIO file(temporary.getPath(), "wb");
    if (former) file.become(*former);
    fill(&file);
    file.sync();
    file.close();
    temporary.commit();
}

/// Does what SxFSAction::takeAfter() does, but by the open file: the folder may be of another user, who could
/// put a link in the place of its name meanwhile.
void SxFileIO::become(const SxStat& other) {
    SxOs& os = SxOs::get();
    SxStat own;
    int result = os.statFd(fd, &own);
    if (result == 0 && (own.owner != other.owner || own.group != other.group)) {
        result = os.setOwnerFd(fd, other.owner, other.group);
        if (result == -EPERM) result = 0;
    }
    // After the owner, whose change takes bits away.
    if (result == 0) result = os.setPermissionsFd(fd, other.permissions & 0777);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot set the permissions of '" + path + "'", UNIT, __LINE__);
    }
}

SxString SxFileIO::fileReadErr(const SxString& path) {
    return "Cannot read from file '" + path + "'";
}

SxString SxFileIO::fileWriteErr(const SxString& path) {
    return "Cannot write to file '" + path + "'";
}

void SxFileIO::require(unsigned modes, int line) const {
    if (isOpen() && (mode & modes) != 0) return;
    // A fault of the program, which no input reaches.
    const char* rule = "+-----------------------------------------------------------------------------";
    std::fprintf(stderr, "\n%s\n| Abnormal program stop in file %s at line %d.\n%s\n", rule, UNIT, line,
                 rule);
    std::exit(1);
}
