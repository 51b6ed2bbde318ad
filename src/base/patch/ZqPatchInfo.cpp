#include "ZqPatchInfo.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"

#include <bit>
#include <limits>
#include <new>

// Headers and lists are read and written in their memory layout.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(ZqPatchInfo::ZqPatchHeader) == 64);

namespace {

constexpr const char* UNIT = "src/base/ZqPatchInfo";
constexpr int64 HEADER = sizeof(ZqPatchInfo::ZqPatchHeader);
constexpr int64 ENTRY = sizeof(uint64);

uint32 countOf(const SxArray<uint64>& map) {
    if (map.getSize() > std::numeric_limits<uint32>::max()) {
        throw SxException(SxString("A part can't have ") + map.getSize() + " items", UNIT, __LINE__);
    }
    return static_cast<uint32>(map.getSize());
}

} // namespace

/// Takes one part after the other from an open file.
class ZqPatchInfo::Reader {
public:
    explicit Reader(const SxString& file) : io(file, "rb"), size(io.getSize()) {}

    bool isAtEnd() const { return io.getOffset() == size; }

    ZqPatchInfo next() {
        ZqPatchHeader header{};
        if (size - io.getOffset() < HEADER || io.readBuffer(&header, HEADER) != HEADER) {
            throw fault("the file ends within its header");
        }
        // Whoever adds up the sizes, to find a stream, then gets a place that a file can have.
        if (header.patchSize > nStreamBytesLeft) throw fault("its patch stream ends beyond 2^63 - 1 bytes");
        nStreamBytesLeft -= header.patchSize;
        ZqPatchInfo part(header);
        part.oldMap = readMap(header.nOld, "old");
        part.newMap = readMap(header.nNew, "new");
        ++iPart;
        return part;
    }

private:
    SxArray<uint64> readMap(uint32 n, const SxString& side) {
        SxArray<uint64> map;
        if (n == 0) return map;
        const int64 nBytes = n * ENTRY;
        int64 nThere = size - io.getOffset();
        // The count may be anything, so what is left of the file bounds what is allocated.
        if (nBytes <= nThere) {
            map.resize(n);
            nThere = io.readBuffer(map.data(), nBytes);
        }
        if (nThere < nBytes) {
            throw SxException(fault(SxString("it has ") + n + " " + side + " items, and the file " + nThere +
                                    " more bytes"),
                              "Read invalid number of " + side + " map elements", UNIT, __LINE__);
        }
        return map;
    }

    SxException fault(const SxString& what) const {
        return SxException("'" + io.getFilePath() + "', part " + iPart + ": " + what, UNIT, __LINE__);
    }

    SxFileIO io;
    const int64 size;
    int64 iPart = 0;
    uint64 nStreamBytesLeft = std::numeric_limits<int64>::max();
};

ZqPatchInfo::ZqPatchInfo(const ZqPatchHeader& header)
    : patchSize(header.patchSize),
      oldMd5(header.oldMd5),
      newMd5(header.newMd5),
      patchMd5(header.patchMd5) {
}

ZqPatchInfo::ZqPatchHeader ZqPatchInfo::makeHeader() const {
    return {countOf(oldMap),    countOf(newMap),    patchSize,
            oldMd5.getDigest(), newMd5.getDigest(), patchMd5.getDigest()};
}

SxList<ZqPatchInfo> ZqPatchInfo::read(const SxString& file) {
    if (SxFSAction::sizeOf(file) < 0) throw SxException("File " + file + " was not found", UNIT, __LINE__);
    try {
        SxList<ZqPatchInfo> parts;
        try {
            Reader reader(file);
            while (!reader.isAtEnd())
                parts.append(reader.next());
        } catch (const std::bad_alloc&) {
            throw SxException("There is no memory for the parts in '" + file + "'", UNIT, __LINE__);
        }
        return parts;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read patch parameters", UNIT, __LINE__);
    }
}

void ZqPatchInfo::write(const SxString& file, const SxList<ZqPatchInfo>& parts) {
    const auto fill = [&](SxFileIO* io) {
        for (const ZqPatchInfo& part : parts) {
            io->write(part.makeHeader());
            io->write(part.oldMap);
            io->write(part.newMap);
        }
    };
    try {
        SxFileIO::writeAtomic(file, fill, 0600);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot write patch parameters", UNIT, __LINE__);
    }
}
