#include "SxException.h"
#include "ZqWaitingReports.h"

#include <cstdlib>

// Waiting reports: any bytes are read, or refused by an SxException; what was read is written the same way
// each time.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    SxString text;
    try {
        text = ZqWaitingReports::toText(
            ZqWaitingReports::parse(SxString(std::string(reinterpret_cast<const char*>(data), size))));
    } catch (const SxException&) {
        return 0;
    }
    if (!(ZqWaitingReports::toText(ZqWaitingReports::parse(text)) == text)) std::abort();
    return 0;
}
