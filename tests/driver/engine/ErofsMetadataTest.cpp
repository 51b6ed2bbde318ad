#include "../../../fuzz/support/PiecesReader.h"
#include "ErofsImage.h"
#include "Failure.h"

#include <cstring>
#include <optional>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

namespace {

/// An image as of a maker that writes no checksum, so that it can be changed.
std::string unchecked(std::string raw) {
    constexpr size_t FEATURES = 1024 + 8;
    raw[FEATURES] = static_cast<char>(raw[FEATURES] & ~1);
    return raw;
}

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr uint64 BLOCK = ErofsImage::BLOCK;

enum Order { AsItIs, Reversed, Single, Runs, Files };
constexpr Order ORDERS[] = {AsItIs, Reversed, Single, Runs, Files};

/// The orders of `n` numbers in pieces of `length`.
std::vector<uint64> shuffled(TestRandom& random, uint64 n, uint64 length) {
    std::vector<uint64> result;
    for (const uint64 piece : random.permutation((n + length - 1) / length)) {
        for (uint64 i = piece * length; i < std::min(n, (piece + 1) * length); ++i)
            result.push_back(i);
    }
    return result;
}

/// Each file in one run, and all else after that.
std::vector<uint64> byFiles(TestRandom& random, const ErofsTree& source, uint64 nRaw) {
    std::vector<const ErofsTree::Node*> files;
    for (const auto& [path, node] : source.nodes)
        files.push_back(&node);
    std::vector<uint64> result;
    std::vector<bool> seen(nRaw);
    const auto add = [&](uint64 rawIdx) {
        if (!seen[rawIdx]) result.push_back(rawIdx);
        seen[rawIdx] = true;
    };
    for (const uint64 place : random.permutation(files.size())) {
        for (const ErofsTree::Block& at : files[place]->blocks)
            add(at.block);
    }
    for (uint64 rawIdx = 0; rawIdx < nRaw; ++rawIdx)
        add(rawIdx);
    return result;
}

/// Blocks of zeros aren't stored.
StoredOrder orderOf(Order order, TestRandom& random, const std::string& raw) {
    const uint64 n = raw.size() / BLOCK;
    std::vector<uint64> sequence;
    if (order == Files) {
        sequence = byFiles(random, ErofsTree(raw), n);
    } else {
        sequence = shuffled(random, n, order == Single ? 1 : order == Runs ? 50 : n);
        if (order == Reversed) std::reverse(sequence.begin(), sequence.end());
    }
    const std::string zeros(BLOCK, '\0');
    std::erase_if(sequence, [&](uint64 rawIdx) { return raw.compare(rawIdx * BLOCK, BLOCK, zeros) == 0; });
    return {n, sequence};
}

/// Converts, and compares with the source.
std::string checked(const std::string& raw, const StoredOrder& order) {
    BytesReader reader(raw);
    std::string made = metadataOf(&reader, order);
    ErofsTree(made).requireMadeOf(ErofsTree(raw), order.map);
    return made;
}

/// Everything that a drive may hold.
void makeVaried(const ErofsImage& image, TestRandom& random) {
    uint64 i = 0;
    for (const unsigned size : {0U, 1U, 4095U, 4096U, 4097U, 8192U, 100'000U, 3'000'000U})
        image.write("files/" + std::to_string(i++), random.bytes(size));
    std::string deep;
    for (int depth = 0; depth < 60; ++depth)
        deep += "folder " + std::to_string(depth) + "/";
    image.write(deep + "leaf", random.bytes(5000));
    image.write("names/" + std::string(250, 'n'), "long");
    image.write("names/\u00fcber \u65e5\u672c\u8a9e \U0001F3AE", "utf-8");
    image.write("names/\xff\xfe not utf-8\n", "bytes");
    for (int name = 0; name < 3000; ++name)
        image.write("many/a file, number " + std::to_string(name), name % 3 == 0 ? "" : "x");
    std::string pieces;
    for (int piece = 0; piece < 20; ++piece)
        pieces += random.bytes(8 * BLOCK) + std::string(8 * BLOCK, '\0');
    image.write("holes/between", pieces + "end");
    image.write("holes/only", std::string(100 * BLOCK, '\0'));
    fs::create_directories(image.at("an/empty/folder"));
    fs::create_symlink("files/1", image.at("short"));
    std::string target;
    for (int part = 0; part < 2047; ++part)
        target += "x/";
    fs::create_symlink(target.substr(0, 3000), image.at("long link"));
    fs::create_symlink(target, image.at("a whole block, but for a byte or two"));
    fs::create_hard_link(image.at("files/6"), image.at("linked"));
    fs::create_hard_link(image.at("files/6"), image.at("names/linked, too"));
    fs::permissions(image.at("files/1"), fs::perms(0555));
}

/// Whether the kernel has noted that a part of it has died. Its warnings come from others' tests, too.
bool hasKernelFailed() {
    uint64 marks = 0;
    std::ifstream("/proc/sys/kernel/tainted") >> marks;
    return (marks & 1 << 7) != 0;
}

} // namespace

TEST(ErofsMetadata, EachBlockOfATreeIsAtItsPlace) {
    TestRandom random(21);
    TRACE_SEED(random);
    const ErofsImage varied, empty;
    makeVaried(varied, random);
    fs::last_write_time(varied.at("files/2"), fs::file_time_type::clock::now() - std::chrono::hours(999));
    const std::pair<const char*, std::string> images[] = {
        {"empty", empty.format()},
        {"varied", varied.format()},
        {"with times", varied.format("-x-1 -Enoinline_data,force-inode-extended --force-uid=70000")}};
    EXPECT_EQ(ErofsTree(images[0].second).nodes.size(), 1U);
    for (const auto& [name, raw] : images) {
        for (const Order order : ORDERS) {
            SCOPED_TRACE(testing::Message() << name << ", order " << order);
            checked(raw, orderOf(order, random, raw));
        }
    }
}

TEST(ErofsMetadata, TenThousandFilesKeepTheirBlocks) {
    TestRandom random(22);
    TRACE_SEED(random);
    const ErofsImage image;
    for (int i = 0; i < 10'000; ++i)
        image.write("d" + std::to_string(i % 97) + "/" + std::to_string(i), std::to_string(i));
    const std::string raw = image.format();
    EXPECT_EQ(ErofsTree(raw).nInodes, 10'098U);
    const std::string made = checked(raw, orderOf(Single, random, raw));
    EXPECT_LT(made.size(), raw.size() / 20) << "inodes stand close together";
}

TEST(ErofsMetadata, ASuperblockIsCheckedIfItHasAChecksum) {
    const ErofsImage image;
    image.write("file", std::string(BLOCK, 'x'));
    const std::string right = image.format();
    const StoredOrder order(right.size() / BLOCK);
    for (const size_t at : {size_t{1024 + 5}, size_t{1024 + 50}, size_t{4095}}) {
        SCOPED_TRACE(at);
        std::string raw = right;
        raw[at] = static_cast<char>(raw[at] ^ 4);
        BytesReader checked(raw), free(unchecked(raw));
        EXPECT_THAT(failureOf([&] { metadataOf(&checked, order); }),
                    HasSubstr("another superblock than its checksum says"));
        metadataOf(&free, order);
    }
}

// A compact inode can't tell such a size, and each chunk is as large as it may be.
TEST(ErofsMetadata, AFileOf5GiBHasSixChunks) {
    const ErofsImage image;
    image.write("large", std::string(2 * BLOCK, 'l'));
    std::string raw =
        unchecked(image.format("-x-1 -Enoinline_data,force-inode-extended -T1500000000 --all-root"));
    const uint64 at = ErofsTree(raw).nodes.at("large").number * 32, first = raw.size() / BLOCK;
    const uint64 size = (uint64{5} << 30) + 5, nBlocks = size / BLOCK + 1, chunk = 1 << 18;
    std::memcpy(&raw[at + 8], &size, 8);
    std::memcpy(&raw[at + 16], &first, 4);
    StoredOrder order(first + nBlocks);
    for (uint64 i = 0; i < order.map.size(); ++i) {
        const bool isHole = i < first || (i - first) / chunk == 1;
        order.map[i] = isHole ? ~uint64{0} : i - first;
    }
    order.nStored = nBlocks;
    BytesReader reader(raw, (first + nBlocks) * BLOCK);
    const std::string made = metadataOf(&reader, order);
    const ErofsTree tree(made);
    const ErofsTree::Node& node = tree.nodes.at("large");
    EXPECT_EQ(node.chunk, chunk);
    EXPECT_EQ(node.size, size);
    ASSERT_EQ(node.blocks.size(), nBlocks);
    for (uint64 i = 0; i < nBlocks; ++i) {
        const bool isHole = i / chunk == 1;
        ASSERT_EQ(node.blocks[i].block, isHole ? ErofsTree::Block::HOLE : i) << i;
    }

    if (const std::string why = ErofsMount::whyNot(); !why.empty()) GTEST_SKIP() << why;
    const std::string zqf = image.dir.write("zqf", "begin");
    fs::resize_file(zqf, nBlocks * BLOCK);
    const uint64 places[] = {chunk * BLOCK - 4, chunk * BLOCK, 2 * chunk * BLOCK, uint64{1} << 32, size - 4};
    std::fstream out(zqf, std::ios::binary | std::ios::in | std::ios::out);
    for (const uint64 place : places)
        out.seekp(static_cast<std::streamoff>(place)).write("mark", 4);
    out.close();
    const ErofsMount mount(image.dir.write("meta", made), zqf, image.dir.path("mnt"));
    ASSERT_EQ(mount.error, 0);
    EXPECT_EQ(fs::file_size(mount.folder + "/large"), size);
    std::ifstream in(mount.folder + "/large", std::ios::binary);
    for (const uint64 place : places) {
        std::string bytes(4, '?');
        in.seekg(static_cast<std::streamoff>(place)).read(bytes.data(), 4);
        EXPECT_EQ(bytes, place == chunk * BLOCK ? std::string(4, '\0') : "mark") << place;
    }
}

TEST(ErofsMetadata, TheKernelShowsWhatTheTreeHolds) {
    if (const std::string why = ErofsMount::whyNot(); !why.empty()) GTEST_SKIP() << why;
    TestRandom random(23);
    TRACE_SEED(random);
    const ErofsImage image;
    makeVaried(image, random);
    const std::string raw = image.format();
    const TreeSnapshot expected = TempDir::snapshotOf(image.dir.path("tree"));
    for (const Order order : ORDERS) {
        SCOPED_TRACE(testing::Message() << "order " << order);
        const StoredOrder stored = orderOf(order, random, raw);
        const std::string made = checked(raw, stored), zqf = stored.store(raw);
        const ErofsMount mount(image.dir.write("meta", made), image.dir.write("zqf", zqf),
                               image.dir.path("mnt"));
        ASSERT_EQ(mount.error, 0);
        EXPECT_TRUE(TempDir::snapshotOf(mount.folder) == expected);
        EXPECT_EQ(mount.difference(ErofsTree(made), zqf), "");
    }
}

namespace {

/// Converts images, and has the kernel mount and show what comes out.
struct KernelLook {
    void operator()(const std::string& raw, const StoredOrder& order) {
        BytesReader reader(raw);
        std::string made;
        if (!failureOf([&] { made = metadataOf(&reader, order); }).empty()) {
            ++nRefused;
            return;
        }
        ++nTaken;
        const std::string zqf = order.store(raw);
        const ErofsMount mount(dir.write("meta", made), dir.write("zqf", zqf), dir.path("mnt"));
        ASSERT_EQ(mount.error, 0);
        EXPECT_EQ(mount.difference(ErofsTree(made), zqf), "");
    }

    const TempDir dir{"/var/tmp"};
    uint64 nTaken = 0, nRefused = 0;
};

/// Offsets of bytes that aren't zeros, and aren't the content of files.
std::vector<size_t> metadataBytes(const std::string& raw) {
    std::set<uint64> ofFiles;
    for (const auto& [path, node] : ErofsTree(raw).nodes) {
        for (const ErofsTree::Block& at : node.blocks)
            ofFiles.insert(at.block);
    }
    std::vector<size_t> result;
    for (size_t at = 0; at < raw.size(); ++at) {
        if (raw[at] != 0 && !ofFiles.contains(at / BLOCK)) result.push_back(at);
    }
    return result;
}

} // namespace

TEST(ErofsMetadata, TheKernelTakesWhatSmallImagesGive) {
    if (const std::string why = ErofsMount::whyNot(); !why.empty()) GTEST_SKIP() << why;
    KernelLook look;
    for (const auto& seed : fs::directory_iterator(TAVRIN_SEEDS "/erofs_metadata")) {
        SCOPED_TRACE(seed.path());
        const std::string bytes = TempDir::readFile(seed.path());
        const auto number = [&](size_t at) { return ZqDriveReader::number(bytes, at, 2); };
        const size_t at = 4 + 2 * number(2);
        const PiecesReader pieces(reinterpret_cast<const unsigned char*>(bytes.data()) + at,
                                  bytes.size() - at);
        StoredOrder order(PiecesReader::N_RAW);
        for (uint64 rawIdx = 0; rawIdx < number(2); ++rawIdx) {
            const uint64 place = number(4 + 2 * rawIdx);
            order.map[rawIdx] = place == 0xFFFF ? ~uint64{0} : place;
        }
        order.nStored = number(0);
        look(std::string(pieces.getBytes()), order);
    }
    EXPECT_GE(look.nTaken, 5U);
    EXPECT_GE(look.nRefused, 2U);
}

// What is taken is what the kernel takes: it mounts, and each name can be looked up and read.
TEST(ErofsMetadata, TheKernelTakesWhatAlteredImagesGive) {
    if (const std::string why = ErofsMount::whyNot(); !why.empty()) GTEST_SKIP() << why;
    TestRandom random(24);
    TRACE_SEED(random);
    const bool hadFailed = hasKernelFailed();
    const ErofsImage image;
    for (int i = 0; i < 150; ++i)
        image.write("f" + std::to_string(i % 3) + "/" + std::to_string(i), random.bytes(random.below(9000)));
    fs::create_symlink("f1/1", image.at("link"));
    fs::create_hard_link(image.at("f1/1"), image.at("linked"));
    const std::string right = unchecked(image.format("-x-1 -Enoinline_data"));
    const StoredOrder order = orderOf(Single, random, right);
    const std::vector<size_t> metadata = metadataBytes(right);
    KernelLook look;
    for (int round = 0; round < 150; ++round) {
        std::string raw = right;
        for (uint64 n = random.between(1, 2); n > 0; --n) {
            char* const byte = &raw[metadata[random.below(metadata.size())]];
            *byte = static_cast<char>(random.chance(0.5) ? *byte ^ (1 << random.below(8))
                                                         : static_cast<int>(random.below(256)));
        }
        SCOPED_TRACE("round " + std::to_string(round));
        look(raw, order);
    }
    EXPECT_GT(look.nTaken, 30U);
    EXPECT_GT(look.nRefused, 30U);
    EXPECT_EQ(hasKernelFailed(), hadFailed);
}

namespace {

/// A small image, its numbers to be altered one by one.
struct Lies {
    explicit Lies(const char* options = ErofsImage::BUILD) {
        image.write("dir/file", std::string(3 * BLOCK, 'f'));
        image.write("dir/fill", std::string(BLOCK, 'o'));
        image.write("sub/deep/x", "x");
        for (const char name : {'a', 'b', 'c'})
            image.write("long/" + std::string(100, name), "");
        fs::create_hard_link(image.at("dir/file"), image.at("link to file"));
        fs::create_symlink("dir/file", image.at("symbolic"));
        fs::create_symlink("dir/file", image.at("symbolic too"));
        right = unchecked(image.format(options));
        tree.emplace(right);
    }
    uint64 number(const std::string& path) const { return tree->nodes.at(path).number; }
    uint64 read(size_t at, size_t n) const { return ZqDriveReader::number(right, at, n); }
    size_t inode(const std::string& path) const { return number(path) * 32; }
    /// An entry of a folder, which follows its inode: ".", "..", and the others as they are sorted.
    size_t entry(const std::string& folder, size_t index) const { return inode(folder) + 32 + 12 * index; }
    size_t name(const std::string& folder, size_t index) const {
        return inode(folder) + 32 + read(entry(folder, index) + 8, 2);
    }

    const ErofsImage image;
    std::string right;
    std::optional<ErofsTree> tree;
};

struct Lie {
    size_t at, n; ///< bytes
    uint64 value;
    const char* says;
};

std::string refusalOf(const std::string& raw, const StoredOrder& order) {
    BytesReader reader(raw);
    return failureOf([&] { metadataOf(&reader, order); });
}

void tell(const Lies& lies, const std::vector<Lie>& all) {
    const StoredOrder order(lies.right.size() / BLOCK);
    ASSERT_EQ(refusalOf(lies.right, order), "");
    for (const Lie& lie : all) {
        SCOPED_TRACE(testing::Message() << lie.at << " is " << lie.value);
        std::string raw = lies.right;
        std::memcpy(&raw[lie.at], &lie.value, lie.n);
        const std::string says = refusalOf(raw, order);
        EXPECT_THAT(says, HasSubstr(lie.says));
        EXPECT_THAT(says, HasSubstr("'img.raw'"));
    }
}

} // namespace

TEST(ErofsMetadata, EachLieOfAnImageIsTold) {
    const Lies lies;
    constexpr size_t SUPER = 1024;
    constexpr const char* FEATURES = "has features that its metadata alone can't have";
    constexpr const char* FOLDER = "isn't what its folder says";
    const size_t root = lies.inode(""), file = lies.inode("dir/file"), link = lies.inode("symbolic");
    const uint64 fill = lies.read(lies.inode("dir/fill") + 16, 4);
    // In the root's folder: ".", "..", "dir", "link to file", "long", "sub", "symbolic", "symbolic too".
    tell(lies,
         {{SUPER + 12, 1, 13, "holds no EROFS with blocks of 4096 bytes"},
          {SUPER + 13, 1, 1, FEATURES},
          {SUPER + 32, 4, 1'000'000'000, "states no time"},
          {SUPER + 80, 4, 0x80, "features that aren't known"},
          {SUPER + 80, 4, 0x20, FEATURES},
          {SUPER + 86, 2, 1, FEATURES},
          {SUPER + 90, 1, 1, FEATURES},
          {file, 2, 1 << 1, "is stored in a way that isn't known"},
          {file, 2, 1 << 4, "is stored in a way that isn't known"},
          {file, 2, 2 << 1, "has a whole block for the part of one"},
          {file + 2, 2, 1, "has extended attributes at inode"},
          {file + 4, 2, 0x01A4, FOLDER},
          {file + 6, 2, 0, "counts no names of inode"},
          {file + 8, 4, 0xFFFFFFFF, "lie beyond its"},
          {file + 16, 4, lies.right.size() / BLOCK - 2, "lie beyond its"},
          {file + 16, 4, fill - 2, "and elsewhere"},
          {file + 28, 4, 1, "has something that isn't known in inode"},
          {link + 4, 2, 0x21B6, "is neither file, folder nor link"},
          {link + 8, 4, 0, "has a link with a target of 0 bytes"},
          {link + 8, 4, 70, "within another one"},
          {link + 8, 4, 4095, "that crosses the end of a block"},
          {root + 8, 4, 0, "doesn't name itself and its parent"},
          {lies.entry("", 0), 8, lies.number("dir"), "has '.' in a folder"},
          {lies.entry("", 1), 8, lies.number("sub"), "has '..' in a folder"},
          {lies.entry("dir", 1), 8, lies.number("dir"), "has '..' in a folder"},
          {lies.entry("dir", 1), 8, 1, "names inode 1, which there isn't"},
          {lies.entry("dir", 1) + 10, 1, 1, "has '..' in a folder"},
          {lies.entry("sub/deep", 2), 8, lies.number("sub"), "as two kinds of things"},
          {lies.entry("sub", 2), 8, lies.number(""), "folder 'sub/deep' has another name, too"},
          {lies.entry("sub", 2), 8, lies.number("sub"), "folder 'sub/deep' has another name, too"},
          {lies.entry("", 3) + 10, 1, 2, FOLDER},
          {lies.entry("", 3) + 10, 1, 7, "as two kinds of things"},
          {lies.entry("", 6) + 10, 1, 3, "has 'symbolic' in a folder"},
          {lies.entry("dir", 2), 8, ~uint64{0}, "lies beyond it"},
          {lies.entry("dir", 2), 8, lies.number("dir"), "as two kinds of things"},
          {lies.entry("long", 3) + 8, 2, lies.read(lies.entry("long", 3) + 8, 2) + 160, "a name has 260"},
          {lies.name("", 2), 1, '/', "has a name that is none"},
          {lies.name("", 2), 1, 0, "has a name that is none"},
          {lies.name("", 2), 1, 'z', "the names of a folder aren't in their order"},
          {lies.name("dir", 3) + 2, 2, 'l' | 'e' << 8, "the names of a folder aren't in their order"}});
}

TEST(ErofsMetadata, EachLieOfALongInodeIsTold) {
    const Lies lies("-x-1 -Enoinline_data,force-inode-extended");
    const size_t file = lies.inode("dir/file");
    tell(lies, {{file + 6, 2, 1, "has something that isn't known in inode"},
                {file + 48, 8, uint64{1} << 63, "has something that isn't known in inode"},
                {file + 56, 8, uint64{1} << 63, "has something that isn't known in inode"},
                {file + 40, 4, 1'000'000'000, "states no time at inode"},
                {file + 44, 4, 0, "counts no names of inode"},
                {file + 8, 8, (uint64{1} << 63) - 1, "lie beyond its"},
                {file + 8, 8, uint64{1} << 63, "lie beyond its"},
                {file + 8, 8, ~uint64{0}, "lie beyond its"},
                {file, 2, 2 << 1 | 1, "has a whole block for the part of one"}});
}

// What tools make when they are left to themselves, and what no game holds.
TEST(ErofsMetadata, WhatTheMakerDoesntWriteIsRefused) {
    const auto refusal = [](const std::string& options, const std::function<void(const ErofsImage&)>& make) {
        const ErofsImage image;
        image.write("file", std::string(50'000, 'x'));
        make(image);
        const std::string raw = image.format(options);
        return refusalOf(raw, StoredOrder(raw.size() / BLOCK));
    };
    const auto nothing = [](const ErofsImage&) {};
    EXPECT_EQ(refusal(ErofsImage::BUILD, nothing), "");
    EXPECT_THAT(refusal("-x-1 -zlz4", nothing), HasSubstr("has features that its metadata alone can't have"));
    EXPECT_THAT(refusal("-x-1", nothing), HasSubstr("has content of a file beside inode"));
    EXPECT_THAT(refusal("-Enoinline_data",
                        [](const ErofsImage& image) {
                            ASSERT_EQ(::setxattr(image.at("file").c_str(), "user.note", "n", 1, 0), 0);
                        }),
                HasSubstr("has extended attributes at inode"));
    constexpr const char* NEITHER = "has something that is neither file, folder nor link, inode";
    const auto node = [](mode_t mode) {
        return [mode](const ErofsImage& image) {
            ASSERT_EQ(::mknod(image.at("node").c_str(), mode | 0600, makedev(1, 3)), 0);
        };
    };
    EXPECT_THAT(refusal(ErofsImage::BUILD, node(S_IFIFO)), HasSubstr(NEITHER));
    EXPECT_THAT(refusal(ErofsImage::BUILD, node(S_IFSOCK)), HasSubstr(NEITHER));
    if (::geteuid() != 0) return;
    EXPECT_THAT(refusal(ErofsImage::BUILD, node(S_IFCHR)), HasSubstr(NEITHER));
    EXPECT_THAT(refusal(ErofsImage::BUILD, node(S_IFBLK)), HasSubstr(NEITHER));
}

TEST(ErofsMetadata, AMapThatDoesntFitIsRefused) {
    const Lies lies;
    const uint64 n = lies.right.size() / BLOCK;
    const uint64 last = lies.tree->nodes.at("dir/file").blocks.back().block;
    StoredOrder order(n);
    std::swap(order.map[last], order.map[n - 1]);
    order.nStored = n - 1;
    const std::string at = "RAW block " + std::to_string(last) + " at ZqF block " + std::to_string(n - 1);
    EXPECT_THAT(refusalOf(lies.right, order), HasSubstr(at));
    order.map[last] = ~uint64{0};
    EXPECT_EQ(refusalOf(lies.right, order), "") << "what isn't a file's needn't be stored";
    order.nStored = 0xFFFFFFFF;
    EXPECT_THAT(refusalOf(lies.right, order), HasSubstr("lies in more blocks than it can have"));
    EXPECT_THAT(refusalOf(lies.right, StoredOrder(n - 1)), HasSubstr("blocks, and its map"));
}

// The image is a file of the player, who may write to it at any time.
TEST(ErofsMetadata, AnImageThatChangesMeanwhileDoesNoHarm) {
    const Lies lies;
    const StoredOrder order(lies.right.size() / BLOCK);
    const StoredMap map(order);
    std::string made;
    const auto change = [&](size_t at, size_t n, uint64 value) {
        made.clear();
        BytesReader reader(lies.right);
        ErofsMetadata metadata(&reader, map, order.nStored);
        std::memcpy(&reader.bytes[at], &value, n);
        reader.read(reader.getSize() - 1, 1); // so that it keeps no other block
        return failureOf([&] { metadata.write([&](const std::string& part) { made += part; }); });
    };
    ASSERT_EQ(change(0, 1, 0), "");
    const std::string right = made;
    for (const char* path : {"dir/file", "dir", "symbolic", ""}) {
        for (const unsigned field : {0U, 2U, 4U, 6U, 8U, 16U}) {
            EXPECT_EQ(change(lies.inode(path) + field, 2, 0xFFFF), "") << path << ", " << field;
            EXPECT_TRUE(made == right) << path << ", " << field;
        }
    }
    EXPECT_THAT(change(lies.entry("dir", 2), 8, lies.number("dir")), HasSubstr("has 'file' in a folder"));
    EXPECT_THAT(change(lies.entry("sub", 2), 8, lies.number("")), HasSubstr("has 'deep' in a folder"));
    EXPECT_THAT(change(lies.entry("sub", 2), 8, lies.number("long")), HasSubstr("has 'deep' in a folder"));
    EXPECT_THAT(change(lies.entry("dir", 2), 8, 1), HasSubstr("names inode 1, which there isn't"));
    EXPECT_THAT(change(lies.inode("symbolic") + 33, 1, 0), HasSubstr("target has a NUL"));
    EXPECT_THAT(change(lies.entry("dir", 0) + 8, 2, 60'000), HasSubstr("a folder isn't one"));
}
