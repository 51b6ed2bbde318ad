#include "ZqRemoteFile.h"

#include "SxFileIO.h"
#include "ZqRangeReader.h"

#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqRemoteFile";

/// Scheme, host and port of an address.
std::string_view originOf(std::string_view url) {
    const size_t host = url.find("://");
    return host == std::string_view::npos ? url : url.substr(0, url.find('/', host + 3));
}

bool isSecret(const SxString& header) {
    const SxString name = header.left(":").changeCase(false);
    return name == "authorization" || name == "cookie";
}

} // namespace

ZqRemoteFile::ZqRemoteFile(const SxPtr<ZqNetLink>& link_, const SxString& url_,
                           const SxArray<SxString>& headers_, uint64 expectedSize_)
    : link(link_),
      url(url_),
      expectedSize(expectedSize_),
      headers(headers_) {
}

uint64 ZqRemoteFile::getSize() const {
    SxMutexBlock lock(&mutex);
    return size;
}

void ZqRemoteFile::setHeaders(const SxArray<SxString>& headers_) {
    SxMutexBlock lock(&mutex);
    headers = headers_;
}

ZqRemoteFile::Address ZqRemoteFile::getAddress() const {
    SxMutexBlock lock(&mutex);
    Address address;
    address.url = finalUrl.isEmpty() ? url : finalUrl;
    const bool isElsewhere = originOf(address.url) != originOf(url);
    for (const SxString& header : headers) {
        // A line break would be a header of its own.
        const bool isWhole = header.str().find_first_of("\r\n") == std::string::npos;
        if (isWhole && !(isElsewhere && isSecret(header))) address.headers.append(header);
    }
    return address;
}

bool ZqRemoteFile::forgetRedirect() {
    SxMutexBlock lock(&mutex);
    const bool had = !finalUrl.isEmpty();
    finalUrl = SxString();
    return had;
}

void ZqRemoteFile::checkStatus(const ZqTransfer::Response& response, int wanted) {
    const int status = response.status;
    const SxString text = "the server answers " + SxString(status);
    if (status == 408 || status == 429 || status >= 500) {
        throw SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__);
    }
    if (status >= 400 && forgetRedirect()) {
        throw SxException(ZqNetLink::UNREACHABLE, text + " where it redirected to", UNIT, __LINE__);
    }
    if (status == 404 || status == 410) throw SxException(ZqNetLink::NOT_FOUND, text, UNIT, __LINE__);
    if (status == 200 && wanted == 206) {
        throw SxException("The server answers a request for a range with the whole file (200)", UNIT,
                          __LINE__);
    }
    if (status != wanted) throw SxException("The server answers " + SxString(status), UNIT, __LINE__);
    if (!response.encoding.isEmpty() && !(response.encoding == "identity")) {
        throw SxException("The server sends the file encoded (" + response.encoding.makeVisible() + ")", UNIT,
                          __LINE__);
    }
}

void ZqRemoteFile::learn(const ZqTransfer::Response& response) {
    SxMutexBlock lock(&mutex);
    const SxString& seen = response.validator();
    if (!validator.isEmpty() && !seen.isEmpty() && !(seen == validator)) {
        throw SxException(ZqNetLink::CHANGED,
                          "The file has changed on the server since it was first asked for (" +
                              validator.makeVisible() + ", now " + seen.makeVisible() + ")",
                          UNIT, __LINE__);
    }
    if (response.total >= 0) {
        const auto total = static_cast<uint64>(response.total);
        if (size != UNKNOWN && total != size) {
            throw SxException(ZqNetLink::CHANGED,
                              "The file has changed on the server: it had " + SxString(size) +
                                  " bytes and has " + SxString(total),
                              UNIT, __LINE__);
        }
        if (expectedSize != UNKNOWN && total != expectedSize) {
            throw SxException("The server's file has " + SxString(total) + " bytes instead of " +
                                  SxString(expectedSize),
                              UNIT, __LINE__);
        }
        size = total;
    }
    if (validator.isEmpty()) validator = seen;
    if (!(response.url == url)) finalUrl = response.url;
}

SxException ZqRemoteFile::failure(const SxException& e, const SxString& what) const {
    return SxException(e, "Cannot fetch " + what + "'" + url.makeVisible() + "'", UNIT, __LINE__);
}

void ZqRemoteFile::read(uint64 offset, uint64 n, char* buffer, const ZqStopTest& stop) {
    if (n == 0) return;
    ZqRangeReader reader(self(), offset, offset + n, ZqTransfer::Kind::OnDemand);
    finish(&reader, n, buffer, stop);
}

void ZqRemoteFile::finish(ZqRangeReader* reader, uint64 n, char* buffer, const ZqStopTest& stop) {
    const uint64 offset = reader->getPos();
    try {
        if (reader->readAll(buffer, n, stop) != n) throw SxException("The file ends before", UNIT, __LINE__);
    } catch (const SxException& e) {
        throw failure(e, "bytes " + SxString(offset) + "-" + SxString(offset + n - 1) + " of ");
    }
}

SxArray<char> ZqRemoteFile::getOnce(int64 maxSize, const ZqStopTest& stop) {
    const Address address = getAddress();
    ZqTransfer::Request request;
    request.url = address.url;
    request.headers = address.headers;
    request.maxBuffered = std::numeric_limits<int64>::max();
    request.check = [file = self(), maxSize](const ZqTransfer::Response& response) {
        file->checkStatus(response, 200);
        ZqTransfer::Response whole = response;
        whole.total = response.length;
        if (response.length > maxSize) {
            throw SxException("The file has " + SxString(response.length) + " bytes, and no more than " +
                                  SxString(maxSize) + " were expected",
                              UNIT, __LINE__);
        }
        file->learn(whole);
    };
    const auto transfer = SxPtr<ZqTransfer>::create(std::move(request));
    link->add(transfer);
    SxArray<char> bytes, piece;
    try {
        for (;;) {
            link->checkStop(stop);
            const ZqTransfer::Next got = transfer->next(&piece);
            if (got == ZqTransfer::Next::Ended) return bytes;
            if (got == ZqTransfer::Next::Waiting) continue;
            const int64 old = bytes.getSize();
            if (piece.getSize() > maxSize - old) {
                throw SxException("The file has more than " + SxString(maxSize) + " bytes", UNIT, __LINE__);
            }
            bytes.resize(old + piece.getSize(), true);
            std::memcpy(bytes.data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
        }
    } catch (const SxException&) {
        link->drop(transfer);
        throw;
    }
}

SxArray<char> ZqRemoteFile::get(int64 maxSize, const ZqStopTest& stop) {
    try {
        ZqNetRetry retry(link, link->getSettings().nRangeTries);
        for (;;) {
            try {
                return getOnce(maxSize, stop);
            } catch (const SxException& e) {
                retry.failed(e, stop);
            }
        }
    } catch (const SxException& e) {
        throw failure(e, "");
    }
}

bool ZqRemoteFile::stream(uint64 offset, const Sink& sink, const ZqStopTest& stop) {
    ZqRangeReader reader(self(), offset, UNKNOWN, ZqTransfer::Kind::Ordered);
    for (;;) {
        SxArray<char> piece;
        try {
            if (!reader.next(&piece, stop)) return true;
        } catch (const SxException& e) {
            throw failure(e, "");
        }
        if (!sink(piece.data(), piece.getSize())) return false;
    }
}

void ZqRemoteFile::fetchTo(const SxString& path, const ZqStopTest& stop) {
    SxFileIO::writeAtomic(path, [&](SxFileIO* target) {
        stream(
            0,
            [target](const char* bytes, int64 n) {
                target->writeBuffer(bytes, n);
                return true;
            },
            stop);
    });
}
