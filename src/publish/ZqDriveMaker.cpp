#include "ZqDriveMaker.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqErofsMaker.h"
#include "ZqExt4Maker.h"
#include "ZqSquashfsMaker.h"

namespace {
constexpr const char* UNIT = "src/publish/ZqDriveMaker";
constexpr const char* NAMES[] = {"erofs", "ext4", "squashfs"};
} // namespace

bool ZqDriveMaker::Job::isEarly(const SxString& path) const {
    for (const SxString& name : early) {
        if (path == name || path.startsWith((name + "/").str())) return true;
    }
    return false;
}

std::unique_ptr<ZqDriveMaker> ZqDriveMaker::get(FileSystem type) {
    switch (type) {
    case Erofs:
        return std::make_unique<ZqErofsMaker>();
    case Ext4:
        return std::make_unique<ZqExt4Maker>();
    default:
        return std::make_unique<ZqSquashfsMaker>();
    }
}

ZqDriveMaker::FileSystem ZqDriveMaker::stringToType(const SxString& text) {
    for (const FileSystem type : {Erofs, Ext4, Squashfs}) {
        if (text == NAMES[type]) return type;
    }
    throw SxException("The file system '" + text + "' is none of erofs, ext4, squashfs", UNIT, __LINE__);
}

SxString ZqDriveMaker::typeToString(FileSystem type) {
    return NAMES[type];
}

std::vector<ZqBlockKind> ZqDriveMaker::make(const Job& job) const {
    format(job);
    constexpr auto BLOCK = static_cast<int64>(ZqBlocks::SIZE);
    int64 nRaw = 0;
    {
        SxFileIO raw(job.raw, "r+b");
        nRaw = (raw.getSize() + BLOCK - 1) / BLOCK;
        raw.truncate(nRaw * BLOCK);
        raw.close();
    }
    std::vector<ZqBlockKind> kinds(static_cast<size_t>(nRaw), ZqBlockKind::Metadata);
    mark(job, &kinds);
    return kinds;
}

std::string ZqRawReader::read(uint64 offset, uint64 n) {
    std::string bytes(n, '\0');
    file.seek(static_cast<int64>(offset));
    if (file.readBuffer(bytes.data(), static_cast<int64>(n)) != static_cast<int64>(n)) {
        throw SxException("'" + file.getFilePath() + "' ends before byte " + (offset + n), UNIT, __LINE__);
    }
    return bytes;
}

uint64 ZqRawReader::number(const std::string& bytes, size_t at, size_t nBytes) {
    uint64 value = 0;
    for (size_t i = nBytes; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
}
