#include "RecordFile.h"
#include "VirtualDisk.h"
#include "ZqBlocks.h"

#include <string>

namespace {

constexpr uint64 N_BLOCKS = 16;

void put(const RecordFile& file) {
    std::string map;
    for (char zqfIdx = 0; zqfIdx < static_cast<char>(N_BLOCKS); ++zqfIdx)
        map += zqfIdx + std::string(7, '\0');
    file.put("img.idx", map);
    file.put("img.zqf", std::string(N_BLOCKS * ZqBlocks::SIZE, 's'));
    file.put("img.tmp", std::string(N_BLOCKS * ZqBlocks::SIZE, 'l'));
}

std::string readAll(VirtualDisk* disk) {
    std::string bytes(N_BLOCKS * ZqBlocks::SIZE, '?');
    int error = 0;
    const auto result = disk->read(0, static_cast<uint32>(bytes.size()), bytes.data(), 1, false, &error);
    if (result != VirtualDisk::Result::Done) std::abort();
    return bytes;
}

} // namespace

// img.tix: what is taken is read whole, the same after a write and a second mount, and again when it is
// flushed.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("img.tix", data, size);
    put(file);
    const VirtualDisk::Config config{
        file.prefix(), N_BLOCKS * ZqBlocks::SIZE, 4096, N_BLOCKS, false, true, 0};
    try {
        std::string bytes;
        {
            VirtualDisk disk(config, [](uint64) {});
            bytes = readAll(&disk);
            bytes.replace(3 * ZqBlocks::SIZE, ZqBlocks::SIZE, ZqBlocks::SIZE, 'w');
            int error = 0;
            disk.write(3 * ZqBlocks::SIZE, ZqBlocks::SIZE, &bytes[3 * ZqBlocks::SIZE], 1, false, &error);
            if (error || disk.close() != 0) std::abort();
        }
        VirtualDisk disk(config, [](uint64) {});
        if (readAll(&disk) != bytes) std::abort();
        disk.flushLayer();
        if (readAll(&disk) != bytes || !file.holds("img.zqf", bytes)) std::abort();
    } catch (const SxException&) {
        if (size == 0) std::abort();
    }
    return 0;
}
