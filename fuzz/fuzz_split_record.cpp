#include "RecordFile.h"
#include "ZqImage.h"

// The split record: whatever it says, a join that is refused leaves the part as it is, and one that is
// carried out gives the part's bytes.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("img.zqf.info", data, size);
    file.put("img.zqf.part1", "0123456789");
    file.put("img.zqf.part2", "01234");
    try {
        ZqImage(file.prefix()).join();
    } catch (const SxException&) {
        if (!file.holds("img.zqf.part1", "0123456789") || !file.holds("img.zqf.part2", "01234")) std::abort();
        return 0;
    }
    const bool joined = file.holds("img.zqf", "012345678901234");
    if (!joined && !file.holds("img.zqf.part1", "0123456789")) std::abort();
    return 0;
}
