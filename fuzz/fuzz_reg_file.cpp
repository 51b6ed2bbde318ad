#include "SxException.h"
#include "ZqRegFile.h"

#include <cstdlib>

// A registry file: one that is taken comes out byte for byte as it went in, and with a value written and
// removed again it is still one.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        ZqRegFile::parseExport(text, "export");
    } catch (const SxException&) {
        // Only crashes count here.
    }
    std::optional<ZqRegFile> file;
    ZqRegFile::Key key;
    try {
        file = ZqRegFile::parse(text, "file");
        key = file->resolve({u"lab", u"sub"});
    } catch (const SxException&) {
        return 0;
    }
    if (file->toText() != text) std::abort();
    const ZqRegData value{ZqRegData::Binary, text};
    file->set(key, u"v", value);
    ZqRegFile again = ZqRegFile::parse(file->toText(), "written");
    if (again.find(key, u"V") != value || again.isEmpty(key)) std::abort();
    if (!again.remove(key, u"v") || again.find(key, u"v")) std::abort();
    if (again.isEmpty(key)) again.removeKey(key);
    ZqRegFile::parse(again.toText(), "removed");
    return 0;
}
