#include "zqnetio.h"

#include "ZqNetDownload.h"
#include "ZqNetLoop.h"

#include <algorithm>

namespace {

constexpr ZqNetioStatus SUCCESS = 0, FAILED = 1, NO_DOWNLOAD = 2;

ZqNetDownload*& handleOf(const void* download) {
    return *static_cast<ZqNetDownload**>(const_cast<void*>(download));
}

/// Runs `act` on the object of `download`; what it raises becomes a status and the last error.
template<class Act>
ZqNetioStatus withDownload(const void* download, Act act) {
    if (!download || !handleOf(download)) return NO_DOWNLOAD;
    ZqNetDownload& object = *handleOf(download);
    try {
        act(object);
        return SUCCESS;
    } catch (const SxException& e) {
        object.noteError(e.toString(SxException::ShowMessage, ": "));
    } catch (const std::exception& e) {
        object.noteError(e.what());
    }
    return FAILED;
}

SxArray<uint64> arrayOf(const uint64* numbers, uint64 count) {
    SxArray<uint64> array(static_cast<int64>(count));
    std::copy_n(numbers, count, array.begin());
    return array;
}

} // namespace

ZqNetioStatus zqNetioStart(int) {
    ZqNetLoop::startLibrary();
    return SUCCESS;
}

// libcurl's own clean-up must not run while a thread of the process uses any library that it has made ready.
// So it stays ready until the process ends.
ZqNetioStatus zqNetioStop() {
    return SUCCESS;
}

const char* zqNetioStrError(ZqNetioStatus status) {
    switch (status) {
    case SUCCESS:
        return "No error";
    case FAILED:
        return "The download failed";
    case NO_DOWNLOAD:
        return "There is no such download";
    default:
        return "Unknown status of the network";
    }
}

ZqNetioStatus zqNetioDownload(void* download) {
    if (!download) return NO_DOWNLOAD;
    try {
        handleOf(download) = std::make_unique<ZqNetDownload>().release();
        return SUCCESS;
    } catch (const std::exception&) {
        return FAILED;
    }
}

ZqNetioStatus zqNetioDownloadFree(void* download) {
    if (!download || !handleOf(download)) return NO_DOWNLOAD;
    const std::unique_ptr<ZqNetDownload> object(handleOf(download));
    handleOf(download) = nullptr;
    return SUCCESS;
}

ZqNetioStatus zqNetioDownloadURL(const void* download, const char* url) {
    return withDownload(download, [&](ZqNetDownload& object) { object.setUrl(SxString::fromUtf8(url)); });
}

ZqNetioStatus zqNetioDownloadPath(const void* download, const unsigned short* path) {
    return withDownload(download, [&](ZqNetDownload& object) { object.setPath(SxString::fromUtf16(path)); });
}

ZqNetioStatus zqNetioDownloadHeaders(const void* download, const char* const* headers) {
    return withDownload(download, [&](ZqNetDownload& object) {
        SxArray<SxString> list;
        for (; headers && *headers; ++headers)
            list.append(SxString::fromUtf8(*headers));
        object.setHeaders(list);
    });
}

ZqNetioStatus zqNetioDownloadChunked(const void* download, uint64 requestSize, uint64 maxBuffered) {
    return withDownload(download, [&](ZqNetDownload& object) { object.setChunks(requestSize, maxBuffered); });
}

ZqNetioStatus zqNetioDownloadThrottle(const void* download, double bytesPerSecond) {
    return withDownload(download, [&](ZqNetDownload& object) { object.setThrottle(bytesPerSecond); });
}

ZqNetioStatus zqNetioDownloadProgress(const void* download, uint64* nDone, uint64* nTotal, uint64* speed) {
    return withDownload(download, [&](ZqNetDownload& object) {
        *nDone = object.getDone();
        *nTotal = object.getTotal();
        *speed = object.getSpeed();
    });
}

ZqNetioStatus zqNetioDownloadStart(const void* download) {
    return withDownload(download, [](ZqNetDownload& object) { object.begin(); });
}

ZqNetioStatus zqNetioDownloadWait(const void* download, int* result) {
    return withDownload(download, [&](ZqNetDownload& object) {
        object.wait();
        *result = object.hasException() ? FAILED : SUCCESS;
    });
}

ZqNetioStatus zqNetioDownloadFinished(const void* download, int* flag) {
    return withDownload(download, [&](ZqNetDownload& object) { *flag = object.hasFinished() ? 1 : 0; });
}

ZqNetioStatus zqNetioDownloadErr(const void* download, uint64* nErrors) {
    return withDownload(download, [&](ZqNetDownload& object) { *nErrors = object.getNErrors(); });
}

ZqNetioStatus zqNetioDownloadGetErrMsg(const void* download, char* buffer, uint64* length) {
    return withDownload(download, [&](ZqNetDownload& object) {
        const std::string text = object.getLastError().str();
        if (buffer) std::copy_n(text.data(), std::min<size_t>(text.size(), *length), buffer);
        *length = buffer ? std::min<uint64>(text.size(), *length) : text.size();
    });
}

ZqNetioStatus zqNetioDownloadRange(uint64 offset, uint64 size, char** data, const void* download) {
    return withDownload(download, [&](ZqNetDownload& object) { object.read(offset, size, *data); });
}

ZqNetioStatus zqNetioDownloadAnew(uint64 offset, uint64 size, char** data, const void* download) {
    return withDownload(download, [&](ZqNetDownload& object) { object.readAnew(offset, size, *data); });
}

ZqNetioStatus zqNetioDownloadRanges(const uint64* offsets, const uint64* sizes, char* const* data,
                                    uint64 count, const void* download) {
    return withDownload(download, [&](ZqNetDownload& object) {
        object.announce(arrayOf(offsets, count), arrayOf(sizes, count));
        for (uint64 i = 0; i < count; ++i)
            object.read(offsets[i], sizes[i], data[i]);
    });
}

ZqNetioStatus zqNetioDownloadAnnounce(const uint64* offsets, const uint64* sizes, uint64 count,
                                      const void* download) {
    return withDownload(download, [&](ZqNetDownload& object) {
        object.announce(arrayOf(offsets, count), arrayOf(sizes, count));
    });
}

ZqNetioStatus zqNetioDownloadForget(uint64 offset, uint64 size, const void* download) {
    return withDownload(download, [&](ZqNetDownload& object) { object.forget(offset, size); });
}

ZqNetioStatus zqNetioDownloadCancel(const void* download, bool on) {
    return withDownload(download, [&](ZqNetDownload& object) { object.cancel(on); });
}
