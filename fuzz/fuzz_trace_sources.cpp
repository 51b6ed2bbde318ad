#include "RecordFile.h"
#include "ZqTraceParams.h"
#include "ZqTraceSources.h"

// sources.json: any bytes are a note or none; what is one removes nothing but what it names in the folder of
// traces.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("outside", data, size);
    const SxString traces = file.prefix() + "traces/", joined = traces + "joined/";
    ZqTraceParams().write(joined);
    SxFileIO(joined + "sources.json", "wb").writeBuffer(data, static_cast<int64>(size));
    const auto note = ZqTraceSources::read(joined);
    if (!note) return 0;
    try {
        note->finish(traces, "joined");
        if (SxFSAction::ls(traces).getSize() != 1) std::abort();
    } catch (const SxException&) { // a name that the system doesn't take
    }
    if (!SxFSAction::test_f(file.prefix() + "outside")) std::abort();
    return 0;
}
