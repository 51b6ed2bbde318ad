#include "PatchedImage.h"
#include "SxTime.h"
#include "ZqRunTraces.h"

namespace {

/// All there is of a patch that went through: the new version and nothing of the work.
void expectPatched(const PatchedImage& image, const TempDir& dir) {
    EXPECT_EQ(image.fault(dir), "");
    for (const char* name : {"image/patching", "image/patch.progress", "patch"})
        EXPECT_FALSE(dir.exists(std::string("watched/") + name)) << name;
}

/// Whether the image is the new version, and nothing says otherwise. From then on a job refuses the patch,
/// since it is for the former version; what is left of the work folder then is of no consequence.
bool isPatched(const PatchedImage& image, const TempDir& dir) {
    return !dir.exists("watched/image/patching/img.lock") && !dir.exists("watched/image/patch.progress") &&
           image.fault(dir).empty();
}

/// Goes on until the patch is through.
void goOn(const PatchedImage& image, const TempDir& dir) {
    if (isPatched(image, dir)) return;
    const std::string failure = patch(dir);
    EXPECT_TRUE(isPatched(image, dir)) << failure << ", " << image.fault(dir);
}

} // namespace

TEST(FastPatch, AnImageBecomesTheNextVersion) {
    TestRandom random(40);
    TRACE_SEED(random);
    struct Case {
        uint64 nOld, nNew;
        double kept;
    };
    for (const Case each :
         {Case{60, 60, 0.7}, {60, 90, 0.7}, {90, 40, 0.7}, {60, 60, 0.0}, {60, 60, 1.0}, {5, 1, 0.5}}) {
        SCOPED_TRACE(std::to_string(each.nOld) + " to " + std::to_string(each.nNew) + ", kept " +
                     std::to_string(each.kept));
        const PatchedImage image(random, each.nOld, each.nNew, each.kept);
        const TempDir dir;
        image.write(dir);
        dir.write("watched/image/img.tix", "layer");
        dir.write("watched/image/img.idx.md5", "of the old map");
        dir.write("watched/image/img.files", "of the old build");
        dir.write("watched/image/img.hints", "of the old map");
        ZqRunTraces(SxString(dir.path("watched/image")))
            .add(SxString(dir.path("watched/image/traces/run")), 0);
        ZqFastPatch job(SxString(dir.path("watched/image")), SxString(dir.path("watched/patch")), 1);
        job.runtimeInfo = SxPtr<ZqRuntimeInfo>::create();
        job.start();
        job.wait();
        EXPECT_FALSE(job.hasException()) << job.getException().what();
        expectPatched(image, dir);
        EXPECT_FALSE(dir.exists("watched/image/img.tix"));
        EXPECT_NE(fs::status(dir.path("watched/image/img.idx")).permissions() & fs::perms::others_read,
                  fs::perms::none);
        EXPECT_FALSE(dir.exists("watched/image/img.idx.md5"));
        EXPECT_FALSE(dir.exists("watched/image/img.files"));
        EXPECT_FALSE(dir.exists("watched/image/img.hints"));
        EXPECT_EQ(job.getNCurrent(), job.getNTotal());
        EXPECT_TRUE(job.runtimeInfo->patchStats.started);
        for (const auto& trace : fs::directory_iterator(dir.path("watched/image/traces"))) {
            EXPECT_EQ(ZqTraceParams(SxString(trace.path().string() + "/")).checksumMnt, "the new build");
            // It counts as one of the runs' traces as before.
            EXPECT_THAT(dir.read("watched/image/traces.txt"), HasSubstr(trace.path().filename().string()));
        }
    }
}

// What a user has put beside a trace would go with it.
TEST(FastPatch, AFolderThatHoldsMoreThanATraceStays) {
    TestRandom random(49);
    TRACE_SEED(random);
    const PatchedImage image(random, 20, 20, 0.5);
    const TempDir dir;
    image.write(dir);
    dir.write("watched/image/traces/run/notes.txt", "mine");
    EXPECT_EQ(patch(dir), "");
    EXPECT_TRUE(isPatched(image, dir)) << image.fault(dir);
    EXPECT_EQ(dir.read("watched/image/traces/run/notes.txt"), "mine");
    EXPECT_TRUE(dir.exists("watched/image/traces/run/img.trc"));
}

TEST(FastPatch, APowerCutAtAnyStepIsGoneOnFrom) {
    TestRandom random(41);
    TRACE_SEED(random);
    const PatchedImage image(random, 26, 20, 0.4);
    bool cut = true;
    for (int64 step = 1; cut && !HasFailure(); ++step) {
        ASSERT_LT(step, 600);
        for (const uint64 seed : {uint64{0}, static_cast<uint64>(step)}) {
            SCOPED_TRACE("cut at step " + std::to_string(step) + ", seed " + std::to_string(seed));
            const TempDir dir;
            image.write(dir);
            cut = false;
            for (const int64 at : {step, int64{1} + static_cast<int64>(random.below(12))}) {
                FaultOs os(dir.path("watched"));
                os.cutPowerAt(at);
                patch(dir);
                cut = cut || os.isCut();
                std::mt19937_64 chance(seed);
                os.crash(seed ? &chance : nullptr);
            }
            goOn(image, dir);
        }
    }
}

TEST(FastPatch, AKillAndThenAPowerCutAreGoneOnFrom) {
    TestRandom random(47);
    TRACE_SEED(random);
    const PatchedImage image(random, 14, 12, 0.4);
    bool killed = true;
    for (int64 step = 1; killed && !HasFailure(); ++step) {
        ASSERT_LT(step, 600);
        for (const int64 more : {1, 2, 4, 7}) {
            SCOPED_TRACE("killed at step " + std::to_string(step) + ", cut " + std::to_string(more) +
                         " after");
            const TempDir dir;
            image.write(dir);
            {
                FaultOs os(dir.path("watched"));
                os.cutPowerAt(step);
                patch(dir);
                killed = os.isCut();
                os.revive();
                os.cutPowerAt(os.getNSteps() + more);
                patch(dir);
                os.crash(nullptr);
            }
            goOn(image, dir);
        }
    }
}

TEST(FastPatch, WhateverFailsIsGoneOnWith) {
    TestRandom random(42);
    TRACE_SEED(random);
    const PatchedImage image(random, 18, 14, 0.4);
    disturb([&](const TempDir& dir) { image.write(dir); }, patch,
            [&](const TempDir& dir, const std::string&) { goOn(image, dir); }, 40'000, 4096);
}

TEST(FastPatch, WhatDoesNotFitIsRefusedBeforeTheImageChanges) {
    TestRandom random(43);
    TRACE_SEED(random);
    const PatchedImage right(random, 40, 40, 0.5);
    const auto firstWith = [&](bool isKept) {
        return static_cast<size_t>(
            std::find_if(right.map.begin(), right.map.end(),
                         [&](uint64 item) { return (item != PatchedImage::NONE) == isKept; }) -
            right.map.begin());
    };
    const auto withoutSlot = static_cast<uint64>(
        std::find(right.from.map.begin(), right.from.map.end(), PatchedImage::NONE) - right.from.map.begin());
    const uint64 kept = right.map[firstWith(true)];
    using Change = std::function<void(PatchedImage*)>;
    const std::vector<std::pair<Change, std::string>> changes = {
        {[&](PatchedImage* image) { image->map[firstWith(true)] = 40; }, "names new item 40 of 40"},
        {[&](PatchedImage* image) { image->map[firstWith(false)] = kept; }, "twice"},
        {[&](PatchedImage* image) { image->map[withoutSlot] = 0; }, "has no slot"},
        {[&](PatchedImage* image) { image->parts[0].newMap(0) = kept; }, "gives new item"},
        {[&](PatchedImage* image) { image->parts[0].oldMap(0) = 40; }, "names old item 40 of 40"}};
    for (const auto& [change, text] : changes) {
        SCOPED_TRACE(text);
        PatchedImage image = right;
        change(&image);
        const TempDir dir;
        image.write(dir);
        const std::string zqf = dir.read("watched/image/img.zqf"), idx = dir.read("watched/image/img.idx");
        EXPECT_THAT(patch(dir), HasSubstr(text));
        EXPECT_TRUE(dir.read("watched/image/img.zqf") == zqf && dir.read("watched/image/img.idx") == idx);
    }
    using Damage = std::function<void(const TempDir&)>;
    const std::vector<std::pair<Damage, std::string>> damages = {
        {[](const TempDir& dir) { dir.write("watched/patch/map.7z", "short"); }, "file size is invalid"},
        {[](const TempDir& dir) {
             std::string bytes = dir.read("watched/patch/patch.7z");
             bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
             dir.write("watched/patch/patch.7z", bytes);
         },
         "MD5 sum is invalid."},
        {[](const TempDir& dir) { fs::remove(dir.path("watched/patch/app.json")); }, "app.json"},
        {[](const TempDir& dir) {
             ZqAppParams app(SxString(dir.path("watched/image/")));
             app.guid = "another";
             app.write();
         },
         "The provided patch is not for current version"},
        {[](const TempDir& dir) {
             std::string zqf = dir.read("watched/image/img.zqf");
             for (char& c : zqf)
                 c = static_cast<char>(c ^ 1);
             dir.write("watched/image/img.zqf", zqf);
         },
         "Invalid old data checksum. Expected ["}};
    for (const auto& [damage, text] : damages) {
        SCOPED_TRACE(text);
        const TempDir dir;
        right.write(dir);
        damage(dir);
        const std::string zqf = dir.read("watched/image/img.zqf");
        EXPECT_THAT(patch(dir), AllOf(HasSubstr("Patch failed"), HasSubstr(text)));
        EXPECT_TRUE(dir.read("watched/image/img.zqf") == zqf);
    }
}

TEST(FastPatch, ADamagedPartEndsItAndASoundOneGoesOn) {
    TestRandom random(44);
    TRACE_SEED(random);
    const PatchedImage image(random, 60, 60, 0.3);
    ASSERT_GT(image.parts.size(), 3U);
    const TempDir dir;
    image.write(dir);
    const std::string data = dir.read("watched/patch/patch.data");
    std::string damaged = data;
    damaged[20 * PatchedImage::BLOCK] = static_cast<char>(damaged[20 * PatchedImage::BLOCK] ^ 1);
    dir.write("watched/patch/patch.data", damaged);
    EXPECT_THAT(patch(dir), HasSubstr("Invalid part patch data checksum. Expected ["));
    // Another patch has nothing to begin with from here on.
    const std::string record = dir.read("watched/patch/patch.json");
    dir.write("watched/patch/patch.json", record + " ");
    EXPECT_THAT(patch(dir), HasSubstr("go on with the patch to 'new'"));
    dir.write("watched/patch/patch.json", record);
    const std::string descriptor = dir.read("watched/image/patch.progress");
    std::string beyond = descriptor;
    beyond[20] = 100;
    dir.write("watched/image/patch.progress", beyond);
    EXPECT_THAT(patch(dir), HasSubstr("tells of part 100"));
    dir.write("watched/image/patch.progress", descriptor);
    dir.write("watched/patch/patch.data", data);
    EXPECT_EQ(patch(dir), "");
    expectPatched(image, dir);
}

TEST(FastPatch, AnotherPatchBeginsAnewWhileTheImageIsUntouched) {
    TestRandom random(45);
    TRACE_SEED(random);
    const PatchedImage first(random, 40, 40, 0.5);
    PatchedImage second = first;
    // The same version by other parts.
    std::reverse(second.parts.begin(), second.parts.end());
    const TempDir dir;
    first.write(dir);
    {
        FaultOs os(dir.path("watched"));
        os.failNth(Op::Write, 1, EIO, "part_1_oldData");
        EXPECT_NE(patch(dir), "");
    }
    ASSERT_TRUE(dir.exists("watched/image/patch.progress"));
    fs::remove_all(dir.path("watched/patch"));
    const TempDir fresh;
    second.write(fresh);
    fs::copy(fresh.path("watched/patch"), dir.path("watched/patch"));
    ZqSysEnv::setRTERootDir(SxString(dir.path("tools")));
    EXPECT_EQ(patch(dir), "");
    expectPatched(second, dir);
}

TEST(FastPatch, PartsAreAppliedWhileTheirDataArrives) {
    TestRandom random(46);
    TRACE_SEED(random);
    const PatchedImage image(random, 40, 40, 0.3);
    const TempDir dir;
    image.write(dir);
    const std::string data = dir.read("watched/patch/patch.data");
    dir.write("watched/patch/patch.data", data.substr(0, data.size() / 2));
    ZqFastPatch job(SxString(dir.path("watched/image")), SxString(dir.path("watched/patch")), 1);
    job.runtimeInfo = SxPtr<ZqRuntimeInfo>::create();
    job.start();
    EXPECT_TRUE(
        SxWait::pass(10'000, [&] { return dir.exists("watched/image/patching/part_2_oldData.bin"); }));
    SxTime::msleep(50);
    EXPECT_TRUE(job.isRunning());
    dir.write("watched/patch/patch.data", data);
    job.wait();
    EXPECT_FALSE(job.hasException());
    expectPatched(image, dir);
}
