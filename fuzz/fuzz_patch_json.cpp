#include "RecordFile.h"
#include "ZqPatchParams.h"

// patch.json: any bytes are read, or refused by an SxException; what was read survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("patch.json", data, size);
    ZqPatchParams record;
    try {
        record = ZqPatchParams(file.prefix());
    } catch (const SxException&) {
        return 0;
    }
    record.write();
    if (!(ZqPatchParams(file.prefix()) == record)) std::abort();
    return 0;
}
