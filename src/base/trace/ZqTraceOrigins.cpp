#include "ZqTraceOrigins.h"

#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqTraceFiles.h"

#include <algorithm>

ZqTraceOrigins::Source ZqTraceOrigins::self(const SxString& path, const ZqTraceParams& record) {
    // Of a trace that was loaded before its items went there is none.
    const int64 size = std::max<int64>(SxFSAction::sizeOf(path + ZqTraceFiles::ITEMS), 0);
    return {SxFileInfo(path).getName().validUtf8(), SxMd5::file(path + ZqTraceFiles::RECORD), size,
            record.time0, record.checksumTrc};
}

std::vector<ZqTraceOrigins::Source> ZqTraceOrigins::of(const SxString& path, const ZqTraceParams& record) {
    if (!record.sources.empty()) return record.sources;
    return {self(path, record)};
}

void ZqTraceOrigins::add(const std::vector<Source>& sources) {
    for (const Source& source : sources) {
        if (!records.insert({source.record, source.size}).second) continue;
        starts.insert(source.time0);
        if (!source.trc.isEmpty()) items.insert(source.trc);
        all.push_back(source);
    }
}

bool ZqTraceOrigins::holds(const Source& source) const {
    return records.count({source.record, source.size}) > 0;
}

bool ZqTraceOrigins::holdsFormer(const Source& source) const {
    return starts.count(source.time0) > 0 || items.count(source.trc) > 0;
}

std::vector<ZqTraceOrigins::Source> ZqTraceOrigins::getLatest() const {
    const size_t nOver = all.size() > MOST ? all.size() - MOST : 0;
    return {all.begin() + static_cast<std::ptrdiff_t>(nOver), all.end()};
}
