#include "ZqNetDownload.h"

#include "SxClock.h"
#include "SxFileIO.h"
#include "ZqRangeReader.h"
#include "ZqRangeSource.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqNetDownload";

} // namespace

ZqNetDownload::ZqNetDownload() {
    setThreadName("zqdownload");
}

ZqNetDownload::~ZqNetDownload() {
    closing.store(true);
    wait();
}

void ZqNetDownload::setUrl(const SxString& url_) {
    SxMutexBlock lock(&mutex);
    if (!(url == url_)) {
        file = nullptr;
        announced.clear();
    }
    url = url_;
}

void ZqNetDownload::setHeaders(const SxArray<SxString>& headers_) {
    SxMutexBlock lock(&mutex);
    headers = headers_;
    if (file) file->setHeaders(headers);
}

void ZqNetDownload::setPath(const SxString& path_) {
    SxMutexBlock lock(&mutex);
    path = path_;
}

void ZqNetDownload::setChunks(uint64 requestSize, uint64 maxBuffered) {
    constexpr uint64 MOST = 1 << 30;
    const ZqNetSettings usual;
    SxMutexBlock lock(&mutex);
    if (link) throw SxException("The sizes of requests are set before the first one", UNIT, __LINE__);
    settings.segmentSize =
        requestSize > 0 ? static_cast<int64>(std::min(requestSize, MOST)) : usual.segmentSize;
    settings.maxBuffered =
        maxBuffered > 0 ? static_cast<int64>(std::min(maxBuffered, MOST)) : usual.maxBuffered;
}

void ZqNetDownload::setThrottle(double bytesPerSecond) {
    if (!(bytesPerSecond >= 0.)) throw SxException("A rate is a positive number", UNIT, __LINE__);
    SxMutexBlock lock(&mutex);
    throttle = bytesPerSecond;
    if (link) link->setRateLimit(throttle);
}

SxPtr<ZqRemoteFile> ZqNetDownload::getFile() const {
    SxMutexBlock lock(&mutex);
    if (url.isEmpty()) throw SxException("The download has no address", UNIT, __LINE__);
    if (!link) {
        link = SxPtr<ZqNetLink>::create(settings);
        link->setRateLimit(throttle);
    }
    if (!file) file = SxPtr<ZqRemoteFile>::create(link, url, headers);
    return file;
}

ZqStopTest ZqNetDownload::stopTest() const {
    return [this] { return cancelled.load() || closing.load(); };
}

SxPtr<ZqRangeReader> ZqNetDownload::takeAnnounced(uint64 offset, uint64 size) {
    SxMutexBlock lock(&mutex);
    const auto found = announced.find({offset, size});
    if (found == announced.end()) return nullptr;
    SxPtr<ZqRangeReader> reader = found->second;
    announced.erase(found);
    return reader;
}

void ZqNetDownload::read(uint64 offset, uint64 size, char* buffer) {
    const SxPtr<ZqRemoteFile> from = getFile();
    if (const SxPtr<ZqRangeReader> reader = takeAnnounced(offset, size)) {
        from->finish(reader.getPtr(), size, buffer, stopTest());
    } else {
        from->read(offset, size, buffer, stopTest());
    }
}

void ZqNetDownload::readAnew(uint64 offset, uint64 size, char* buffer) {
    getFile()->read(offset, size, buffer, stopTest());
}

void ZqNetDownload::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes) {
    const SxPtr<ZqRemoteFile> from = getFile();
    std::map<std::pair<uint64, uint64>, SxPtr<ZqRangeReader>> group;
    for (int64 i = 0; i < std::min(offsets.getSize(), ZqRangeSource::GROUP); ++i) {
        if (sizes(i) == 0) continue;
        const auto reader = SxPtr<ZqRangeReader>::create(*from, offsets(i), offsets(i) + sizes(i),
                                                         ZqTransfer::Kind::OnDemand);
        reader->begin();
        group[{offsets(i), sizes(i)}] = reader;
    }
    SxMutexBlock lock(&mutex);
    announced.swap(group);
}

void ZqNetDownload::forget(uint64 offset, uint64 size) {
    // What was read isn't kept.
    takeAnnounced(offset, size);
}

void ZqNetDownload::begin() {
    getFile();
    {
        SxMutexBlock lock(&mutex);
        if (path.isEmpty()) throw SxException("The download has no file to write to", UNIT, __LINE__);
    }
    nDone.store(0);
    beginNs.store(SxClock::get().steadyNs());
    begun.store(true);
    start();
}

uint64 ZqNetDownload::getTotal() const {
    const uint64 size = getFile()->getSize();
    return size == ZqRemoteFile::UNKNOWN ? 0 : size;
}

uint64 ZqNetDownload::getSpeed() const {
    const int64 ms = (SxClock::get().steadyNs() - beginNs.load()) / 1'000'000;
    return begun.load() && ms > 0 ? nDone.load() * 1000 / static_cast<uint64>(ms) : 0;
}

void ZqNetDownload::main() {
    try {
        download();
    } catch (const SxException& e) {
        noteError(e.toString(SxException::ShowMessage, ": "));
        throw;
    }
}

void ZqNetDownload::download() {
    const SxPtr<ZqRemoteFile> from = getFile();
    SxString target;
    {
        SxMutexBlock lock(&mutex);
        target = path;
    }
    SxFileIO::writeAtomic(target, [&](SxFileIO* out) {
        const ZqRemoteFile::Sink sink = [&](const char* bytes, int64 n) {
            out->writeBuffer(bytes, n);
            nDone.fetch_add(static_cast<uint64>(n));
            return true;
        };
        from->stream(0, sink, stopTest());
    });
}

void ZqNetDownload::noteError(const SxString& text) {
    SxMutexBlock lock(&errorMutex);
    ++nErrors;
    lastError = text;
}

uint64 ZqNetDownload::getNErrors() const {
    SxMutexBlock lock(&errorMutex);
    return nErrors;
}

SxString ZqNetDownload::getLastError() const {
    SxMutexBlock lock(&errorMutex);
    return lastError;
}
