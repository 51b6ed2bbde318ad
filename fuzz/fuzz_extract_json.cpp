#include "RecordFile.h"
#include "ZqExtractNote.h"

// extract.json: any bytes are read, or refused by an SxException; what was read survives being written, and
// refuses nobody where the folder that it names isn't there.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("extract.json", data, size);
    ZqExtractNote note;
    try {
        note = ZqExtractNote::read(file.prefix());
        note.isBinding();
    } catch (const SxException&) {
        return 0;
    }
    note.write(file.prefix());
    if (!(ZqExtractNote::read(file.prefix()) == note)) std::abort();
    return 0;
}
