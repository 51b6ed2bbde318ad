#include "ZqDriveReader.h"

#include "ZqBlocks.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/shared/ZqDriveReader";
constexpr uint64 FEW = 512; ///< bytes; an inode, or less
} // namespace

std::string ZqDriveReader::read(uint64 offset, uint64 n) {
    if (n > size || offset > size - n) {
        throw SxException("'" + name + "' ends before byte " + (offset + n), UNIT, __LINE__);
    }
    // Inodes stand side by side, and a call of the system for each costs more than all that is done with it.
    const uint64 begin = offset / ZqBlocks::SIZE * ZqBlocks::SIZE;
    const uint64 end = std::min(begin + ZqBlocks::SIZE, size);
    if (n > FEW || offset + n > end) {
        std::string bytes(n, '\0');
        fetch(offset, bytes.data(), n);
        return bytes;
    }
    if (near.empty() || nearOffset != begin) {
        near.clear();
        std::string block(end - begin, '\0');
        fetch(begin, block.data(), block.size());
        near = std::move(block);
        nearOffset = begin;
    }
    return near.substr(offset - begin, n);
}

uint64 ZqDriveReader::number(const std::string& bytes, size_t at, size_t nBytes) {
    uint64 value = 0;
    for (size_t i = nBytes; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
}

void ZqBlockReader::fetch(uint64 offset, char* bytes, uint64 n) {
    while (n > 0) {
        const uint64 inBlock = offset % ZqBlocks::SIZE, count = std::min(n, ZqBlocks::SIZE - inBlock);
        fetchBlock(offset / ZqBlocks::SIZE, inBlock, bytes, count);
        offset += count;
        bytes += count;
        n -= count;
    }
}

ZqRawReader::ZqRawReader(const SxString& path) : ZqDriveReader(path), file(path, "rb") {
    size = static_cast<uint64>(file.getSize());
}

void ZqRawReader::fetch(uint64 offset, char* bytes, uint64 n) {
    file.seek(static_cast<int64>(offset));
    if (file.readBuffer(bytes, static_cast<int64>(n)) == static_cast<int64>(n)) return;
    throw SxException("'" + getName() + "' ends before byte " + (offset + n), UNIT, __LINE__);
}
