#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqArchive.h"
#include "ZqFastPatch.h"
#include "ZqImage.h"
#include "ZqImageCheck.h"
#include "ZqImageParams.h"
#include "ZqPatchBuilder.h"
#include "ZqPatchCheck.h"
#include "ZqPatchInfo.h"
#include "ZqPatchParams.h"
#include "ZqStreamRecord.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr uint64 BLOCK = TestImage::BLOCK;
constexpr uint64 NONE = ~uint64{0};
using Compression = ZqPatchCompression;
using Disk = std::vector<std::string>; ///< blocks by RAW index; an empty one isn't included

/// Gives whether the real tools are there.
bool useTools() {
    const char* bin = std::getenv("TAVRIN_BIN");
    if (!bin) return false;
    const fs::path folder = fs::path(bin).parent_path();
    ZqSysEnv::setRTERootDir(folder.string());
    return fs::exists(folder / "hdiffz") && fs::exists(folder / "hpatchz");
}

/// Writes an image of the blocks in a random order, with some slots that nothing uses.
void writeImage(const TempDir& dir, const std::string& name, const Disk& disk, const std::string& guid,
                TestRandom& random, uint64 nHoles = 0) {
    TestImage image(random, 0);
    const auto n = static_cast<int64>(disk.size());
    image.map.resize(n);
    image.map.set(NONE);
    uint64 nSlots = 0;
    for (const std::string& block : disk) {
        image.raw += block.empty() ? std::string(BLOCK, '\0') : block;
        nSlots += block.empty() ? 0 : 1;
    }
    nSlots = std::min<uint64>(nSlots + nHoles, disk.size());
    image.zqf = random.bytes(nSlots * BLOCK);
    const SxArray<uint64> slots = random.permutation(nSlots);
    int64 next = 0;
    for (uint64 item = 0; item < disk.size(); ++item) {
        if (disk[item].empty()) continue;
        image.map(static_cast<int64>(item)) = slots(next);
        image.zqf.replace(slots(next++) * BLOCK, BLOCK, disk[item]);
    }
    image.guid = SxString(guid);
    image.write(SxString(dir.path(name + "/")));
    ZqAppParams app(SxString(dir.path(name + "/")));
    app.checksumMnt = SxMd5::get(SxString(image.raw));
    app.loadprofile = {ZqLoadProfilePoint{7, 7}};
    app.sizeMnt = BLOCK;
    app.write();
}

Disk readImage(const std::string& folder) {
    const SxArray<uint64> map = ZqImage(SxString(folder)).getMap();
    std::string zqf = TempDir::readFile(folder + "img.zqf");
    Disk disk;
    for (const uint64 slot : map)
        disk.push_back(slot == NONE ? "" : zqf.substr(slot * BLOCK, BLOCK));
    return disk;
}

std::string create(const TempDir& dir, const std::string& older, const std::string& newer,
                   const std::string& patch, Compression::Type compression) {
    ZqPatchBuilder job(dir.path(older), dir.path(newer), dir.path(patch), {compression, 1, 16, 40});
    const std::string failure = failureOf(job);
    EXPECT_EQ(job.isComplete(), failure.empty());
    return failure;
}

std::string apply(const TempDir& dir, const std::string& image, const std::string& patch) {
    ZqFastPatch job(SxString(dir.path(image)), SxString(dir.path(patch)), 1);
    job.runtimeInfo = SxPtr<ZqRuntimeInfo>::create();
    return failureOf(job);
}

void flip(const std::string& file) {
    std::string bytes = TempDir::readFile(file);
    bytes[bytes.size() / 2] ^= 1;
    std::ofstream(file, std::ios::binary) << bytes;
}

/// Makes the next version of a disk, in all the ways in which versions differ.
class Versions {
public:
    explicit Versions(TestRandom& random_) : random(random_) {}

    Disk first(uint64 n) {
        Disk disk;
        for (uint64 i = 0; i < n; ++i)
            disk.push_back(random.chance(0.1) ? "" : random.bytes(BLOCK));
        for (uint64 i = 0; i < n / 10; ++i)
            disk[random.below(n)] = disk[random.below(n)];
        return disk;
    }

    Disk next(Disk disk) {
        using Change = void (Versions::*)(Disk*);
        for (const Change change : {&Versions::grow, &Versions::shrink, &Versions::edit, &Versions::insert,
                                    &Versions::shuffle, &Versions::copy, &Versions::leaveOut})
            if (random.chance(0.4)) (this->*change)(&disk);
        return disk;
    }

private:
    uint64 any(const Disk& disk) { return random.below(disk.size()); }
    auto at(Disk* disk) { return disk->begin() + static_cast<std::ptrdiff_t>(any(*disk)); }

    void grow(Disk* disk) {
        for (uint64 n = random.below(40); n > 0; --n)
            disk->insert(at(disk), random.bytes(BLOCK));
    }
    void shrink(Disk* disk) {
        const auto n = static_cast<std::ptrdiff_t>(random.below(disk->size() / 3 + 1));
        const auto first = disk->begin() + static_cast<std::ptrdiff_t>(random.below(disk->size() / 2 + 1));
        disk->erase(first, first + n);
    }
    void edit(Disk* disk) {
        for (uint64 n = random.below(30); n > 0; --n) {
            std::string& block = (*disk)[any(*disk)];
            if (!block.empty()) block.replace(random.below(BLOCK - 9), 9, random.bytes(9));
        }
    }
    /// Bytes, so that all after them are shifted.
    void insert(Disk* disk) {
        const uint64 first = random.below(disk->size() / 2 + 1), n = random.below(disk->size() / 2 + 1);
        std::string carry = random.bytes(random.between(1, BLOCK - 1));
        for (uint64 i = first; i < first + n; ++i) {
            std::string& block = (*disk)[i];
            if (block.empty()) continue;
            const std::string whole = carry + block;
            block = whole.substr(0, BLOCK);
            carry = whole.substr(BLOCK);
        }
    }
    void shuffle(Disk* disk) {
        for (uint64 n = random.below(disk->size()); n > 0; --n)
            std::swap((*disk)[any(*disk)], (*disk)[any(*disk)]);
    }
    void copy(Disk* disk) {
        for (uint64 n = random.below(30); n > 0; --n)
            (*disk)[any(*disk)] = (*disk)[any(*disk)];
    }
    void leaveOut(Disk* disk) {
        for (uint64 n = random.below(30); n > 0; --n)
            (*disk)[any(*disk)].clear();
    }

    TestRandom& random;
};

// Whatever has changed, the patched image includes just the blocks of the new version, also where its player
// has re-ordered it, and after one version more.
TEST(PatchBuilder, APatchedImageIsTheNewVersion) {
    if (!useTools()) GTEST_SKIP() << "the tools hdiffz and hpatchz aren't there";
    constexpr Compression::Type KINDS[] = {Compression::ZSTD, Compression::LZMA, Compression::RAW,
                                           Compression::REPLACE};
    for (uint64 round = 0; round < 24 && !testing::Test::HasFailure(); ++round) {
        TestRandom random(900 + round);
        TRACE_SEED(random);
        const TempDir dir;
        Versions versions(random);
        Disk disk = versions.first(random.between(6, 300));
        writeImage(dir, "v0", disk, "version 0", random, random.below(9));
        writeImage(dir, "other", disk, "version 0", random);
        fs::copy(dir.path("v0"), dir.path("image"));
        for (int version = 1; version < 4; ++version) {
            disk = versions.next(std::move(disk));
            const std::string name = "v" + std::to_string(version), patch = "p" + std::to_string(version);
            writeImage(dir, name, disk, "version " + std::to_string(version), random);
            ASSERT_EQ(create(dir, "v" + std::to_string(version - 1), name, patch, KINDS[round % 4]), "");
            fs::copy(dir.path(patch), dir.path("patch"));
            ASSERT_EQ(apply(dir, "image", "patch"), "") << "version " << version;
            EXPECT_EQ(readImage(dir.path("image/")), disk) << "version " << version;
            ZqImageCheck check(SxString(dir.path("image")));
            EXPECT_EQ(failureOf(check), "");
            for (const SxString& fault : check.getFaults())
                ADD_FAILURE() << fault.str();
            if (version > 1) continue;
            ASSERT_EQ(apply(dir, "other", patch), "");
            EXPECT_EQ(readImage(dir.path("other/")), disk) << "in another order";
        }
    }
}

// Publishers may make a patch again, or on a larger machine.
TEST(PatchBuilder, TheSameImagesGiveTheSamePatch) {
    if (!useTools()) GTEST_SKIP() << "the tools hdiffz and hpatchz aren't there";
    TestRandom random(5);
    const TempDir dir;
    Versions versions(random);
    const Disk disk = versions.first(400);
    writeImage(dir, "old", disk, "old", random);
    writeImage(dir, "new", versions.next(versions.next(disk)), "new", random);
    ASSERT_EQ(create(dir, "old", "new", "a", Compression::ZSTD), "");
    ASSERT_EQ(create(dir, "old", "new", "b", Compression::ZSTD), "");
    EXPECT_EQ(dir.snapshot("a"), dir.snapshot("b"));
}

// What changes is told by little, wherever the bytes went; else a patch would be no better than a download.
TEST(PatchBuilder, ShiftedBytesAreFoundAgain) {
    if (!useTools()) GTEST_SKIP() << "the tools hdiffz and hpatchz aren't there";
    TestRandom random(6);
    const TempDir dir;
    Disk disk, shifted;
    for (int i = 0; i < 600; ++i)
        disk.push_back(random.bytes(BLOCK));
    writeImage(dir, "old", disk, "old", random);
    std::string bytes;
    for (int i = 100; i < 500; ++i)
        bytes += disk[static_cast<size_t>(i)];
    bytes.insert(0, random.bytes(1000));
    for (int i = 0; i < 50; ++i)
        shifted.push_back(random.bytes(BLOCK));
    for (size_t i = 0; i < 400; ++i)
        shifted.push_back(bytes.substr(i * BLOCK, BLOCK));
    writeImage(dir, "new", shifted, "new", random);
    ASSERT_EQ(create(dir, "old", "new", "patch", Compression::ZSTD), "");
    EXPECT_LT(SxFSAction::sizeOf(SxString(dir.path("patch/patch.data"))), 60 * int64{BLOCK});
}

// A publisher sees before the upload what players would only see on their way.
TEST(PatchBuilder, ACheckFindsWhatIsWrongInAPatch) {
    TestRandom random(9);
    const TempDir dir;
    Versions versions(random);
    const Disk disk = versions.first(60);
    writeImage(dir, "old", disk, "old", random);
    writeImage(dir, "new", versions.next(versions.next(disk)), "new", random);
    ASSERT_EQ(create(dir, "old", "new", "patch", Compression::REPLACE), "");
    const auto fault = [&](const std::function<void(const std::string& patch)>& spoil) {
        for (const char* name : {"spoilt", "scratch"})
            fs::remove_all(dir.path(name));
        fs::create_directories(dir.path("scratch"));
        fs::copy(dir.path("patch"), dir.path("spoilt"));
        spoil(dir.path("spoilt/"));
        ZqPatchCheck check(SxString(dir.path("spoilt")), SxString(dir.path("scratch")));
        EXPECT_EQ(failureOf(check), "");
        return check.getFaults().isEmpty() ? "" : check.getFaults()(0).str();
    };
    EXPECT_EQ(fault([](const std::string&) {}), "");
    for (const char* name : {"patch.json", "app.json", "img.json", "map.7z", "patch.7z", "patch.data"}) {
        EXPECT_THAT(fault([&](const std::string& patch) { fs::remove(patch + name); }), HasSubstr(name));
        EXPECT_THAT(fault([&](const std::string& patch) { fs::resize_file(patch + name, 20); }),
                    HasSubstr(name));
    }
    for (const char* name : {"map.7z", "patch.7z", "patch.data"})
        EXPECT_THAT(fault([&](const std::string& patch) { flip(patch + name); }), HasSubstr(name));
    // Lists whose archives fit their digests, but neither the images nor each other.
    const auto withLists = [&](const std::function<void(SxArray<uint64>*, ZqPatchInfo*)>& change) {
        return fault([&](const std::string& patch) {
            ZqArchive::extract7z(SxString(patch + "map.7z"), SxString(patch));
            ZqArchive::extract7z(SxString(patch + "patch.7z"), SxString(patch));
            SxArray<uint64> map = ZqImage::readEntries(SxString(patch + "map.idx"));
            SxList<ZqPatchInfo> parts = ZqPatchInfo::read(SxString(patch + "patch.info"));
            change(&map, &parts(0));
            SxFileIO(SxString(patch + "map.idx"), "wb").write(map);
            ZqPatchInfo::write(SxString(patch + "patch.info"), parts);
            ZqPatchParams record{SxString(patch)};
            const auto pack = [&](const char* archive, const char* name, uint64* size, SxString* hash) {
                ZqArchive::compress7z(SxString(patch + archive), SxString(patch), {name});
                *size = static_cast<uint64>(fs::file_size(patch + archive));
                *hash = SxMd5::file(SxString(patch + archive));
            };
            pack("map.7z", "map.idx", &record.sizeMap, &record.hashMap);
            pack("patch.7z", "patch.info", &record.sizeInfo, &record.hashInfo);
            record.write();
        });
    };
    EXPECT_EQ(withLists([](auto*, auto*) {}), "");
    EXPECT_THAT(withLists([](auto* map, auto*) { (*map)(0) = 1 << 20; }),
                HasSubstr("names new item 1048576"));
    EXPECT_THAT(withLists([](auto* map, auto* part) { (*map)(0) = part->newMap(0); }), HasSubstr("already"));
    EXPECT_THAT(withLists([](auto*, auto* part) { part->newMap(0) = part->newMap(1); }),
                HasSubstr("already"));
    EXPECT_THAT(withLists([](auto*, auto* part) { part->oldMap = SxArray<uint64>{1 << 20}; }),
                HasSubstr("names old item 1048576"));
    EXPECT_THAT(withLists([](auto*, auto* part) { ++part->patchSize; }), HasSubstr("bytes, and patch.data"));
    EXPECT_THAT(withLists([](auto*, auto* part) { part->patchMd5 = part->oldMd5; }), HasSubstr("part 0"));
}

// The first failure is told, and not what it does to the tools beside it.
TEST(PatchBuilder, AToolThatFailsAtALaterPartEndsIt) {
    TestRandom random(10);
    const TempDir dir;
    Versions versions(random);
    writeImage(dir, "old", versions.first(100), "old", random);
    writeImage(dir, "new", versions.first(100), "new", random);
    fs::permissions(dir.write("tools/hdiffz", "#!/bin/sh\n"
                                              "case \"$4\" in *old_2) exit 3;; *old_[3-9]) sleep 20;; esac\n"
                                              "cp \"$5\" \"$6\"\n"),
                    fs::perms::owner_all);
    ZqSysEnv::setRTERootDir(SxString(dir.path("tools")));
    EXPECT_THAT(create(dir, "old", "new", "patch", Compression::ZSTD), HasSubstr("Exit code : 3"));
    EXPECT_FALSE(fs::exists(dir.path("patch")));
    ZqSysEnv::setRTERootDir("");
}

// What isn't a version that players have would make a patch that fits nobody's image.
TEST(PatchBuilder, OnlyWholeAndRightImagesAreTaken) {
    TestRandom random(7);
    const auto refusal = [&](const std::function<void(const TempDir&)>& spoil) {
        const TempDir dir;
        Versions versions(random);
        const Disk disk = versions.first(50);
        writeImage(dir, "old", disk, "old", random);
        writeImage(dir, "new", disk, "new", random);
        spoil(dir);
        const std::string failure = create(dir, "old", "new", "patch", Compression::REPLACE);
        EXPECT_EQ(fs::exists(dir.path("patch/patch.json")), failure.empty());
        return failure;
    };
    EXPECT_EQ(refusal([](const TempDir&) {}), "");
    EXPECT_THAT(refusal([&](const TempDir& dir) { flip(dir.path("new/img.zqf")); }),
                HasSubstr("new/img.zqf' hasn't the digest"));
    EXPECT_THAT(refusal([&](const TempDir& dir) { flip(dir.path("old/img.idx")); }),
                HasSubstr("old/img.idx' hasn't the digest"));
    EXPECT_THAT(refusal([&](const TempDir& dir) { fs::resize_file(dir.path("old/img.zqf"), 10 * BLOCK); }),
                HasSubstr("isn't complete"));
    EXPECT_THAT(refusal([&](const TempDir& dir) { ZqStreamRecord::noteWrites(SxString(dir.path("old/"))); }),
                HasSubstr("Programs have written"));
    EXPECT_THAT(refusal([&](const TempDir& dir) { dir.write("patch/mine", "x"); }), HasSubstr("isn't empty"));
    EXPECT_THAT(refusal([&](const TempDir& dir) { dir.write("patch/parts.tmp/map.idx", "x"); }),
                HasSubstr("a command that was killed has left it unfinished; in that case remove it"));
}

// A full disk, a failing one or a stop leaves no half a patch that somebody would publish.
TEST(PatchBuilder, NothingIsLeftOfWhatWasCutOff) {
    disturb(
        [](const TempDir& dir) {
            TestRandom random(8);
            Versions versions(random);
            const Disk disk = versions.first(20);
            writeImage(dir, "old", disk, "old", random);
            writeImage(dir, "new", versions.next(disk), "new", random);
            fs::create_directories(dir.path("watched"));
        },
        [](const TempDir& dir) {
            ZqPatchBuilder job(dir.path("old"), dir.path("new"), dir.path("watched/patch"),
                               {Compression::REPLACE, -1});
            jobUnderWay = &job;
            return failureOf(job);
        },
        [](const TempDir& dir, const std::string& failure) {
            if (!failure.empty()) {
                EXPECT_TRUE(!fs::exists(dir.path("watched/patch")) ||
                            fs::is_empty(dir.path("watched/patch")));
            }
        },
        4096, 4096);
}

} // namespace
