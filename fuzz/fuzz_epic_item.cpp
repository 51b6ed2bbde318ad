#include "SxException.h"
#include "ZqEpicParams.h"

#include <cstdlib>

// A manifest of the Epic launcher: any bytes are read, or refused by an SxException; no name that was read
// leads out of a folder.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    ZqEpicParams record;
    try {
        record.readText(SxString(std::string(reinterpret_cast<const char*>(data), size)), "epic.item");
    } catch (const SxException&) {
        return 0;
    }
    for (const SxString& name : {record.getFileName(), record.MandatoryAppFolderName, record.AppName}) {
        if (name.find("/") >= 0 || name.find("\\") >= 0 || name == ".." || name == ".") std::abort();
    }
    return 0;
}
