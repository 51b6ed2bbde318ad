#include "RecordFile.h"
#include "SxMd5.h"
#include "ZqFileTable.h"
#include "ZqImageFiles.h"

#include <string>

// img.files: what is taken is in order and within the drive, and is written as it was. The bytes are tried as
// they are, and with the digest that they would need.
namespace {

constexpr const char* BUILD = "0123456789abcdef0123456789abcdef";
constexpr uint64 N_RAW = 1000;

bool take(const RecordFile& file, const SxString& bytes) {
    file.put(ZqImageFiles::FILES, bytes);
    try {
        const ZqFileTable table = ZqFileTable::read(file.prefix(), BUILD, N_RAW);
        uint64 end = 0;
        for (const ZqFileTable::Row& row : table.getRows()) {
            if (row.first < end || row.count == 0 || row.first + row.count > N_RAW) std::abort();
            end = row.first + row.count;
        }
        if (table.getNFiles() > table.getRows().size()) std::abort();
        table.write(file.prefix());
        if (!file.holds(ZqImageFiles::FILES, bytes)) std::abort();
        return true;
    } catch (const SxException&) {
        return false;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file(ZqImageFiles::FILES, data, 0);
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    take(file, bytes);
    SxMd5 md5;
    md5.update(data, static_cast<int64>(size));
    md5.finish();
    const SxMd5::Digest& digest = md5.getDigest();
    const bool isEmptyTable = bytes == std::string("ZFILES01") + BUILD + std::string(8, '\0');
    if (!take(file, bytes + std::string(digest.begin(), digest.end())) && isEmptyTable) std::abort();
    return 0;
}
