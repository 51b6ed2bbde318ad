#include "ZqODRDownloader.h"

#include "SxException.h"
#include "zqnetio.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/ZqODRDownloader";
}

// The object is nothing but its handle: `zqnetio` takes the address of the one for that of the other.
static_assert(sizeof(ZqODRDownloader) == sizeof(void*));

ZqODRDownloader::ZqODRDownloader() {
    throwError(zqNetioDownload(this));
}

ZqODRDownloader::~ZqODRDownloader() {
    if (handle) zqNetioDownloadFree(this);
}

void ZqODRDownloader::setURL(const SxString& url) {
    throwError(zqNetioDownloadURL(this, url.utf8().data()));
}

void ZqODRDownloader::setFilePath(const SxString& path) {
    throwError(zqNetioDownloadPath(this, path.utf16().data()));
}

void ZqODRDownloader::setHeaders(const SxList<SxString>& headers) {
    setHeaders(SxArray<SxString>(headers));
}

void ZqODRDownloader::setHeaders(const SxArray<SxString>& headers) {
    SxArray<SxArray<char>> copies;
    for (const SxString& header : headers)
        copies.append(header.utf8());
    SxArray<const char*> list;
    for (const SxArray<char>& copy : copies)
        list.append(copy.data());
    list.append(nullptr);
    throwError(zqNetioDownloadHeaders(this, list.data()));
}

void ZqODRDownloader::setChunkingParams(uint64 requestSize, uint64 maxBuffered) {
    throwError(zqNetioDownloadChunked(this, requestSize, maxBuffered));
}

void ZqODRDownloader::setThrottle(double bytesPerSecond) {
    throwError(zqNetioDownloadThrottle(this, bytesPerSecond));
}

ZqODRDownloader::Progress ZqODRDownloader::getProgress() const {
    Progress progress;
    uint64 speed = 0;
    throwError(zqNetioDownloadProgress(this, &progress.first, &progress.second, &speed));
    return progress;
}

void ZqODRDownloader::start() {
    if (zqNetioDownloadStart(this) != 0) throw SxException(getLastErrMsg(), UNIT, __LINE__);
}

void ZqODRDownloader::wait() {
    int result = 0;
    throwError(zqNetioDownloadWait(this, &result));
    if (hasError()) throw SxException(getLastErrMsg(), UNIT, __LINE__);
}

bool ZqODRDownloader::hasFinished() const {
    int flag = 0;
    throwError(zqNetioDownloadFinished(this, &flag));
    return flag != 0;
}

bool ZqODRDownloader::hasError() const {
    uint64 nErrors = 0;
    throwError(zqNetioDownloadErr(this, &nErrors));
    return nErrors >= 1;
}

SxString ZqODRDownloader::getLastErrMsg() const {
    uint64 nErrors = 0, length = 0;
    throwError(zqNetioDownloadErr(this, &nErrors));
    throwError(zqNetioDownloadGetErrMsg(this, nullptr, &length));
    SxArray<char> text(static_cast<int64>(length));
    throwError(zqNetioDownloadGetErrMsg(this, text.data(), &length));
    // Another thread's error may have taken the place of the one that was measured.
    text.resize(static_cast<int64>(length), true);
    SxString message(text);
    message.setUnicode();
    return message;
}

int ZqODRDownloader::onDemand(uint64 offset, uint64 size, SxArray<char>& data) const {
    return onDemand(offset, size, data.data());
}

int ZqODRDownloader::onDemand(uint64 offset, uint64 size, char* buffer) const {
    return zqNetioDownloadRange(offset, size, &buffer, this);
}

int ZqODRDownloader::onDemandAnew(uint64 offset, uint64 size, char* buffer) const {
    return zqNetioDownloadAnew(offset, size, &buffer, this);
}

int ZqODRDownloader::onDemandCallback(uint64 offset, uint64 size, char** data, void* user) {
    return zqNetioDownloadRange(offset, size, data, user);
}

int ZqODRDownloader::multiOnDemand(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                   const SxArray<SxArray<char>>& data) const {
    SxArray<char*> storage;
    for (const SxArray<char>& buffer : data)
        storage.append(const_cast<char*>(buffer.data()));
    return zqNetioDownloadRanges(offsets.data(), sizes.data(), storage.data(),
                                 static_cast<uint64>(offsets.getSize()), this);
}

int ZqODRDownloader::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes) const {
    return zqNetioDownloadAnnounce(offsets.data(), sizes.data(),
                                   static_cast<uint64>(std::min(offsets.getSize(), sizes.getSize())), this);
}

int ZqODRDownloader::forget(uint64 offset, uint64 size) const {
    return zqNetioDownloadForget(offset, size, this);
}

void ZqODRDownloader::cancel(bool on) const {
    throwError(zqNetioDownloadCancel(this, on));
}

void ZqODRDownloader::throwError(int status) const {
    if (status != 0) throw SxException(zqNetioStrError(status), UNIT, __LINE__);
}
