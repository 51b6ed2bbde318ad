#include "LayerIdentity.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxMd5.h"
#include "ZqImageFiles.h"

#include <cstdio>

namespace {

using SxParserKit::SxSymbol;

/// The text of a key, in an object of the record `file` or in the record itself; empty where there is none.
SxString textOf(const SxString& file, const char* object, const char* key) {
    if (!SxFSAction::test_f(file)) return {};
    SxJSONParser parser;
    parser.readString(SxFileIO::readUtf8(file), file);
    SxSymbol at = parser.getRootSymbol();
    if (object) at = at.getElem(object, false);
    if (at.isValid()) at = at.getElem(key, false);
    return at.isValid() ? at.toString() : SxString();
}

} // namespace

LayerIdentity LayerIdentity::of(const std::string& folder) {
    const SxString path = folder;
    SxString text = textOf(path + ZqImageFiles::APP_JSON, "checksums", "mnt");
    if (text.isEmpty()) text = textOf(path + ZqImageFiles::IMAGE_JSON, nullptr, "guid");
    if (text.isEmpty()) return {};
    SxMd5 digest;
    digest.update(text.ascii(), static_cast<int64>(text.str().size()));
    digest.finish();
    LayerIdentity identity;
    const SxMd5::Digest& bytes = digest.getDigest();
    for (size_t i = 0; i < 8; ++i)
        identity.high |= uint64{bytes[i]} << (8 * i);
    for (size_t i = 0; i < 4; ++i)
        identity.low |= uint32{bytes[8 + i]} << (8 * i);
    return identity;
}

std::string LayerIdentity::toText() const {
    if (!isKnown()) return {};
    char text[25];
    std::snprintf(text, sizeof text, "%016llx%08x", static_cast<unsigned long long>(high), low);
    return text;
}
