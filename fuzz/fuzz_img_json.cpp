#include "RecordFile.h"
#include "ZqImageParams.h"

// img.json: any bytes are read, or refused by an SxException; what was read survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("img.json", data, size);
    try {
        const ZqImageParams record(file.prefix());
        record.write(file.prefix());
        if (!(ZqImageParams(file.prefix()) == record)) std::abort();
    } catch (const SxException&) {
    }
    return 0;
}
