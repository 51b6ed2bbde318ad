#include "RecordFile.h"
#include "ZqAppParams.h"

// app.json: any bytes are read, or refused by an SxException; what was read survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("app.json", data, size);
    try {
        const ZqAppParams record(file.prefix());
        record.getNInit(20.0);
        record.getBpS(1);
        record.write(file.prefix());
        if (!(ZqAppParams(file.prefix()) == record)) std::abort();
    } catch (const SxException&) {
    }
    return 0;
}
