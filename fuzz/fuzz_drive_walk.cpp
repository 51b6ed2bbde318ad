#include "PiecesReader.h"
#include "SxException.h"
#include "ZqDriveRows.h"
#include "ZqErofsWalk.h"
#include "ZqExt4Walk.h"

#include <cstdlib>
#include <vector>

// The file system of a drive: a walk ends, and the files that it finds have blocks of their own within the
// drive, or it says what is wrong. The input is pieces of the drive (PiecesReader.h).
namespace {

constexpr uint64 N_RAW = PiecesReader::N_RAW;

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
