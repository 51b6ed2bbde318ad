#pragma once

#include "SxException.h"
#include "SxList.h"

#include <cstddef>
#include <functional>
#include <type_traits>

struct SxStat;

/// One open file. Not buffered: each call goes to the system. Callers read and write large pieces, and
/// nothing waits in memory that a later failure could lose. One thread at a time. All operations raise
/// SxException on an error of the file, naming it. The file is closed by the destructor.
///
/// What must outlive a power cut: a file that replaces another one is written by writeAtomic(). Data is
/// synced before the record that says that it is there is written, and before what it was made from is
/// removed.
class SxFileIO {
public:
    enum Mode : unsigned { ModeRead = 1, ModeWrite = 2, ModeAppend = 4 };
    enum Seek { SeekSet, SeekCur, SeekEnd };
    /// Largest text file that readUtf8() and readLines() take, in bytes.
    static constexpr int64 MAX_TEXT = 16 << 20;
    /// A permission: that of the file which is replaced, with its owner and group, as far as the user may
    /// give them; 0644 where there is none.
    static constexpr int KEEP = -1;

    SxFileIO() = default;
    SxFileIO(const SxString& path_, const SxString& mode_, int permission = 0600) {
        open(path_, mode_, permission);
    }
    ~SxFileIO();
    SxFileIO(SxFileIO&& other) noexcept { *this = std::move(other); }
    SxFileIO& operator=(SxFileIO&& other) noexcept;

    /// Raises on anything but a plain file, which a link may lead to. Modes: "rb" and "r" read an existing
    /// file, "r+b" reads and writes an existing one, "wb" makes an empty file, "ab" appends. `permission` is
    /// for a file that is made.
    void open(const SxString& path_, const SxString& mode_, int permission = 0600);
    /// Opens a new file for writing in the place of whatever file or link stands there, so that neither what
    /// a link leads to nor another name of the old file is written to.
    void create(const SxString& path_, int permission = 0600);
    /// Opens a file for reading and writing with all that it holds, or a new one where there is none. Raises
    /// where the name is a link, so that what a link leads to isn't written to.
    void openOrCreate(const SxString& path_, int permission = 0600);
    /// Raises where the system reports a late write error.
    void close();
    /// Does nothing, since nothing is buffered here; see sync().
    void flush() {}
    /// Returns when all that was written is on the device.
    void sync();
    /// Asks the system to begin writing `n` bytes at `offset` to the device; 0 means to the end. For long
    /// writes: the disk works while the caller reads on, and the final sync() has little left to do.
    void startWriteback(int64 offset, int64 n);
    /// Tells the system that the file will be read from front to back.
    void adviseSequential();
    /// Tells the system that these bytes won't be read again soon.
    void adviseDone(int64 from, int64 n);
    bool isOpen() const noexcept { return fd >= 0; }
    bool hasMode(Mode m) const noexcept { return (mode & m) != 0; }
    const SxString& getFilePath() const noexcept { return path; }
    /// Bytes in the file now.
    int64 getSize() const;
    int64 getOffset() const noexcept { return offset; }
    void seek(int64 distance, Seek from = SeekSet);
    /// Cuts or extends the file to `size` bytes.
    void truncate(int64 size);
    /// The descriptor, for advice and locks; the object keeps it.
    int getFd() const noexcept { return fd; }

    /// Reads up to `n` bytes, less only at the end of the file; gives how many.
    int64 readBuffer(void* buffer, int64 n);
    /// Writes `n` bytes. A short write raises with the tag "FileWriteError".
    void writeBuffer(const void* buffer, int64 n);
    /// Reads up to `n` bytes as text, all that is left with -1.
    int64 read(SxString* text, int64 n = -1);
    void write(const SxString& text, int64 n = -1);
    /// The next `n` lines without their line feeds, or all that are left with 0.
    SxList<SxString> readLines(int64 n = 0);
    static SxList<SxString> readLines(const SxString& path, int64 n);
    /// The whole file as UTF-8; raises where it holds more than `maxBytes`.
    static SxString readUtf8(const SxString& path, int64 maxBytes = MAX_TEXT);
    /// Replaces the file by `text`: written under a temporary name, synced, renamed, the folder synced; after
    /// a cut at any point the old file or the new one stands there. Of several writers at the same time the
    /// last one's file stays, as a whole. What writers that were cut off have left goes.
    static void writeAtomic(const SxString& path, const SxString& text, int permission = 0644);
    /// The same with what `fill` writes into the open file.
    static void writeAtomic(const SxString& path, const std::function<void(SxFileIO* file)>& fill,
                            int permission = 0644);

    /// Removes what writers of the file have left that were cut off, as writeAtomic() does first.
    static void tidyAfterWriters(const SxString& path);
    /// Whether `name` is one that writeAtomic() gives for a while to what becomes the file `of`; both without
    /// their folder: `of`, a dot, eight hexadecimal digits, `.tmp`.
    static bool isTemporaryName(const SxString& name, const SxString& of);

    static SxString fileReadErr(const SxString& path);
    static SxString fileWriteErr(const SxString& path);

    /// Reads `n` elements; with negative `n` as many as the array holds, or, where it is empty, the rest of
    /// the file; never more than is left of the file. The array takes the size that is read.
    template<class T>
    void read(SxArray<T>* array, int64 n = -1);
    /// Writes `n` elements, or the whole array with negative `n`.
    template<class T>
    void write(const SxArray<T>& array, int64 n = -1);
    /// Writes one value in its memory layout.
    template<class T>
    requires std::is_trivially_copyable_v<T>
    void write(const T& value);

private:
    void become(const SxStat& other);
    void require(unsigned modes, int line) const;
    int64 readSome(void* buffer, int64 n);
    void adopt(int result, unsigned newMode, const SxString& newPath);

    int fd = -1;
    unsigned mode = 0;
    int64 offset = 0;
    SxString path;
};

template<class T>
void SxFileIO::read(SxArray<T>* array, int64 n) {
    static_assert(std::is_trivially_copyable_v<T>);
    require(ModeRead, __LINE__);
    const int64 left = std::max<int64>(getSize() - offset, 0) / static_cast<int64>(sizeof(T));
    if (n < 0) n = array->getSize() > 0 ? array->getSize() : left;
    n = std::min(n, left);
    array->resize(n, true);
    const int64 bytes = n * static_cast<int64>(sizeof(T));
    if (readBuffer(array->data(), bytes) != bytes)
        throw SxException(fileReadErr(path), "src/core/SxFileIO", __LINE__);
}

template<class T>
void SxFileIO::write(const SxArray<T>& array, int64 n) {
    static_assert(std::is_trivially_copyable_v<T>);
    require(ModeWrite | ModeAppend, __LINE__);
    if (n < 0) n = array.getSize();
    writeBuffer(array.data(), n * static_cast<int64>(sizeof(T)));
}

template<class T>
requires std::is_trivially_copyable_v<T>
void SxFileIO::write(const T& value) {
    require(ModeWrite | ModeAppend, __LINE__);
    writeBuffer(&value, static_cast<int64>(sizeof(T)));
}
