#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxString.h"
#include "ZqNetLink.h"
#include "ZqTransfer.h"

#include <condition_variable>
#include <vector>

/// What is known of a file on a server, and whether a response fits to that. Shared by the requests for the
/// file, which may outlive whoever made them. Safe from any thread.
///
/// A server tells a version of a file by ETag, Last-Modified or both (RFC 9110). Like is compared with like:
/// ETags where both answers have one, whether weak or strong, else times. The mirrors of a file, and a cache
/// in front of it, may tell other ones of the same bytes. So where they differ, or have no kind in common,
/// that decides nothing by itself. The size decides, and whoever can tell whether the file is still the same
/// (setSameTest(), which fetches `app.json` again). The answer that has raised the doubt is thrown away, and
/// the request made again.
///
/// `If-Range` isn't used: the validators of an answer tell the same before its first byte, and a mirror with
/// another ETag would send the whole file.
///
/// A redirect is followed once, and later requests go where it has led. Where nothing answers there it is
/// forgotten, since the first address may lead elsewhere by then. A refusal, or a 404, of a target of a
/// redirect never says that the server hasn't got the file or doesn't give it.
class ZqFileFacts {
public:
    static constexpr uint64 UNKNOWN = ~uint64{0};
    /// Tag of an answer that settle() must decide about.
    static constexpr const char* DOUBTFUL = "Doubtful";
    /// Whether what the file belongs to is the same on the server as when it was begun with. Asks the
    /// network; raises where that can't be told now.
    using SameTest = std::function<bool(const ZqStopTest& stop)>;

    ZqFileFacts(const SxString& url_, const SxArray<SxString>& headers_, uint64 expectedSize_)
        : url(url_),
          expectedSize(expectedSize_),
          headers(headers_) {}

    const SxString& getUrl() const noexcept { return url; }
    /// Bytes, as the server says; UNKNOWN before its first answer.
    uint64 getSize() const;
    /// The same, or what the file must have.
    uint64 getDueSize() const;
    void setHeaders(const SxArray<SxString>& headers_);
    /// The test mustn't keep the link alive: what is known of a file lives as long as its requests, and the
    /// last of these goes on the network's own thread, which can't end the link.
    void setSameTest(const SameTest& test);
    /// Already the first response is doubted, and nothing taken of it until settle() has told that it is the
    /// same file.
    void doubtFirst();
    /// The file may be missing: a 403 tells that, too, as from stores that don't list their files. Its
    /// failure has the tags NOT_FOUND and REFUSED, since it may as well be a refusal that passes. For other
    /// files a 403 is a refusal.
    void allowAbsence();

    /// Where requests go now, with the headers that may go there.
    struct Address {
        SxString url;
        SxArray<SxString> headers;
    };
    Address getAddress() const;
    /// The next request goes to the first address, if `asked` is where a redirect has led; false if not.
    bool leave(const SxString& asked);
    /// The next response is the first again.
    void forget();

    /// Raises where `response` to a request to `asked` isn't 200 or 206, or has an encoded body.
    void checkStatus(const ZqTransfer::Response& response, const SxString& asked);
    /// Takes what a response says of the file, or raises where it says something else than before: with the
    /// tag DOUBTFUL where settle() can tell more. Gives the number of the version that it tells of. With
    /// `isVouched` settle() has just been asked for it.
    int64 learn(const ZqTransfer::Response& response, bool isVouched);
    /// An answer has come, the whole file or a range.
    void noteForm(bool isWhole);
    /// Whether only the whole file has come so far, so that the server may have no ranges.
    bool mayLackRanges() const;
    /// Whether an answer has come that tells the version of the file.
    bool hasValidator() const;
    /// Raises where the file hasn't `total` bytes.
    void learnSize(uint64 total);
    /// Asks whether the file is the same in spite of the doubts so far, and raises where it isn't: with the
    /// tag CHANGED where what it belongs to has changed, WRONG where only its size differs. False where
    /// another thread has settled them all: what it found doesn't vouch for this one's answer, which has to
    /// be asked for again. Not on the network thread.
    bool settle(const ZqStopTest& stop);

private:
    struct Version {
        SxString eTag, lastModified; ///< the ETag without what marks a weak one
        int64 number = 0;
        bool operator==(const Version& other) const {
            return eTag == other.eTag && lastModified == other.lastModified;
        }
    };
    struct Doubt {
        Version version;
        SxString text;
        bool isOfSize = false;
    };
    static constexpr size_t MAX_VERSIONS = 64; ///< a bound for servers that tell another one each time

    [[noreturn]] void raiseDoubt(Doubt doubt, const char* tag) SX_REQUIRES(mutex);
    void checkSize(uint64 total) SX_REQUIRES(mutex);
    const Version* find(const Version& seen, bool* isComparable) const SX_REQUIRES(mutex);
    int64 accept(Version version, int64 number) SX_REQUIRES(mutex);

    const SxString url;
    const uint64 expectedSize;
    mutable SxMutex mutex;
    std::condition_variable_any settled;
    SxArray<SxString> headers SX_GUARDED_BY(mutex);
    SxString finalUrl SX_GUARDED_BY(mutex); ///< where redirects have led; empty where they led nowhere else
    uint64 size SX_GUARDED_BY(mutex) = UNKNOWN;
    bool isOptional SX_GUARDED_BY(mutex) = false;
    SameTest isSame SX_GUARDED_BY(mutex);
    std::vector<Version> versions SX_GUARDED_BY(mutex); ///< all that stand for the same bytes
    bool isFirstDoubted SX_GUARDED_BY(mutex) = false;
    int64 nVersions SX_GUARDED_BY(mutex) = 0;
    bool hasGivenWhole SX_GUARDED_BY(mutex) = false, hasGivenRange SX_GUARDED_BY(mutex) = false;
    std::vector<Doubt> doubts SX_GUARDED_BY(mutex);
    bool isSettling SX_GUARDED_BY(mutex) = false;
};
