#include "ZqRecordFile.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxSchema.h"
#include "ZqSysEnv.h"

namespace {
constexpr const char* UNIT = "src/base/ZqRecordFile";
constexpr int64 VERSION = 2;
} // namespace

using SxParserKit::SxSymbol;

SxSymbol ZqRecordFile::read(const SxString& file, const SxString& schemaName) {
    return parse(SxFileIO::readUtf8(file), file, schemaName);
}

SxSymbol ZqRecordFile::parse(const SxString& text, const SxString& file, const SxString& schemaName) {
    SxSymbol root = parseForeign(text, file, schemaName);
    if (root.getElem("version", true).toInt() != VERSION) {
        throw SxException("File version of '" + file + "' not supported.", UNIT, __LINE__);
    }
    return root;
}

SxSymbol ZqRecordFile::parseForeign(const SxString& text, const SxString& file, const SxString& schemaName) {
    const SxString schemaPath = requireSchema(schemaName);
    SxJSONParser data, schema;
    data.readString(text, file, 1);
    schema.readFile(schemaPath, 1);
    SxSchema(schema.getAst()).validate(data.getAst());
    return data.getRootSymbol();
}

SxString ZqRecordFile::requireSchema(const SxString& schemaName) {
    const SxString path = ZqSysEnv::getSchemaPath() + schemaName;
    if (SxFSAction::test_f(path)) return path;
    throw SxException("Required schema file " + path + " not found", UNIT, __LINE__);
}

SxString ZqRecordFile::choosePrefix(const SxString& argument, const SxString& own) {
    const SxString& prefix = argument.isEmpty() ? own : argument;
    if (prefix.isEmpty()) throw SxException("Path prefix is empty.", UNIT, __LINE__);
    return prefix;
}

uint64 ZqRecordFile::toUnsigned(const SxSymbol& number) {
    const int64 value = number.toInt();
    if (value < 0) {
        throw SxException(SxString("The number ") + value + " must not be negative", UNIT, __LINE__);
    }
    return static_cast<uint64>(value);
}

SxList<ZqLoadProfilePoint> ZqRecordFile::toProfile(const SxSymbol& list) {
    SxList<ZqLoadProfilePoint> profile;
    for (const SxSymbol& entry : list.toList()) {
        ZqLoadProfilePoint point;
        point.time = toUnsigned(entry.getElem("time", true));
        point.size = toUnsigned(entry.getElem("size", true));
        profile.append(point);
    }
    return profile;
}

void ZqRecordFile::append(SxSymbol* to, const char* key, const SxList<ZqLoadProfilePoint>& profile) {
    SxSymbol list = to->append(key, SxParserAst::Array);
    for (const ZqLoadProfilePoint& point : profile) {
        SxSymbol entry = list.append(SxParserAst::Object);
        entry.append("time", point.time);
        entry.append("size", point.size);
    }
}

void ZqRecordFile::write(const SxSymbol& root, const SxString& file, int permission) {
    writeText(root.toJson(4) + "\n", file, permission);
}

void ZqRecordFile::writeText(const SxString& text, const SxString& file, int permission) {
    const SxFileInfo info(file);
    SxFSAction::mkdir_p(info.getPath(), 0777);
    SxFileIO::writeAtomic(info.getAbsPath(), text, permission);
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, SxString* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = elem.toString();
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, int64* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = elem.toInt();
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, uint64* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = toUnsigned(elem);
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, double* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = elem.toDouble();
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, bool* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = elem.toBool();
}

void ZqRecordFile::get(const SxSymbol& object, const char* key, SxList<SxString>* field) {
    const SxSymbol elem = object.getElem(key, false);
    if (elem.isValid()) *field = elem.toStringList();
}
