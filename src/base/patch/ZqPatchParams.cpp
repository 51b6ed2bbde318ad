#include "ZqPatchParams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqPatchFiles.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqPatchParams";
constexpr const char* SCHEMA = "zqpatch-schema.json";

SxString recordFile(const SxString& directory, const SxString& own) {
    return (directory.isEmpty() ? own : directory) + ZqPatchFiles::RECORD;
}

} // namespace

ZqPatchParams::ZqPatchParams(const SxString& path_) : path(path_) {
    read(path_);
}

void ZqPatchParams::read(const SxString& directory) {
    const SxString file = recordFile(directory, path);
    if (SxFSAction::sizeOf(file) < 0) throw SxException("File " + file + " not found.", UNIT, __LINE__);
    ZqRecordFile::requireSchema(SCHEMA);
    try {
        const SxSymbol root = ZqRecordFile::read(file, SCHEMA);
        ZqPatchParams next;
        next.path = path;
        next.version = root.getElem("version", true).toInt();
        next.fromGUID = root.getElem("fromGUID", true).toString();
        next.toGUID = root.getElem("toGUID", true).toString();
        next.sizeInfo = ZqRecordFile::toUnsigned(root.getElem("sizeInfo", true));
        next.sizeMap = ZqRecordFile::toUnsigned(root.getElem("sizeMap", true));
        next.sizeData = ZqRecordFile::toUnsigned(root.getElem("sizeData", true));
        next.hashInfo = root.getElem("hashInfo", true).toString();
        next.hashMap = root.getElem("hashMap", true).toString();
        next.hashData = root.getElem("hashData", true).toString();
        const SxSymbol method = root.getElem("compression", false);
        if (method.isValid()) next.compression = ZqPatchCompression::toEnum(method.toString());
        ZqRecordFile::get(root, "fromMnt", &next.fromMnt);
        ZqRecordFile::get(root, "toMnt", &next.toMnt);
        *this = next;
    } catch (const SxException& e) {
        throw SxException(e, "Reading of file " + file + " failed", UNIT, __LINE__);
    }
}

void ZqPatchParams::write(const SxString& directory) const {
    const SxString file = SxFileInfo(recordFile(directory, path)).getAbsPath();
    try {
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", version);
        root.append("fromGUID", fromGUID);
        root.append("toGUID", toGUID);
        root.append("sizeInfo", sizeInfo);
        root.append("sizeMap", sizeMap);
        root.append("sizeData", sizeData);
        root.append("hashInfo", hashInfo);
        root.append("hashMap", hashMap);
        root.append("hashData", hashData);
        root.append("compression", ZqPatchCompression::toString(compression));
        if (!fromMnt.isEmpty()) root.append("fromMnt", fromMnt);
        if (!toMnt.isEmpty()) root.append("toMnt", toMnt);
        ZqRecordFile::write(root, file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

/// A design decision: builds of one application may share their guid, so a patch also states build ids.
bool ZqPatchParams::isFor(const ZqAppParams& app) const {
    return app.guid == fromGUID && (fromMnt.isEmpty() || app.checksumMnt == fromMnt);
}

bool ZqPatchParams::isNew(const ZqAppParams& app) const {
    return app.guid == toGUID && (toMnt.isEmpty() || app.checksumMnt == toMnt);
}

bool ZqPatchParams::isMade(const ZqAppParams& app) const {
    return isNew(app) && !(toMnt.isEmpty() && fromGUID == toGUID);
}

ZqAppParams ZqPatchParams::readNew(const SxString& folder) const {
    ZqAppParams app(folder);
    app.requireKnownFormat();
    if (isNew(app)) return app;
    throw SxException("'" + folder + ZqImageFiles::APP_JSON +
                          "' isn't that of the version that its patch.json names",
                      UNIT, __LINE__);
}
