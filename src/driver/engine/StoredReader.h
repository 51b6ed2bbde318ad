#pragma once

#include "BlockMap.h"
#include "StoredFile.h"
#include "ZqDriveReader.h"

#include <functional>

/// Reads the RAW image of a disk whose blocks are all in `img.zqf`. Blocks that aren't included are zeros.
/// One thread.
class StoredReader : public ZqBlockReader {
public:
    /// Both must outlive the object; the map has no slots of a write layer.
    /// `look_` is called before each block, and may raise to end the reading; it may be empty.
    StoredReader(const BlockMap& map_, const StoredFile& stored_, std::function<void()> look_ = {});

protected:
    void fetchBlock(uint64 rawIdx, uint64 inBlock, char* bytes, uint64 n) override;

private:
    const BlockMap& map;
    const StoredFile& stored;
    const std::function<void()> look;
};
