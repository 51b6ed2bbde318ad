#include "SxException.h"
#include "ZqRCParams.h"

#include <cstdlib>

// appConfig.json of the Robot Cache client: any bytes are read, or refused by an SxException; what was read
// survives being written, and writing it twice changes nothing.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    ZqRCParams record;
    try {
        record.readText(SxString(std::string(reinterpret_cast<const char*>(data), size)), "appConfig.json");
    } catch (const SxException&) {
        return 0;
    }
    const SxString text = record.toText();
    ZqRCParams again;
    again.readText(text, "appConfig.json");
    if (!(again.toText() == text)) std::abort();
    return 0;
}
