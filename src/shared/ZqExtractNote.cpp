#include "ZqExtractNote.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

namespace {

constexpr const char* UNIT = "src/shared/ZqExtractNote";
constexpr int64 VERSION = 2;

uint64 toUnsigned(const SxSymbol& root, const char* key) {
    return static_cast<uint64>(root.getElem(key, true).toInt());
}

} // namespace

SxString ZqExtractNote::file(const SxString& image) {
    return ZqImageFolder::prefix(image) + ZqImageFiles::EXTRACT_JSON;
}

bool ZqExtractNote::exists(const SxString& image) {
    return !SxFSAction::isGone(file(image));
}

ZqExtractNote ZqExtractNote::read(const SxString& image) {
    const SxString path = file(image);
    try {
        SxJSONParser parser;
        parser.readFile(path);
        const SxSymbol& root = parser.getRootSymbol();
        if (const int64 version = root.getElem("version", true).toInt(); version != VERSION)
            throw SxException(SxString("Version ") + version + " isn't known", UNIT, __LINE__);
        ZqExtractNote note;
        note.destination = root.getElem("destination", true).toString();
        note.device = toUnsigned(root, "device");
        note.inode = toUnsigned(root, "inode");
        note.mark = root.getElem("mark", true).toString();
        note.drive = toUnsigned(root, "drive");
        note.isKept = root.getElem("keep", true).toBool();
        note.folder = root.getElem("folder", true).toString();
        note.guid = root.getElem("guid", true).toString();
        for (const SxString& name : root.getElem("dirmap", true).toStringList())
            note.dirmap.append(name);
        for (const SxString& name : root.getElem("filemap", true).toStringList())
            note.filemap.append(name);
        return note;
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + path, UNIT, __LINE__);
    }
}

void ZqExtractNote::write(const SxString& image) const {
    SxSymbol root;
    root.setType(Json::Object);
    root.append("version", VERSION);
    root.append("destination", destination);
    root.append("device", static_cast<int64>(device));
    root.append("inode", static_cast<int64>(inode));
    root.append("mark", mark);
    root.append("drive", static_cast<int64>(drive));
    root.append("keep", isKept);
    root.append("folder", folder);
    root.append("guid", guid);
    for (const auto& [key, names] : {std::pair{"dirmap", &dirmap}, std::pair{"filemap", &filemap}}) {
        SxSymbol array = root.append(key, Json::Array);
        for (const SxString& name : *names)
            array.append(name);
    }
    root.write(file(image));
}

void ZqExtractNote::remove(const SxString& image) {
    if (!exists(image)) return;
    SxFSAction::rm(file(image));
    SxFSAction::syncDir(image);
}

SxString ZqExtractNote::markOf(const SxString& folder) {
    const auto info = SxFSAction::look(folder + MARK);
    return info && info->kind == SxStat::File ? SxFileIO::readUtf8(folder + MARK) : SxString();
}

bool ZqExtractNote::isBinding() const {
    if (inode == 0 || destination.isEmpty()) return false;
    const auto info = SxFSAction::look(destination);
    return info && info->kind == SxStat::Dir && info->device == device && info->inode == inode &&
           !mark.isEmpty() && markOf(destination) == mark;
}

void ZqExtractNote::refuse(const SxString& image) {
    if (!exists(image)) return;
    const ZqExtractNote note = read(image);
    if (!note.isBinding()) return;
    throw SxException("Image '" + image + "' is extracted to '" + note.destination +
                          "', and only the end of that is left; go on with: tavrin content extract IMAGE '" +
                          note.destination + "'" + (note.isKept ? " --keep" : ""),
                      UNIT, __LINE__);
}
