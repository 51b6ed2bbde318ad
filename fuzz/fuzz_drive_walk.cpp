#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqDriveRows.h"
#include "ZqErofsWalk.h"
#include "ZqExt4Walk.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

// The file system of a drive: a walk ends, and the files that it finds have blocks of their own within the
// drive, or it says what is wrong. The input is pieces of the drive: the place in units of 32 bytes and the
// number of bytes, two bytes each, and these bytes. All else is zeros.
namespace {

constexpr uint64 N_RAW = 512;

class PiecesReader : public ZqDriveReader {
public:
    PiecesReader(const unsigned char* data, size_t size_)
        : ZqDriveReader("drive"),
          bytes(N_RAW * ZqBlocks::SIZE) {
        size = bytes.size();
        for (size_t at = 0; at + 4 <= size_;) {
            const size_t place = (data[at] | size_t{data[at + 1]} << 8) * 32;
            const size_t wanted = data[at + 2] | size_t{data[at + 3]} << 8;
            at += 4;
            const size_t n = std::min({wanted, size_ - at, bytes.size() - place});
            std::copy_n(data + at, n, bytes.begin() + static_cast<std::ptrdiff_t>(place));
            at += n;
        }
    }

protected:
    void fetch(uint64 offset, char* to, uint64 n) override {
        if (offset > bytes.size() || n > bytes.size() - offset) std::abort();
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), n, to);
    }

private:
    std::vector<char> bytes;
};

template<class Walk>
void follow(ZqDriveReader* reader) {
    std::vector<ZqFileTable::Row> rows;
    uint64 nBlocks = 0;
    try {
        Walk walk(reader);
        walk.findNames();
        walk.visitFiles([&](const ZqDriveWalk::File& file) { ZqDriveRows::append(file, &rows); });
        for (const ZqFileTable::Row& row : rows)
            nBlocks += row.count;
        const ZqFileTable table("build", N_RAW, rows);
        if (table.getRows().size() != rows.size()) std::abort();
    } catch (const SxException&) {
        // Told, not found.
    }
    if (nBlocks > N_RAW) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    PiecesReader reader(data, size);
    if (ZqErofsWalk::isThat(&reader)) follow<ZqErofsWalk>(&reader);
    if (ZqExt4Walk::isThat(&reader)) follow<ZqExt4Walk>(&reader);
    return 0;
}
