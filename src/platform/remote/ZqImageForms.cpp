#include "ZqImageForms.h"

#include "ZqFrameDecoder.h"
#include "ZqImageFiles.h"
#include "ZqPackedForm.h"
#include "ZqRangeReader.h"
#include "ZqTableLoader.h"
#include "ZqUrlText.h"

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqImageForms";

SxException wrong(const SxString& text, int line) {
    return SxException(SxString(ZqNetLink::WRONG), text, UNIT, line);
}

} // namespace

ZqImageForms::ZqImageForms(const SxPtr<ZqNetLink>& link, const SxString& folderUrl, uint64 sizeZqf,
                           const SxArray<SxString>& headers, const SxString& digest_,
                           const std::function<void()>& onOtherTable)
    : layout(sizeZqf),
      plain(SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(folderUrl, ZqImageFiles::ZQF), headers,
                                        sizeZqf)),
      packed(
          SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(folderUrl, ZqImageFiles::PACKED), headers)),
      digest(digest_),
      choice(link, packed->getUrl(), onOtherTable),
      loader(std::make_unique<ZqTableLoader>(packed, sizeZqf, digest, &choice)) {
    packed->getFacts()->allowAbsence();
}

ZqImageForms::~ZqImageForms() = default;

bool ZqImageForms::open() {
    if (!choice.begin()) return false;
    try {
        loader->start();
    } catch (const SxException&) {
        choice.abandon();
        throw;
    }
    return true;
}

void ZqImageForms::setHeaders(const SxArray<SxString>& headers) {
    plain->setHeaders(headers);
    packed->setHeaders(headers);
}

void ZqImageForms::setSameTest(const ZqFileFacts::SameTest& test) {
    plain->getFacts()->setSameTest(test);
    packed->getFacts()->setSameTest(test);
}

void ZqImageForms::doubtServer() {
    plain->getFacts()->doubtFirst();
    packed->getFacts()->doubtFirst();
}

void ZqImageForms::requireRanges(const ZqStopTest& stop) {
    if (!plain->getFacts()->mayLackRanges()) return;
    // Beside the stream, which brings what a start waits for.
    const uint64 sizeZqf = layout.getSizeZqf();
    ZqRangeReader reader(*plain, sizeZqf - 1, sizeZqf, ZqTransfer::Kind::Ahead);
    reader.setTries(1);
    char last = 0;
    try {
        plain->finish(&reader, 1, &last, stop);
    } catch (const SxException& e) {
        // A server that is away tells nothing, and the stream waits for it.
        if (!e.hasTag(ZqNetLink::UNREACHABLE) && !e.hasTag(ZqNetLink::BROKEN)) throw;
    }
}

void ZqImageForms::forgetServer() {
    plain->getFacts()->forget();
    packed->getFacts()->forget();
    choice.forgetAbsence();
}

bool ZqImageForms::isOfThisImage(const SxArray<char>& front) const {
    return ZqPackedForm::mayBeOf(digest, front.data(), front.getSize());
}

ZqImageForms::Bytes ZqImageForms::decode(uint64 stretchIdx, const char* frame, uint64 n,
                                         const Table& known) const {
    const auto size = static_cast<int64>(layout.sizeOf(stretchIdx));
    auto bytes = Bytes::create(size);
    uint32 checksum = 0;
    try {
        checksum = ZqFrameDecoder::decode(frame, static_cast<int64>(n), bytes->data(), size);
    } catch (const SxException& e) {
        throw wrong(e.toString(SxException::ShowMessage, ": "), __LINE__);
    }
    if (known && known->hasChecksums() && known->getFrame(stretchIdx).checksum != checksum) {
        throw wrong("Its bytes aren't those of the seek table's checksum", __LINE__);
    }
    return bytes;
}

ZqImageForms::Table ZqImageForms::checkPlain(uint64 stretchIdx, const SxArray<char>& bytes,
                                             const ZqStopTest& stop) {
    const Table known = choice.awaitSoon(stop);
    if (!known || !known->hasChecksums()) return nullptr;
    if (known->isRight(stretchIdx, bytes)) return known;
    distrust(stretchIdx);
    throw wrong("Its bytes aren't those of the seek table's checksum", __LINE__);
}

SxString ZqImageForms::nameOf(uint64 stretchIdx, bool isFrame) const {
    return isFrame
               ? "Frame " + SxString(stretchIdx) + " of '" + ZqUrlText::of(packed->getUrl()) + "' is damaged"
               : "Stretch " + SxString(stretchIdx) + " of '" + ZqUrlText::of(plain->getUrl()) + "' is wrong";
}

void ZqImageForms::distrust(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    distrusted.insert(stretchIdx);
}

bool ZqImageForms::isDistrusted(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return distrusted.contains(stretchIdx);
}

void ZqImageForms::trust(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    distrusted.erase(stretchIdx);
}

void ZqImageForms::trustBefore(uint64 endIdx) {
    SxMutexBlock lock(&mutex);
    distrusted.erase(distrusted.begin(), distrusted.lower_bound(endIdx));
}
