#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

struct Vector {
    const char* text;
    const char* digest;
};

// RFC 1321, A.5
constexpr Vector VECTORS[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

class Md5File : public testing::Test {
protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "md5-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    void TearDown() override { SxFSAction::rm_r(folder); }

    SxString folder;
};

TEST(Md5, KnownDigestsInOneAndInPieces) {
    for (const Vector& v : VECTORS) {
        SCOPED_TRACE(v.text);
        const std::string text = v.text;
        const auto n = static_cast<int64>(text.size());
        EXPECT_EQ(SxMd5::get(text), v.digest);
        for (int64 split = 0; split <= n; ++split) {
            SxMd5 pieces;
            pieces.update(text.data(), split);
            pieces.update(text.data() + split, n - split, n);
            EXPECT_EQ(pieces.toString(), v.digest) << "split at " << split;
        }
    }
}

TEST(Md5, StateIsKept) {
    SxMd5 md5;
    md5.update("ab", 2);
    EXPECT_THROW(md5.toString(), SxException);
    SxMd5 copy(md5);
    md5.update("c", 1);
    md5.finish();
    md5.finish();
    EXPECT_EQ(md5.toString(), VECTORS[2].digest);
    EXPECT_THROW(md5.update("d", 1), SxException);
    EXPECT_THROW(copy.update("c", 1, 4), SxException) << "the whole length is 3";

    SxMd5 stored(md5.getDigest());
    EXPECT_TRUE(stored == md5);
    copy = stored;
    EXPECT_EQ(copy.toString(), VECTORS[2].digest);
    copy.initialize();
    copy.update("a", 1, 1);
    EXPECT_TRUE(copy != md5);
    EXPECT_EQ(copy.toString(), VECTORS[1].digest);
}

TEST_F(Md5File, FileEqualsText) {
    const SxString path = folder + "/data";
    // The file is read in pieces of 1 MiB.
    for (const size_t n : {size_t(0), size_t(1), size_t(1 << 20), size_t((2 << 20) + 5)}) {
        SCOPED_TRACE(n);
        std::string bytes(n, '\0');
        for (size_t i = 0; i < n; ++i)
            bytes[i] = static_cast<char>(i * 7 + (i >> 8));
        SxFileIO out(path, "wb");
        out.writeBuffer(bytes.data(), static_cast<int64>(n));
        out.close();
        unsigned long long progress = 99;
        EXPECT_EQ(SxMd5::file(path, &progress), SxMd5::get(bytes));
        EXPECT_EQ(progress, n);
        EXPECT_EQ(SxMd5::file(path, nullptr), SxMd5::get(bytes));
    }
    EXPECT_THROW(SxMd5::file(folder + "/none"), SxException);
}

} // namespace
