#include "RecordFile.h"
#include "ZqTraceParams.h"

// trace.json: any bytes are read, or refused by an SxException; what was read survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("trace.json", data, size);
    try {
        const ZqTraceParams record(file.prefix());
        record.write(file.prefix());
        if (!(ZqTraceParams(file.prefix()) == record)) std::abort();
    } catch (const SxException&) {
    }
    return 0;
}
