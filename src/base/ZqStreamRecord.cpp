#include "ZqStreamRecord.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMutex.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {
constexpr const char* UNIT = "src/base/ZqStreamRecord";
constexpr int64 VERSION = 2;

SxString recordFile(const SxString& image) {
    return ZqImageFolder::prefix(image) + ZqImageFiles::STREAM_JSON;
}
} // namespace

void ZqStreamRecord::read(const SxString& image) {
    *this = ZqStreamRecord();
    const SxString file = recordFile(image);
    if (!SxFSAction::exists(file)) return;
    try {
        const SxSymbol root = ZqRecordFile::read(file, "zqstream-schema.json");
        ZqRecordFile::get(root, "url", &url);
        ZqRecordFile::get(root, "nStarts", &nStarts);
        ZqRecordFile::get(root, "application", &application);
        ZqRecordFile::get(root, "verified", &verified);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

void ZqStreamRecord::write(const SxString& image) const {
    const SxString file = recordFile(image);
    try {
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", VERSION);
        if (!url.isEmpty()) root.append("url", url);
        root.append("nStarts", nStarts);
        if (!application.isEmpty()) root.append("application", application);
        if (!verified.isEmpty()) root.append("verified", verified);
        ZqRecordFile::write(root, file, 0600);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

void ZqStreamRecord::update(const SxString& image,
                            const std::function<void(ZqStreamRecord* record)>& change) {
    static SxMutex one;
    const SxMutexBlock block(&one);
    ZqStreamRecord record;
    record.read(image);
    change(&record);
    record.write(image);
}
