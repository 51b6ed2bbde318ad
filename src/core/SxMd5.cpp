#include "SxMd5.h"

#include "SxException.h"
#include "SxFileIO.h"

#include <openssl/evp.h>

#include <atomic>

namespace {

constexpr const char* UNIT = "src/core/SxMd5";
constexpr int64 PIECE = 1 << 20;

} // namespace

struct SxMd5::Context {
    Context() { require(evp != nullptr); }
    Context(const Context& other) : Context() { require(EVP_MD_CTX_copy_ex(evp.get(), other.evp.get())); }

    static void require(int ok) {
        if (ok != 1) throw SxException("The cryptographic library refuses to compute MD5", UNIT, __LINE__);
    }

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> evp{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

SxMd5::SxMd5(const SxMd5& other) : digest(other.digest), nBytes(other.nBytes) {
    if (other.context) context = SxPtr<Context>::create(*other.context);
}

SxMd5& SxMd5::operator=(const SxMd5& other) {
    SxMd5 copy(other);
    context = copy.context;
    digest = copy.digest;
    nBytes = copy.nBytes;
    return *this;
}

SxString SxMd5::file(const SxString& path, unsigned long long* progress) {
    SxFileIO in(path, "rb");
    unsigned long long nDone = 0;
    const auto addDone = [&](int64 n) {
        nDone += static_cast<unsigned long long>(n);
        if (progress) std::atomic_ref(*progress).store(nDone, std::memory_order_relaxed);
        return true;
    };
    addDone(0);
    return file(&in, addDone);
}

SxString SxMd5::file(SxFileIO* from, const std::function<bool(int64 n)>& step) {
    from->adviseSequential();
    SxArray<char> piece(PIECE);
    SxMd5 md5;
    while (const int64 n = from->readBuffer(piece.data(), PIECE)) {
        md5.update(piece.data(), n);
        if (!step(n)) return {};
    }
    md5.finish();
    return md5.toString();
}

SxString SxMd5::get(const SxString& text) {
    SxMd5 md5;
    const auto n = static_cast<int64>(text.str().size());
    md5.update(text.getElems(), n, n);
    return md5.toString();
}

void SxMd5::initialize() {
    context = SxPtr<Context>::create();
    nBytes = 0;
    Context::require(EVP_DigestInit_ex(context->evp.get(), EVP_md5(), nullptr));
}

void SxMd5::update(const void* bytes, int64 n, int64 total) {
    if (!context) throw SxException("The MD5 digest is finished already", UNIT, __LINE__);
    Context::require(EVP_DigestUpdate(context->evp.get(), bytes, static_cast<size_t>(n)));
    nBytes += n;
    if (total < 0) return;
    if (nBytes != total) {
        throw SxException(SxString("The MD5 digest was fed ") + nBytes + " bytes of " + total, UNIT,
                          __LINE__);
    }
    finish();
}

void SxMd5::finish() {
    if (!context) return;
    Context::require(EVP_DigestFinal_ex(context->evp.get(), digest.data(), nullptr));
    context = nullptr;
}

const SxMd5::Digest& SxMd5::getDigest() const {
    if (context) throw SxException("The MD5 digest isn't finished", UNIT, __LINE__);
    return digest;
}

SxString SxMd5::toString() const {
    static constexpr char HEX[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : getDigest()) {
        text += HEX[byte >> 4];
        text += HEX[byte & 15];
    }
    return text;
}
