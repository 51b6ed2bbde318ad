#include "SxException.h"
#include "SxMd5.h"
#include "TempDir.h"

#include <gtest/gtest.h>

TEST(Md5, KnownDigestsInOneAndInPieces) {
    // RFC 1321, A.5; that of 80 bytes is longer than one block.
    const std::pair<std::string, const char*> cases[] = {
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [text, digest] : cases) {
        const auto n = static_cast<int64>(text.size());
        EXPECT_EQ(SxMd5::get(text), digest);
        for (int64 split = 0; split <= n; ++split) {
            SxMd5 pieces;
            pieces.update(text.data(), split);
            pieces.update(text.data() + split, n - split, n);
            EXPECT_EQ(pieces.toString(), digest) << text << " split at " << split;
            EXPECT_THROW(pieces.update("d", 1), SxException) << "it has ended";
        }
    }
    EXPECT_THROW(SxMd5().update("c", 1, 0), SxException) << "longer than the whole";
}

TEST(Md5, FileEqualsText) {
    const TempDir dir;
    // The file is read in pieces of 1 MiB.
    for (const size_t n : {size_t{0}, size_t{1} << 20, (size_t{2} << 20) + 5}) {
        std::string bytes(n, '\0');
        for (size_t i = 0; i < n; ++i)
            bytes[i] = static_cast<char>(i * 7 + (i >> 8));
        unsigned long long progress = 99;
        EXPECT_EQ(SxMd5::file(dir.write("data", bytes), &progress), SxMd5::get(bytes)) << n;
        EXPECT_EQ(progress, n);
    }
    EXPECT_THROW(SxMd5::file(dir.path("none")), SxException);
}
