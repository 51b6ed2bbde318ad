#include "RecordFile.h"
#include "ZqPatchInfo.h"

// patch.info: any bytes are read, or refused by an SxException; what was read is written as the same bytes.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("patch.info", data, size);
    SxList<ZqPatchInfo> parts;
    try {
        parts = ZqPatchInfo::read(file.prefix() + "patch.info");
    } catch (const SxException&) {
        return 0;
    }
    ZqPatchInfo::write(file.prefix() + "again", parts);
    if (!file.holds("again", SxString(std::string(reinterpret_cast<const char*>(data), size)))) std::abort();
    return 0;
}
