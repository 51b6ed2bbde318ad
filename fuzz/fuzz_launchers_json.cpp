#include "SxException.h"
#include "ZqLauncherChanges.h"

#include <cstdlib>

// launchers.json: any bytes are read, or refused by an SxException; what was read survives being written, and
// no name in it leads out of a launcher's folder, since what it names is removed.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    ZqLauncherChanges changes;
    try {
        changes.readText(SxString(std::string(reinterpret_cast<const char*>(data), size)), "launchers.json");
    } catch (const SxException&) {
        return 0;
    }
    for (const ZqLauncherChanges::Image& image : changes.images) {
        for (const auto& list : {image.items, image.stores, image.titles}) {
            for (const SxString& name : list) {
                const std::string& text = name.str();
                if (text.empty() || text[0] == '/' || text.find("../") != std::string::npos || text == "..")
                    std::abort();
            }
        }
    }
    ZqLauncherChanges again;
    again.readText(changes.toText(), "launchers.json");
    if (!(again == changes)) std::abort();
    return 0;
}
