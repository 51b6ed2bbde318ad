#pragma once

#include "SxPtr.h"
#include "SxString.h"

#include <array>
#include <functional>

class SxFileIO;

/// MD5 digest (RFC 1321), the checksum of the image formats; no protection against forgery. A new object is
/// ready for the first piece. A value type. Not locked.
class SxMd5 {
public:
    /// The 16 bytes of a digest as files keep them.
    using Digest = std::array<unsigned char, 16>;

    SxMd5() { initialize(); }
    SxMd5(const SxMd5& other);
    SxMd5& operator=(const SxMd5& other);
    ~SxMd5() = default;
    /// A finished digest that was read from a file.
    explicit SxMd5(const Digest& finished) : digest(finished) {}

    /// Digest of a file. The number of bytes done is put in `*progress` unless that is null; another thread
    /// may look at it there atomically.
    static SxString file(const SxString& path, unsigned long long* progress = nullptr);
    /// Digest of what an open file has from its place to its end. `step` is told after each piece how many
    /// bytes that had, and may end it with false: the text is empty then.
    static SxString file(SxFileIO* from, const std::function<bool(int64 n)>& step);
    static SxString get(const SxString& text);

    /// Begins a new digest.
    void initialize();
    /// Takes the next `n` bytes. `total` is -1, or, with the last piece, the number of all bytes, which
    /// finishes the digest. Raises where `total` isn't what was taken, and after the last piece.
    void update(const void* bytes, int64 n, int64 total = -1);
    /// Finishes the digest where the last piece wasn't known as such; does nothing where it is finished.
    void finish();
    /// The digest's bytes. Raises while it isn't finished.
    const Digest& getDigest() const;
    /// 32 lower-case hexadecimal digits. Raises while the digest isn't finished.
    SxString toString() const;

    /// Whether two finished digests are the same.
    friend bool operator==(const SxMd5& a, const SxMd5& b) { return a.getDigest() == b.getDigest(); }

private:
    struct Context;

    SxPtr<Context> context; // null once it is finished
    Digest digest{};
    int64 nBytes = 0;
};
