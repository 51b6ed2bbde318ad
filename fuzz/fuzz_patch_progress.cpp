#include "RecordFile.h"
#include "ZqPatchProgress.h"

// patch.progress: any bytes are read, or refused by an SxException; what was read names a step of a patch,
// and survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("patch.progress", data, size);
    const SxString path = file.prefix() + "patch.progress";
    ZqPatchProgress progress;
    try {
        progress.read(path);
    } catch (const SxException&) {
        return 0;
    }
    if (progress.stage > ZqPatchProgress::PerformLockFinish) std::abort();
    progress.write(path);
    ZqPatchProgress again;
    again.read(path);
    if (!(again == progress)) std::abort();
    return 0;
}
