#include "SxException.h"
#include "ZqTomlFile.h"

// The file of a user's settings: what is taken has lines in their order, and a failure is one of ours.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const SxString text(std::string(reinterpret_cast<const char*>(data), size));
    try {
        int64 line = 1;
        for (const ZqTomlFile::Entry& entry : ZqTomlFile::parse(text, "config.toml")) {
            if (entry.line < line) std::abort();
            line = entry.line;
        }
    } catch (const SxException&) {
        return 0;
    }
    return 0;
}
