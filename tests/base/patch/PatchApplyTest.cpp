#include "NetLab.h"
#include "PatchedImage.h"
#include "SxTime.h"
#include "ZqFileServer.h"
#include "ZqImage.h"
#include "ZqImageLock.h"
#include "ZqPatchApply.h"
#include "ZqPatchCheck.h"
#include "ZqPatchFetch.h"
#include "ZqPatchRoom.h"
#include "ZqPatchStatus.h"
#include "ZqStreamRecord.h"

namespace {

SxString imageOf(const TempDir& dir) {
    return SxString(dir.path("watched/image"));
}

std::string run(ZqPatchApply& job) {
    jobUnderWay = &job;
    job.setInterval(1);
    return failureOf(job);
}

/// Applies the patch of that name or address, or goes on with what was begun; gives the failure.
std::string apply(const TempDir& dir, const SxString& patch, bool isConsumed = false) {
    ZqPatchApply job(imageOf(dir), {patch, {}, isConsumed});
    return run(job);
}

std::string applyLocal(const TempDir& dir) {
    return apply(dir, SxString(dir.path("watched/patch")));
}

bool isNew(const PatchedImage& image, const TempDir& dir) {
    for (const char* name : {"patching", "patch.progress", "patch.work"})
        if (dir.exists(std::string("watched/image/") + name)) return false;
    return image.fault(dir).empty();
}

/// Goes on until the image is the new version: with what was noted, or else with the patch itself.
void goOn(const PatchedImage& image, const TempDir& dir, const SxString& patch) {
    if (isNew(image, dir)) return;
    const std::string failure = apply(dir, SxString());
    if (isNew(image, dir)) return;
    const std::string again = apply(dir, patch);
    EXPECT_TRUE(isNew(image, dir)) << failure << "; " << again << "; " << image.fault(dir);
}

/// The patch, on a server.
class ServedPatch {
public:
    explicit ServedPatch(const TempDir& dir) {
        fs::copy(dir.path("watched/patch"), dir.path("server"));
        fs::remove_all(dir.path("watched/patch"));
        server = std::make_unique<ZqFileServer>(SxString(dir.path("server")));
        server->start();
    }
    SxString url() const { return server->getUrl(); }

    std::unique_ptr<ZqFileServer> server;
};

} // namespace

TEST(PatchApply, APatchFolderStaysUnlessItIsConsumed) {
    TestRandom random(50);
    TRACE_SEED(random);
    const PatchedImage image(random, 60, 70, 0.6);
    for (const bool isConsumed : {false, true}) {
        const TempDir dir;
        image.write(dir);
        const TreeSnapshot before = contentOf(dir, "watched/patch");
        ZqPatchApply job(imageOf(dir), {SxString(dir.path("watched/patch")), {}, isConsumed});
        EXPECT_EQ(run(job), "");
        EXPECT_TRUE(job.isComplete());
        EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
        EXPECT_EQ(dir.exists("watched/patch"), !isConsumed);
        if (isConsumed) continue;
        EXPECT_EQ(contentOf(dir, "watched/patch"), before);
        uint64 nNew = 0;
        for (const ZqPatchInfo& part : image.parts)
            nNew += static_cast<uint64>(part.newMap.getSize());
        EXPECT_EQ(job.getResult().bytesWritten, nNew * PatchedImage::BLOCK);
        // What has all that it wants only tidies up.
        dir.write("watched/image/patching/left", "by a kill");
        ZqPatchApply again(imageOf(dir), {SxString(dir.path("watched/patch")), {}, false});
        EXPECT_EQ(run(again), "");
        EXPECT_TRUE(again.getResult().isAlreadyNew && again.isComplete());
        EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
        EXPECT_THAT(apply(dir, SxString()), HasSubstr("none to go on with"));
    }
}

TEST(PatchApply, APowerCutAtAnyStepIsGoneOnFrom) {
    TestRandom random(51);
    TRACE_SEED(random);
    const PatchedImage image(random, 14, 12, 0.4);
    enum Way { Folder, Consumed, Address };
    for (const Way way : {Folder, Consumed, Address}) {
        bool cut = true;
        for (int64 step = 1; cut && !HasFailure(); ++step) {
            ASSERT_LT(step, 900);
            SCOPED_TRACE("way " + std::to_string(way) + ", cut at step " + std::to_string(step));
            const TempDir dir;
            image.write(dir);
            const auto served = way == Address ? std::make_unique<ServedPatch>(dir) : nullptr;
            const SxString patch = served ? served->url() : SxString(dir.path("watched/patch"));
            for (const bool isFirst : {true, false}) {
                FaultOs os(dir.path("watched"));
                os.cutPowerAt(isFirst ? step : int64{1} + static_cast<int64>(random.below(20)));
                apply(dir, isFirst ? patch : SxString(), way == Consumed && isFirst);
                if (isFirst) cut = os.isCut();
                // Some are only killed.
                if (step % 3 == 0) {
                    os.revive();
                } else {
                    std::mt19937_64 chance(static_cast<uint64>(step));
                    os.crash(&chance);
                }
            }
            goOn(image, dir, patch);
        }
    }
}

TEST(PatchApply, WhateverFailsIsGoneOnWith) {
    TestRandom random(52);
    TRACE_SEED(random);
    const PatchedImage image(random, 10, 9, 0.4);
    disturb([&](const TempDir& dir) { image.write(dir); }, applyLocal,
            [&](const TempDir& dir, const std::string&) {
                goOn(image, dir, SxString(dir.path("watched/patch")));
            },
            40'000, 8192);
}

// Nothing is begun that a player would have to get out of.
TEST(PatchApply, WhatCannotBePatchedIsRefusedAndStaysAsItIs) {
    TestRandom random(53);
    TRACE_SEED(random);
    const PatchedImage image(random, 30, 30, 0.5);
    using Spoil = std::function<void(const std::string& image, const std::string& patch)>;
    const auto flip = [](const std::string& file) {
        std::string bytes = TempDir::readFile(file);
        bytes[bytes.size() / 2] ^= 1;
        std::ofstream(file, std::ios::binary) << bytes;
    };
    const std::vector<std::pair<std::string, Spoil>> cases = {
        {"isn't complete", [](const auto& at, const auto&) { fs::resize_file(at + "img.zqf", 4096); }},
        {"is in parts", [](const auto& at, const auto&) { ZqImage(SxString(at)).split(8192, false); }},
        {"an optimisation", [](const auto& at, const auto&) { std::ofstream(at + "optimize.lock") << " "; }},
        {"has written into", [](const auto& at, const auto&) { ZqStreamRecord::noteWrites(SxString(at)); }},
        {"second name",
         [](const auto& at, const auto&) { fs::create_hard_link(at + "img.zqf", at + "two"); }},
        {"is a link",
         [](const auto& at, const auto&) {
             fs::rename(at + "img.zqf", at + "real");
             fs::create_symlink(at + "real", at + "img.zqf");
         }},
        {"not for current version",
         [](const auto& at, const auto&) {
             ZqAppParams app{SxString(at)};
             app.guid = "another";
             app.write();
         }},
        {"map.7z", [&](const auto&, const auto& patch) { flip(patch + "map.7z"); }},
        {"patch.7z", [&](const auto&, const auto& patch) { flip(patch + "patch.7z"); }},
        {"patch.data' hasn't the digest",
         [&](const auto&, const auto& patch) { flip(patch + "patch.data"); }},
        {"hasn't the size", [](const auto&, const auto& patch) { fs::resize_file(patch + "patch.data", 9); }},
        {"patch.json", [](const auto&, const auto& patch) { fs::remove(patch + "patch.json"); }},
        {"app.json", [](const auto&, const auto& patch) { fs::resize_file(patch + "app.json", 9); }},
        {"isn't that of the version",
         [](const auto& at, const auto& patch) {
             fs::copy_file(at + "app.json", patch + "app.json", fs::copy_options::overwrite_existing);
         }},
        {"img.idx' hasn't the digest", [&](const auto& at, const auto&) { flip(at + "img.idx"); }},
        {"img.json", [](const auto&, const auto& patch) { fs::remove(patch + "img.json"); }}};
    for (const auto& [text, spoil] : cases) {
        SCOPED_TRACE(text);
        const TempDir dir;
        image.write(dir);
        spoil(dir.path("watched/image/"), dir.path("watched/patch/"));
        const TreeSnapshot before = contentOf(dir);
        EXPECT_THAT(applyLocal(dir), HasSubstr(text));
        EXPECT_EQ(contentOf(dir), before);
    }
    // A folder that would go with all that is in it.
    const TempDir dir;
    image.write(dir);
    dir.write("watched/patch/letters.txt", "mine");
    const TreeSnapshot before = contentOf(dir);
    EXPECT_THAT(apply(dir, SxString(dir.path("watched/patch")), true), HasSubstr("letters.txt"));
    EXPECT_EQ(contentOf(dir), before);
    // Somebody plays.
    const auto lock = ZqImageLock::take(imageOf(dir), ZqImageLock::Shape, ZqImageLock::Shared, "run");
    EXPECT_THAT(applyLocal(dir), HasSubstr("in use by"));
}

// Builds may share their guid, so the build ids decide where they are stated.
TEST(PatchApply, BuildIdsTellVersionsApart) {
    TestRandom random(54);
    TRACE_SEED(random);
    const PatchedImage image(random, 20, 20, 0.5);
    const auto state = [](const TempDir& dir, const char* from, const char* to) {
        ZqPatchParams record(SxString(dir.path("watched/patch/")));
        record.fromMnt = from;
        record.toMnt = to;
        record.write();
    };
    const TempDir dir;
    image.write(dir);
    const SxString own = ZqAppParams(SxString(dir.path("watched/image/"))).checksumMnt;
    state(dir, "some other build", "the new build");
    EXPECT_THAT(applyLocal(dir), HasSubstr("not for current version"));
    EXPECT_THAT(patch(dir), HasSubstr("not for current version"));
    state(dir, own.str().c_str(), "the new build");
    EXPECT_EQ(applyLocal(dir), "");
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
    EXPECT_EQ(applyLocal(dir), "");
}

TEST(PatchApply, AnotherPatchBeginsAnewOnlyBeforeTheFirstBlockIsWritten) {
    TestRandom random(55);
    TRACE_SEED(random);
    const PatchedImage image(random, 20, 20, 0.4);
    bool isRefused = false, isTaken = false;
    for (int64 step = 1; step < 200; step += 3) {
        const TempDir dir;
        image.write(dir);
        fs::copy(dir.path("watched/patch"), dir.path("other"));
        ZqPatchParams record(SxString(dir.path("other/")));
        record.toMnt = "the new build";
        record.write();
        {
            FaultOs os(dir.path("watched"));
            os.cutPowerAt(step);
            applyLocal(dir);
        }
        if (!ZqFastPatch::isBegun(imageOf(dir) + "/")) continue;
        const bool wasUntouched = ZqFastPatch::isUntouched(imageOf(dir) + "/");
        const std::string failure = apply(dir, SxString(dir.path("other")));
        EXPECT_EQ(failure.empty(), wasUntouched) << failure;
        if (!failure.empty()) {
            EXPECT_THAT(failure, HasSubstr("go on with the patch to 'new'"));
        }
        (wasUntouched ? isTaken : isRefused) = true;
        goOn(image, dir, SxString(dir.path("watched/patch")));
    }
    EXPECT_TRUE(isRefused && isTaken);
}

/// Kills an application when the first blocks were written.
void killMidway(const TempDir& dir, const SxString& patch) {
    for (int64 step = 40; ZqFastPatch::isUntouched(imageOf(dir) + "/"); ++step) {
        ASSERT_LT(step, 400);
        FaultOs os(dir.path("watched"));
        os.cutPowerAt(step);
        apply(dir, patch);
    }
}

// The private copy shares its bytes with a folder of the user, which an application from a server mustn't
// touch.
TEST(PatchApply, ACopyOfAFolderIsNeverWrittenTo) {
    TestRandom random(60);
    TRACE_SEED(random);
    const PatchedImage image(random, 60, 60, 0.3);
    const TempDir dir;
    image.write(dir);
    const TreeSnapshot before = contentOf(dir, "watched/patch");
    fs::copy(dir.path("watched/patch"), dir.path("server"));
    ZqFileServer server{SxString(dir.path("server"))};
    server.start();
    killMidway(dir, SxString(dir.path("watched/patch")));
    EXPECT_EQ(apply(dir, server.getUrl()), "");
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
    EXPECT_EQ(contentOf(dir, "watched/patch"), before);
}

// Else an image would be lost with a copy that is.
TEST(PatchApply, ACopyThatHasGoneBadIsExchanged) {
    TestRandom random(61);
    TRACE_SEED(random);
    const PatchedImage image(random, 60, 60, 0.3);
    for (const bool isServed : {false, true}) {
        const TempDir dir;
        image.write(dir);
        fs::copy(dir.path("watched/patch"), dir.path("sound"));
        ZqFileServer server{SxString(dir.path("sound"))};
        server.start();
        const SxString patch = isServed ? server.getUrl() : SxString(dir.path("sound"));
        killMidway(dir, patch);
        const std::string data = dir.path("watched/image/patch.work/patch/patch.data");
        const std::string bytes(TempDir::readFile(data).size(), 'x');
        fs::remove(data);
        std::ofstream(data, std::ios::binary) << bytes;
        if (!isServed) {
            // Nobody brings the rest of a folder's copy.
            fs::resize_file(data, bytes.size() / 2);
            EXPECT_THAT(apply(dir, SxString()), HasSubstr("give PATCH again"));
            std::ofstream(data, std::ios::binary) << bytes;
        }
        // A mistyped name takes nothing back.
        EXPECT_NE(apply(dir, SxString(dir.path("sounds"))), "");
        EXPECT_TRUE(ZqFastPatch::isBegun(imageOf(dir) + "/"));
        // What is wrong of a download is fetched again at once, as far as its part isn't whole yet.
        const std::string failure = apply(dir, SxString());
        if (!isServed) {
            EXPECT_THAT(failure, HasSubstr("checksum"));
        }
        for (int i = 0; i < 40 && !isNew(image, dir); ++i)
            apply(dir, patch);
        EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
    }
}

// A resume that asks for room that it doesn't need is one that a full disk locks out.
TEST(PatchApply, OnlyTheRoomThatIsStillToBeTakenIsAskedFor) {
    const auto part = [](uint64 nOld, uint64 nNew, uint64 stream) {
        ZqPatchInfo info;
        info.oldMap.resize(static_cast<int64>(nOld));
        info.newMap.resize(static_cast<int64>(nNew));
        info.patchSize = stream;
        return ZqPatchSizes(info);
    };
    constexpr uint64 B = PatchedImage::BLOCK;
    const std::vector<ZqPatchSizes> parts = {part(10, 20, 5 * B), part(30, 40, 6 * B)};
    const auto need = [&](uint32 stage, uint32 at, uint64 there = 0) {
        ZqPatchRoom::State state;
        state.at.stage = stage;
        state.at.part = at;
        state.partFiles = there;
        state.hasMap = true;
        return ZqPatchRoom::need(parts, state) / B;
    };
    EXPECT_EQ(need(ZqPatchProgress::PrepareOldData, 0), 40 + 46 - 10U);
    EXPECT_EQ(need(ZqPatchProgress::PrepareOldData, 1, 7 * B), 30 - 7 + 46 - 10U);
    EXPECT_EQ(need(ZqPatchProgress::PreparePatchData, 0), 46 - 10U);
    EXPECT_EQ(need(ZqPatchProgress::ApplyPatchData, 1, 6 * B), 40U);
    EXPECT_EQ(need(ZqPatchProgress::CopyNewData, 1, 46 * B), 0U);
    EXPECT_EQ(need(ZqPatchProgress::FinalizePatch, 0), 0U);
    const std::vector<ZqPatchSizes> wild = {part(1, 1, ~uint64{0} / 2)};
    EXPECT_ANY_THROW(ZqPatchRoom::need(wild, ZqPatchRoom::State()));
}

TEST(PatchApply, APatchIsAppliedWhileItArrives) {
    TestRandom random(56);
    TRACE_SEED(random);
    const PatchedImage image(random, 200, 260, 0.3);
    const TempDir dir;
    image.write(dir);
    const ServedPatch served(dir);
    served.server->setRate(2'000'000);
    ZqPatchApply job(imageOf(dir), {served.url(), {}, false});
    EXPECT_EQ(run(job), "");
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
    EXPECT_GE(job.getResult().bytesDownload,
              static_cast<uint64>(fs::file_size(dir.path("server/patch.data"))));
}

// A stop, and a server that is away in the middle, cost nothing that has come.
TEST(PatchApply, ADownloadThatWasCutGoesOn) {
    TestRandom random(57);
    TRACE_SEED(random);
    const PatchedImage image(random, 200, 300, 0.2);
    const TempDir dir;
    image.write(dir);
    const ServedPatch served(dir);
    const auto size = static_cast<uint64>(fs::file_size(dir.path("server/patch.data")));
    served.server->setRate(300'000);
    {
        ZqPatchApply job(imageOf(dir), {served.url(), {}, false});
        job.start();
        const auto half = static_cast<int64>(size / 2);
        for (int i = 0; i < 2000 && SxFSAction::sizeOf(imageOf(dir) + "/patch.work/patch/patch.data") < half;
             ++i)
            SxTime::msleep(5);
        job.stop();
        job.wait();
        EXPECT_FALSE(job.hasFailure() || job.isComplete());
    }
    served.server->setRate(0);
    const uint64 before = served.server->getNBytes("patch.data");
    EXPECT_GT(before, size / 4);
    EXPECT_EQ(apply(dir, SxString()), "");
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
    EXPECT_LT(served.server->getNBytes("patch.data") - before, size - size / 4);
}

TEST(PatchApply, AFetchedPatchNeedsNoServer) {
    TestRandom random(58);
    TRACE_SEED(random);
    const PatchedImage image(random, 60, 80, 0.3);
    const TempDir dir;
    image.write(dir);
    const ServedPatch served(dir);
    {
        // Also while somebody plays.
        const auto lock = ZqImageLock::take(imageOf(dir), ZqImageLock::Shape, ZqImageLock::Shared, "run");
        ZqPatchFetch fetch(imageOf(dir), served.url(), {});
        EXPECT_EQ(failureOf(fetch), "");
        EXPECT_TRUE(fetch.isComplete());
    }
    fs::create_directories(dir.path("scratch"));
    ZqPatchStatus status(imageOf(dir), SxString(), {}, SxString(dir.path("scratch")));
    EXPECT_EQ(failureOf(status), "");
    EXPECT_EQ(status.getResult().state, ZqPatchStatus::Fetched);
    EXPECT_EQ(status.getResult().bytesDownload, 0U);
    const SxString url = served.url();
    served.server->stop();
    EXPECT_EQ(apply(dir, url), "");
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
}

// Of what a server says nothing is believed.
TEST(PatchApply, ALyingServerHarmsNothing) {
    TestRandom random(59);
    TRACE_SEED(random);
    const PatchedImage image(random, 40, 40, 0.3);
    const TempDir dir;
    image.write(dir);
    fs::rename(dir.path("watched/patch"), dir.path("server"));
    const auto nameOf = [](const std::string& request) {
        const size_t begin = request.find("/") + 1;
        return request.substr(begin, request.find(' ', begin) - begin);
    };
    std::atomic<int> nLies = 0;
    std::string liar;
    int mostLies = 0;
    ScriptedServer server([&](const std::string& request) {
        const std::string name = nameOf(request);
        if (!fs::exists(dir.path("server/" + name)))
            return std::string("HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n");
        std::string bytes = dir.read("server/" + name);
        if (name == liar && nLies < mostLies) {
            ++nLies;
            if (name.ends_with(".json")) {
                bytes = "<html>Please log in</html>";
            } else {
                bytes[bytes.size() / 2] ^= 1;
            }
        }
        if (request.find("Range:") != std::string::npos) return ScriptedServer::ranged(request, bytes);
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(bytes.size()) + "\r\n\r\n" + bytes;
    });
    for (const char* name : {"patch.json", "app.json", "img.json", "map.7z", "patch.7z", "patch.data"}) {
        SCOPED_TRACE(name);
        liar = name;
        nLies = 0;
        mostLies = 1000;
        ZqPatchApply job(imageOf(dir), {SxString(server.url()), {}, false});
        EXPECT_NE(run(job), "");
        EXPECT_FALSE(job.isComplete());
    }
    nLies = 0;
    mostLies = 1;
    EXPECT_EQ(apply(dir, SxString(server.url())), "");
    EXPECT_EQ(nLies, 1);
    EXPECT_TRUE(isNew(image, dir)) << image.fault(dir);
}
