#include "ZqTraceParams.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"
#include "ZqRecordFile.h"
#include "ZqSysEnv.h"
#include "ZqTraceFiles.h"
#include "ZqTraceFormat.h"

#include <array>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqTraceParams";

/// By the values of ZqTraceParams::Method.
constexpr std::array<const char*, 10> METHODS = {"monitoring",     "mountscan", "filescan", "merge", "LOG0",
                                                 "inc-monitoring", "align",     "set",      "patch", "shift"};

SxString recordFile(const SxString& path, const SxString& own) {
    return (path.isEmpty() ? own : path) + ZqTraceFiles::RECORD;
}

/// Raises on times that no item can have. trace.json may say anything, and what is counted from such a time
/// would wrap around, or look like a right time.
void requireTimes(const ZqTraceParams& record) {
    using ZqTraceFormat::LEAST_MS, ZqTraceFormat::MOST_MS;
    const auto require = [](const char* name, int64 value, int64 least, int64 most) {
        if (least <= value && value <= most) return;
        throw SxException(SxString("The ") + name + " " + value +
                              " is none that a trace can have: it isn't in " + least + " to " + most + " ms",
                          UNIT, __LINE__);
    };
    require("time0", record.time0, LEAST_MS, MOST_MS);
    // Items may go backward.
    require("duration", record.duration, LEAST_MS - MOST_MS, MOST_MS - LEAST_MS);
}

void putUnlessEmpty(SxSymbol* object, const char* key, const SxString& value) {
    if (!value.isEmpty()) object->append(key, value);
}

void putIfPositive(SxSymbol* object, const char* key, int64 value) {
    if (value > 0) object->append(key, value);
}

std::vector<ZqTraceParams::Source> readSources(const SxSymbol& root) {
    std::vector<ZqTraceParams::Source> sources;
    const SxSymbol list = root.getElem("sources", false);
    const int64 n = list.isValid() ? list.getSize() : 0;
    for (int64 i = 0; i < n; ++i) {
        const SxSymbol entry = list.at(i);
        ZqTraceParams::Source source = {entry.getElem("name").toString(),
                                        entry.getElem("record").toString(),
                                        entry.getElem("size").toInt(),
                                        entry.getElem("time0").toInt(),
                                        {}};
        ZqRecordFile::get(entry, "trc", &source.trc);
        sources.push_back(source);
    }
    return sources;
}

void putSources(SxSymbol* root, const std::vector<ZqTraceParams::Source>& sources) {
    if (sources.empty()) return;
    SxSymbol list = root->append("sources", SxParserAst::Array);
    for (const ZqTraceParams::Source& source : sources) {
        SxSymbol entry = list.append(SxParserAst::Object);
        entry.append("name", source.name);
        entry.append("record", source.record);
        entry.append("size", source.size);
        entry.append("time0", source.time0);
        putUnlessEmpty(&entry, "trc", source.trc);
    }
}

} // namespace

ZqTraceParams::ZqTraceParams() : time0(ZqSysEnv::getSysTime()) {
}

ZqTraceParams::ZqTraceParams(const SxString& path) : ZqTraceParams() {
    pathPrefix = path;
    read(path);
}

void ZqTraceParams::read(const SxString& path) {
    const SxString file = recordFile(path, pathPrefix);
    try {
        const SxSymbol root = ZqRecordFile::read(file, "zqtrace-schema.json");
        version = root.getElem("version", true).toInt();
        ZqRecordFile::get(root, "guid", &guid);
        time0 = root.getElem("time0", true).toInt();
        ZqRecordFile::get(root, "size", &size);
        const SxSymbol length = root.getElem("duration", false);
        duration = length.isValid() ? length.toInt() : findDuration();
        firstSessionBlockIndex = 0;
        ZqRecordFile::get(root, "firstSessionBlockIndex", &firstSessionBlockIndex);
        method = stringToMethod(root.getElem("method", true).toString());
        const SxSymbol checksums = root.getElem("checksums", true);
        ZqRecordFile::get(checksums, "mnt", &checksumMnt);
        ZqRecordFile::get(checksums, "idx", &checksumIdx);
        ZqRecordFile::get(checksums, "trc", &checksumTrc);
        sources = readSources(root);
        requireTimes(*this);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

int64 ZqTraceParams::findDuration() const {
    try {
        return ZqTraceFormat::durationOf(pathPrefix);
    } catch (const SxException&) {
        zqLogMsg("base", "Cannot read trace duration of active trace. Set to 0.");
        return 0;
    }
}

void ZqTraceParams::write(const SxString& path) const {
    const SxString file = recordFile(path, pathPrefix);
    try {
        requireTimes(*this);
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", version);
        root.append("time0", time0);
        root.append("method", methodToString(method));
        putUnlessEmpty(&root, "guid", guid);
        putIfPositive(&root, "size", size);
        putIfPositive(&root, "duration", duration);
        putIfPositive(&root, "firstSessionBlockIndex", firstSessionBlockIndex);
        SxSymbol checksums = root.append("checksums", SxParserAst::Object);
        putUnlessEmpty(&checksums, "mnt", checksumMnt);
        putUnlessEmpty(&checksums, "idx", checksumIdx);
        putUnlessEmpty(&checksums, "trc", checksumTrc);
        putSources(&root, sources);
        ZqRecordFile::write(root, file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file" + file, UNIT, __LINE__);
    }
}

bool ZqTraceParams::isValid(const SxString& path) {
    try {
        const ZqTraceParams record(path);
        return true;
    } catch (const SxException&) {
        return false;
    }
}

void ZqTraceParams::refuseSeries() const {
    if (!isSeries()) return;
    throw SxException(
        "The trace '" + pathPrefix +
            "' holds several runs one after the other, as 'trace build' and 'trace append' make "
            "it, and no times within one run; take the runs' own traces: tavrin trace merge OUT "
            "TRACE...",
        UNIT, __LINE__);
}

ZqTraceParams::Method ZqTraceParams::stringToMethod(const SxString& text) {
    for (size_t i = 0; i < METHODS.size(); ++i) {
        if (text == METHODS[i]) return static_cast<Method>(i);
    }
    throw SxException("Trace Method '" + text + "' unknown!", UNIT, __LINE__);
}

SxString ZqTraceParams::methodToString(Method value) {
    const auto i = static_cast<size_t>(value);
    if (i >= METHODS.size()) throw SxException("Unkown Trace method", UNIT, __LINE__);
    return METHODS[i];
}
