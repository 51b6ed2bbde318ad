#include "ZqPatchDownload.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFileSync.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqJobsTogether.h"
#include "ZqLog.h"
#include "ZqPatchFiles.h"
#include "ZqPatchLists.h"
#include "ZqSyncedSize.h"
#include "ZqUrlText.h"

#include <algorithm>
#include <optional>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchDownload";
constexpr int64 MAX_RECORD = 1 << 20;
constexpr int64 PIECE = 1 << 20;
/// Tag of a failure: the server has sent what the lists don't say.
constexpr const char* WRONG_STREAM = "WrongStream";

} // namespace

/// Appends to `patch.data`, part after part.
class ZqPatchDownload::Writer {
public:
    Writer(const SxString& path_, const std::vector<ZqPatchSizes>& parts_)
        : path(path_),
          parts(parts_),
          synced(path_),
          sync(path_) {
        synced.cutBack();
        file.openOrCreate(path, 0644);
        size = static_cast<uint64>(file.getSize());
        findPart();
        sync.begin(size);
    }

    uint64 getSize() const { return size; }
    size_t getPart() const { return part; }

    void take(const char* bytes, int64 n) {
        while (n > 0) {
            if (part == parts.size()) {
                throw SxException(WRONG_STREAM, "The server gives more than the parts of the patch have",
                                  UNIT, __LINE__);
            }
            const auto some = static_cast<int64>(
                std::min<uint64>(static_cast<uint64>(n), partBegin + parts[part].patchSize - size));
            md5.update(bytes, some);
            // The end of a part comes into the file once all of it is known to be right.
            if (size + static_cast<uint64>(some) == partBegin + parts[part].patchSize) requireRight();
            file.seek(static_cast<int64>(size));
            file.writeBuffer(bytes, some);
            size += static_cast<uint64>(some);
            skipEnded();
            bytes += some;
            n -= some;
        }
        sync.look(size);
    }

    /// The part that is under way comes anew.
    void cutPart() {
        file.truncate(static_cast<int64>(partBegin));
        size = partBegin;
        md5 = SxMd5();
    }

    void finish() { sync.finish(size); }

private:
    /// The part in which the file ends, with its digest so far. What lies beyond the parts goes.
    void findPart() {
        while (part < parts.size() && partBegin + parts[part].patchSize <= size) {
            partBegin += parts[part].patchSize;
            ++part;
        }
        if (part == parts.size()) {
            if (size > partBegin) cutPart();
            return;
        }
        file.seek(static_cast<int64>(partBegin));
        std::vector<char> bytes(PIECE);
        for (uint64 left = size - partBegin; left > 0;) {
            const int64 n = file.readBuffer(bytes.data(), static_cast<int64>(std::min<uint64>(left, PIECE)));
            if (n == 0) throw SxException(SxFileIO::fileReadErr(path), UNIT, __LINE__);
            md5.update(bytes.data(), n);
            left -= static_cast<uint64>(n);
        }
    }

    void requireRight() {
        md5.finish();
        if (md5 == parts[part].patchMd5) return;
        throw SxException(WRONG_STREAM,
                          "The stream of part " + SxString(static_cast<uint64>(part)) +
                              " isn't what patch.info says",
                          UNIT, __LINE__);
    }

    /// Streams may be empty.
    void skipEnded() {
        while (part < parts.size() && partBegin + parts[part].patchSize == size) {
            partBegin += parts[part].patchSize;
            ++part;
            md5 = SxMd5();
        }
    }

    const SxString path;
    const std::vector<ZqPatchSizes>& parts;
    const ZqSyncedSize synced;
    ZqFileSync sync;
    SxFileIO file;
    uint64 size = 0, partBegin = 0;
    size_t part = 0;
    SxMd5 md5; ///< of the part so far
};

ZqPatchDownload::ZqPatchDownload(const ZqPatchWork& work_, const SxString& url_,
                                 const SxArray<SxString>& headers_, const ZqNetAccess& access)
    : work(work_),
      url(url_),
      headers(headers_),
      link(SxPtr<ZqNetLink>::create(access)) {
    setThreadName("patch download");
}

SxString ZqPatchDownload::getName() const {
    return ZqUrlText::of(url);
}

SxString ZqPatchDownload::fileOf(const char* name) const {
    return work.getCopy() + name;
}

SxPtr<ZqRemoteFile> ZqPatchDownload::remote(const char* name, uint64 size) const {
    auto file = SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(url, name), headers, size);
    // What comes is checked by digests, so mirrors may take turns.
    file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
    return file;
}

SxException ZqPatchDownload::noPatch(const SxException& why) const {
    return SxException(why,
                       "No patch at this address, " + getName() + ": give that of the folder that holds " +
                           ZqPatchFiles::RECORD,
                       UNIT, __LINE__);
}

SxString ZqPatchDownload::fetchRecord(const ZqStopTest& stop) {
    try {
        const SxArray<char> bytes = remote(ZqPatchFiles::RECORD)->get(MAX_RECORD, stop);
        return SxString(std::string_view(bytes.data(), static_cast<size_t>(bytes.getSize())));
    } catch (const SxException& e) {
        if (e.hasTag(ZqNetLink::NOT_FOUND)) throw noPatch(e);
        throw SxException(e, "Cannot fetch the patch at '" + getName() + "'", UNIT, __LINE__);
    }
}

const ZqPatchParams& ZqPatchDownload::readRecord(const SxString& record) {
    try {
        const SxString staged = work.stage();
        SxFileIO::writeAtomic(staged + ZqPatchFiles::RECORD, record);
        params = ZqPatchParams(staged);
        digest = SxMd5::get(record);
        return params;
    } catch (const SxException& e) {
        // A listing of files, or a page to log in to.
        const size_t first = record.str().find_first_not_of(" \t\r\n");
        if (first != std::string::npos && record.str()[first] == '<') throw noPatch(e);
        throw SxException(e, "Cannot use the patch at '" + getName() + "'", UNIT, __LINE__);
    }
}

void ZqPatchDownload::fetchLists(const ZqStopTest& stop) {
    try {
        // What shares its bytes with files of the user is never written to.
        const std::optional<SxStat> data = SxFSAction::look(fileOf(ZqPatchFiles::DATA));
        if (!work.hasCopyOf(digest) || (data && data->nNames != 1)) work.takeStaged();
        work.removeStaged();
        // Side by side, so that a round trip is paid once for all.
        ZqJobsTogether fetches;
        const auto fetch = [&](const char* name, uint64 size, const SxString& md5) {
            fetches.start("patch lists", [this, name, size, md5, stop] { fetchFile(name, size, md5, stop); });
        };
        fetch(ZqPatchFiles::MAP_7Z, params.sizeMap, params.hashMap);
        fetch(ZqPatchFiles::INFO_7Z, params.sizeInfo, params.hashInfo);
        fetch(ZqImageFiles::IMAGE_JSON, ZqRemoteFile::UNKNOWN, {});
        fetch(ZqImageFiles::APP_JSON, ZqRemoteFile::UNKNOWN, {});
        fetches.wait();
        requireRecords();
        parts = ZqPatchLists::readParts(work.getCopy(), params, work.getPath());
    } catch (const SxException& e) {
        throw SxException(e, "Cannot fetch the patch at '" + getName() + "'", UNIT, __LINE__);
    }
}

/// They have no digest that says whether they are right. What a portal has sent instead comes anew next time.
void ZqPatchDownload::requireRecords() const {
    try {
        const ZqImageParams image(work.getCopy());
        params.readNew(work.getCopy());
    } catch (const SxException&) {
        for (const char* name : {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON})
            SxFSAction::rm(fileOf(name));
        throw;
    }
}

/// A record has neither a size nor a digest that is stated.
void ZqPatchDownload::fetchFile(const char* name, uint64 size, const SxString& md5, const ZqStopTest& stop) {
    const SxString path = fileOf(name);
    const auto isRight = [&] { return md5.isEmpty() || SxMd5::file(path) == md5; };
    if (SxFSAction::sizeOf(path) >= 0) {
        if (size == ZqRemoteFile::UNKNOWN) return;
        if (static_cast<uint64>(SxFSAction::sizeOf(path)) == size && isRight()) return;
    }
    if (size != ZqRemoteFile::UNKNOWN) ZqImageFolder::requireSpace(work.getPath(), size);
    for (const bool isFresh : {false, true}) {
        const SxPtr<ZqRemoteFile> file = remote(name, size);
        if (isFresh) file->setFresh();
        file->fetchTo(path, stop, size == ZqRemoteFile::UNKNOWN ? uint64{MAX_RECORD} : size);
        nFetched += static_cast<uint64>(SxFSAction::sizeOf(path));
        if (isRight()) return;
    }
    throw SxException("'" + ZqUrlText::of(ZqRemoteFile::urlIn(url, name)) +
                          "' hasn't the digest that its patch.json says",
                      UNIT, __LINE__);
}

/// Whether the server still has the patch that was begun with.
bool ZqPatchDownload::isSame(const ZqStopTest& stop) {
    return SxMd5::get(fetchRecord(stop)) == digest;
}

void ZqPatchDownload::cutWrong(size_t part) const {
    uint64 begin = 0;
    for (size_t i = 0; i < part; ++i)
        begin += parts[i].patchSize;
    SxFileIO data(fileOf(ZqPatchFiles::DATA), "r+b");
    data.seek(static_cast<int64>(begin));
    SxMd5 md5;
    std::vector<char> bytes(PIECE);
    for (uint64 left = parts[part].patchSize; left > 0;) {
        const int64 n = data.readBuffer(bytes.data(), static_cast<int64>(std::min<uint64>(left, PIECE)));
        if (n == 0) return;
        md5.update(bytes.data(), n);
        left -= static_cast<uint64>(n);
    }
    md5.finish();
    if (!(md5 == parts[part].patchMd5)) data.truncate(static_cast<int64>(begin));
}

uint64 ZqPatchDownload::getMissing() const {
    const auto there =
        static_cast<uint64>(std::max<int64>(SxFSAction::sizeOf(fileOf(ZqPatchFiles::DATA)), 0));
    return params.sizeData > there ? params.sizeData - there : 0;
}

void ZqPatchDownload::main() {
    try {
        fetchData([this] { return stopRequested(); });
    } catch (const SxException& e) {
        throw SxException(e, "Cannot fetch the patch at '" + getName() + "'", UNIT, __LINE__);
    }
}

void ZqPatchDownload::fetchData(const ZqStopTest& stop) {
    Writer writer(fileOf(ZqPatchFiles::DATA), parts);
    setNTotal(params.sizeData);
    setNCurrent(writer.getSize());
    size_t wrongPart = parts.size();
    while (writer.getSize() < params.sizeData) {
        const SxPtr<ZqRemoteFile> file = remote(ZqPatchFiles::DATA, params.sizeData);
        file->getFacts()->setSameTest([this](const ZqStopTest& stopped) { return isSame(stopped); });
        if (wrongPart == writer.getPart()) file->setFresh();
        try {
            file->stream(
                writer.getSize(),
                [&](const char* bytes, int64 n) {
                    writer.take(bytes, n);
                    nFetched += static_cast<uint64>(n);
                    setNCurrent(writer.getSize());
                    return true;
                },
                stop);
        } catch (const SxException& e) {
            if (!e.hasTag(WRONG_STREAM)) throw;
            if (wrongPart == writer.getPart()) {
                if (isSame(stop)) throw;
                throw SxException(e, "The server has another patch by now than the one that was begun", UNIT,
                                  __LINE__);
            }
            zqLogMsg("base", "ZqPatchDownload: asks anew: " + e.toString(SxException::ShowMessage, ": "));
            wrongPart = writer.getPart();
            writer.cutPart();
        }
    }
    writer.finish();
}
