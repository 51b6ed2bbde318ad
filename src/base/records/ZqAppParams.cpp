#include "ZqAppParams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"
#include "ZqRecordFile.h"
#include "ZqSysEnv.h"

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqAppParams";
constexpr auto ARRAY = SxParserAst::Array;
constexpr auto OBJECT = SxParserAst::Object;

void readApp(const SxSymbol& app, ZqAppParams* record) {
    record->cmd = app.getElem("cmd", true).toString();
    ZqRecordFile::get(app, "args", &record->args);
    ZqRecordFile::get(app, "name", &record->name);
    ZqRecordFile::get(app, "delay", &record->delay);
}

void readDisk(const SxSymbol& disk, ZqAppParams* record) {
    record->mountMode = ZqDriveKinds::stringToMountMode(disk.getElem("mountMode", true).toString());
    ZqRecordFile::get(disk, "sizeMnt", &record->sizeMnt);
    ZqRecordFile::get(disk, "sizeZqf", &record->sizeZqf);
    ZqRecordFile::get(disk, "sizeIdx", &record->sizeIdx);
    ZqRecordFile::get(disk, "cacheSize", &record->cacheSize);
}

void readRedirects(const SxSymbol& root, const char* key, SxList<SxString>* field) {
    const SxSymbol list = root.getElem(key, false);
    if (!list.isValid()) return;
    field->removeAll();
    for (const SxSymbol& item : list.toList())
        field->append(item.getElem("from", true).toString());
}

void readRegistry(const SxSymbol& root, ZqAppParams* record) {
    const SxSymbol list = root.getElem("registry", false);
    if (!list.isValid()) return;
    record->registry.removeAll();
    for (const SxSymbol& entry : list.toList()) {
        ZqRegistry::Item item;
        item.key = entry.getElem("key", true).toString();
        item.value = entry.getElem("value", true).toString();
        item.data = entry.getElem("data", true).toString();
        item.data.setUnicode();
        item.regType = ZqRegistry::Item::string2Type(entry.getElem("regType", true).toString());
        record->registry.append(item);
    }
}

void readUnderflow(const SxSymbol& underflow, ZqAppParams* record) {
    record->suspendDrive = underflow.getElem("suspendDrive", true).toBool();
    record->suspendProc = underflow.getElem("suspendProc", true).toBool();
    ZqRecordFile::get(underflow, "window", &record->window);
    ZqRecordFile::get(underflow, "delay", &record->underflowDelay);
    record->minOnDemand = ZqRecordFile::toUnsigned(underflow.getElem("minOnDemand", true));
    record->maxOnDemand = ZqRecordFile::toUnsigned(underflow.getElem("maxOnDemand", true));
}

void readProfile(const SxSymbol& root, ZqAppParams* record) {
    const SxSymbol list = root.getElem("loadprofile", false);
    if (!list.isValid()) return;
    record->loadprofile = ZqRecordFile::toProfile(list);
}

void readRest(const SxSymbol& root, ZqAppParams* record) {
    const SxSymbol preload = root.getElem("preload", false);
    if (preload.isValid()) {
        // Both names are in use: write() gives the first, and the second counts where both are there.
        ZqRecordFile::get(preload, "minPreloadMB", &record->minPreload);
        ZqRecordFile::get(preload, "minPreload", &record->minPreload);
        ZqRecordFile::get(preload, "minBandwidth", &record->minBandwidth);
    }
    const SxSymbol checksums = root.getElem("checksums", false);
    if (checksums.isValid()) {
        ZqRecordFile::get(checksums, "zqf", &record->checksumZqf);
        ZqRecordFile::get(checksums, "idx", &record->checksumIdx);
        ZqRecordFile::get(checksums, "mnt", &record->checksumMnt);
    }
}

void put(SxSymbol& object, const char* key, const SxString& text) {
    if (!text.isEmpty()) object.append(key, text);
}

template<class Number>
void put(SxSymbol& object, const char* key, Number number) {
    if (number != 0) object.append(key, number);
}

void put(SxSymbol& object, const char* key, const SxList<SxString>& texts) {
    if (texts.isEmpty()) return;
    SxSymbol list = object.append(key, ARRAY);
    for (const SxString& text : texts)
        list.append(text);
}

void putRedirects(SxSymbol& root, const char* key, const SxList<SxString>& names) {
    if (names.isEmpty()) return;
    SxSymbol list = root.append(key, ARRAY);
    for (const SxString& name : names)
        list.append(OBJECT).append("from", name);
}

void writeHead(const ZqAppParams& record, SxSymbol& root) {
    root.append("version", record.version);
    root.append("zqfVersion", record.zqfVersion);
    root.append("guid", record.guid);
    SxSymbol app = root.append("app", OBJECT);
    app.append("cmd", record.cmd);
    put(app, "args", record.args);
    put(app, "name", record.name);
    // Also where it is 0, which an absent key doesn't mean.
    app.append("delay", record.delay);
    SxSymbol disk = root.append("disk", OBJECT);
    put(disk, "sizeZqf", record.sizeZqf);
    put(disk, "sizeIdx", record.sizeIdx);
    put(disk, "sizeMnt", record.sizeMnt);
    put(disk, "cacheSize", record.cacheSize);
    disk.append("mountMode", ZqDriveKinds::mountModeToString(record.mountMode));
}

void writeLists(const ZqAppParams& record, SxSymbol& root) {
    put(root, "access", record.access);
    putRedirects(root, "dirmap", record.dirmap);
    putRedirects(root, "filemap", record.filemap);
    if (!record.registry.isEmpty()) {
        SxSymbol list = root.append("registry", ARRAY);
        for (const ZqRegistry::Item& item : record.registry) {
            SxSymbol entry = list.append(OBJECT);
            entry.append("key", item.key);
            entry.append("value", item.value);
            entry.append("regType", ZqRegistry::Item::type2String(item.regType));
            entry.append("data", item.data);
        }
    }
    if (!record.loadprofile.isEmpty()) ZqRecordFile::append(&root, "loadprofile", record.loadprofile);
}

void writeTail(const ZqAppParams& record, SxSymbol& root) {
    if (record.minPreload != 0 || record.minBandwidth != 0) {
        SxSymbol preload = root.append("preload", OBJECT);
        put(preload, "minPreloadMB", record.minPreload);
        put(preload, "minBandwidth", record.minBandwidth);
    }
    if (!record.checksumMnt.isEmpty() || !record.checksumIdx.isEmpty() || !record.checksumZqf.isEmpty()) {
        SxSymbol checksums = root.append("checksums", OBJECT);
        put(checksums, "mnt", record.checksumMnt);
        put(checksums, "idx", record.checksumIdx);
        put(checksums, "zqf", record.checksumZqf);
    }
    SxSymbol underflow = root.append("underflow", OBJECT);
    put(underflow, "window", record.window);
    underflow.append("delay", record.underflowDelay);
    underflow.append("suspendDrive", record.suspendDrive);
    underflow.append("suspendProc", record.suspendProc);
    underflow.append("minOnDemand", record.minOnDemand);
    underflow.append("maxOnDemand", record.maxOnDemand);
}

} // namespace

ZqAppParams::ZqAppParams() : guid(ZqSysEnv::getNewGUID()) {
}

ZqAppParams::ZqAppParams(const SxString& prefix) : pathPrefix(prefix) {
    read(prefix);
}

void ZqAppParams::read(const SxString& prefix) {
    SxString file = ZqImageFiles::APP_JSON;
    try {
        file = ZqRecordFile::choosePrefix(prefix, pathPrefix) + file;
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
    readFile(file);
}

void ZqAppParams::readFile(const SxString& file) {
    SxString text;
    try {
        if (!SxFSAction::test_f(file)) throw SxException("File " + file + " not found.", UNIT, __LINE__);
        text = SxFileIO::readUtf8(file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
    readText(text, file);
}

void ZqAppParams::readText(const SxString& text, const SxString& textName) {
    try {
        const SxSymbol root = ZqRecordFile::parse(text, textName, "zqapp-schema.json");
        version = root.getElem("version", true).toInt();
        zqfVersion = root.getElem("zqfVersion", true).toInt();
        guid = root.getElem("guid", true).toString();
        readApp(root.getElem("app", true), this);
        readDisk(root.getElem("disk", true), this);
        ZqRecordFile::get(root, "access", &access);
        readRedirects(root, "dirmap", &dirmap);
        readRedirects(root, "filemap", &filemap);
        readRegistry(root, this);
        readUnderflow(root.getElem("underflow", true), this);
        readProfile(root, this);
        readRest(root, this);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + textName, UNIT, __LINE__);
    }
}

void ZqAppParams::write(const SxString& prefix) const {
    SxString file = ZqImageFiles::APP_JSON;
    try {
        file = ZqRecordFile::choosePrefix(prefix, pathPrefix) + file;
        SxSymbol root;
        root.setType(OBJECT);
        writeHead(*this, root);
        writeLists(*this, root);
        writeTail(*this, root);
        ZqRecordFile::write(root, file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + SxFileInfo(file).getAbsPath(), UNIT, __LINE__);
    }
}

void ZqAppParams::requireKnownFormat() const {
    if (zqfVersion <= ZQF_VERSION) return;
    throw SxException("The image has the format " + SxString(zqfVersion) + " (zqfVersion in app.json), and " +
                          "this program knows formats up to " + SxString(ZQF_VERSION),
                      UNIT, __LINE__);
}

SxString ZqAppParams::boolToString(bool value) {
    return value ? "true" : "false";
}

uint64 ZqAppParams::getNInit(double speedMbit) const {
    if (loadprofile.isEmpty() || speedMbit == 0.0) return sizeZqf;
    return ZqLoadProfilePoint::getNInit(loadprofile, speedMbit);
}

uint64 ZqAppParams::getBpS(uint64 nInit) const {
    if (loadprofile.isEmpty() || nInit == 0) return 0;
    return ZqLoadProfilePoint::getBpS(loadprofile, nInit);
}
