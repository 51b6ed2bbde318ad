#include "TraceRecord.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "ZqTraceFiles.h"

using SxParserKit::SxSymbol;

namespace {

/// Keys that stand before the size in the record.
bool isInFrontOfSize(const SxString& key) {
    return key == "version" || key == "time0" || key == "method" || key == "guid";
}

} // namespace

void stateRecorded(const SxString& path, uint64 size, const SxString& digest) {
    const SxString file = path + ZqTraceFiles::RECORD;
    if (!SxFSAction::test_f(file)) return;
    SxJSONParser parser;
    parser.readFile(file);
    const SxSymbol& former = parser.getRootSymbol();
    SxSymbol record;
    record.setType(SxParserAst::Object);
    const auto copy = [&](bool isInFront) {
        for (int64 i = 0; i < former.getSize(); ++i) {
            const SxSymbol element = former.at(i);
            const SxString key = element.getKey();
            if (isInFrontOfSize(key) == isInFront && !(key == "size")) record.appendCopy(key, element);
        }
    };
    copy(true);
    if (size > 0) record.append("size", static_cast<int64>(size));
    copy(false);
    record.getElem("checksums").setElem("trc", digest);
    record.write(path + ZqTraceFiles::RECORD);
}
