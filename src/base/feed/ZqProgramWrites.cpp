#include "ZqProgramWrites.h"

#include "SxException.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqStreamRecord.h"

namespace {
constexpr const char* UNIT = "src/base/ZqProgramWrites";
} // namespace

bool ZqProgramWrites::areNoted() const {
    ZqStreamRecord record;
    record.read(image);
    return record.isWritten;
}

SxPtr<ZqImageLock> ZqProgramWrites::lockOut() const {
    SxPtr<ZqImageLock> blocks = ZqImageLock::take(image, ZqImageLock::Blocks, ZqImageLock::Exclusive, job);
    if (!areNoted()) return blocks;
    throw SxException("Programs have written into '" + ZqImageFolder::prefix(image) + ZqImageFiles::ZQF +
                          "', so nothing there is put right",
                      UNIT, __LINE__);
}
