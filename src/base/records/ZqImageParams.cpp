#include "ZqImageParams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {
constexpr const char* UNIT = "src/base/ZqImageParams";
constexpr const char* REMOVABLE = "removable";

ZqOrderBasis readOrder(const SxSymbol& from) {
    ZqOrderBasis order;
    order.nRuns = ZqRecordFile::toUnsigned(from.getElem("runs", true));
    order.nSessions = ZqRecordFile::toUnsigned(from.getElem("sessions", true));
    order.nCore = ZqRecordFile::toUnsigned(from.getElem("core", true));
    order.nTail = ZqRecordFile::toUnsigned(from.getElem("tail", true));
    order.nGroups = ZqRecordFile::toUnsigned(from.getElem("groups", true));
    order.median = ZqRecordFile::toProfile(from.getElem("median", true));
    return order;
}

void append(SxSymbol* root, const ZqOrderBasis& order) {
    SxSymbol to = root->append("order", SxParserAst::Object);
    order.append(&to);
    ZqRecordFile::append(&to, "median", order.median);
}
} // namespace

ZqImageParams::ZqImageParams(const SxString& prefix) : pathPrefix(prefix) {
    read(prefix);
}

void ZqImageParams::read(const SxString& prefix) {
    SxString file = ZqImageFiles::IMAGE_JSON;
    try {
        file = ZqRecordFile::choosePrefix(prefix, pathPrefix) + file;
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
    readFile(file);
}

void ZqImageParams::readFile(const SxString& file) {
    SxString text;
    try {
        if (!SxFSAction::test_f(file)) throw SxException("File " + file + " not found", UNIT, __LINE__);
        text = SxFileIO::readUtf8(file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
    readText(text, file);
}

void ZqImageParams::readText(const SxString& text, const SxString& textName) {
    try {
        const SxSymbol root = ZqRecordFile::parse(text, textName, "zqimg-schema.json");
        const ZqImageParams defaults;
        version = root.getElem("version", true).toInt();
        guid = root.getElem("guid", true).toString();
        sizeRaw = root.getElem("sizeRaw", true).toInt();
        emulatedSectorSize = root.getElem("emulatedSectorSize", true).toInt();
        SxString mode = REMOVABLE;
        ZqRecordFile::get(root, "deviceMode", &mode);
        deviceMode = mode == REMOVABLE ? ZqDriveKinds::Removable : ZqDriveKinds::NonRemovable;
        filesystem = defaults.filesystem;
        ZqRecordFile::get(root, "filesystem", &filesystem);
        driverVersion = defaults.driverVersion;
        ZqRecordFile::get(root, "driverVersion", &driverVersion);
        const SxSymbol basis = root.getElem("order", false);
        order = basis.isValid() ? std::make_optional(readOrder(basis)) : std::nullopt;
        volume = SxString();
        ZqRecordFile::get(root, "volume", &volume);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + textName, UNIT, __LINE__);
    }
}

void ZqImageParams::write(const SxString& prefix) const {
    SxString file = ZqImageFiles::IMAGE_JSON;
    try {
        file = ZqRecordFile::choosePrefix(prefix, pathPrefix) + file;
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", version);
        root.append("guid", guid);
        root.append("sizeRaw", sizeRaw);
        root.append("emulatedSectorSize", emulatedSectorSize);
        root.append("deviceMode", deviceMode == ZqDriveKinds::Removable ? REMOVABLE : "non-removable");
        root.append("filesystem", filesystem);
        root.append("driverVersion", driverVersion);
        if (order) append(&root, *order);
        if (!volume.isEmpty()) root.append("volume", volume);
        ZqRecordFile::write(root, file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}
