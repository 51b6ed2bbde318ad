#pragma once

#include "../BaseTest.h"
#include "MoveOrders.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqImageOptimize.h"
#include "ZqImageParams.h"
#include "ZqOrderHints.h"

/// An image in two orders. What lies where the old one has no block is arbitrary.
class ReorderedImage {
public:
    ReorderedImage(TestRandom& random, const MoveOrder& order)
        : from(random, order.source.size(), 0),
          to(from) {
        const auto n = order.source.size();
        const SxArray<uint64> raw = random.permutation(n);
        uint64 oldEnd = 0, newEnd = 0;
        for (uint64 i = 0; i < n; ++i) {
            if (order.source[i] == ZqMovePlan::NONE) continue;
            from.map(static_cast<int64>(raw(static_cast<int64>(i)))) = order.source[i];
            to.map(static_cast<int64>(raw(static_cast<int64>(i)))) = i;
            oldEnd = std::max<uint64>(oldEnd, order.source[i] + 1);
            newEnd = i + 1;
        }
        from.zqf = random.bytes(oldEnd * TestImage::BLOCK);
        to.zqf.assign(newEnd * TestImage::BLOCK, '\0');
        for (uint64 r = 0; r < n; ++r) {
            for (TestImage* image : {&from, &to}) {
                const uint64 at = image->map(static_cast<int64>(r));
                if (at != ~uint64{0})
                    image->zqf.replace(at * TestImage::BLOCK, TestImage::BLOCK, from.rawBlock(r));
            }
        }
    }

    /// The old order of `other`, whose blocks follow each other, and another new one.
    ReorderedImage(const ReorderedImage& other, const MoveOrder& order) : from(other.from), to(other.from) {
        std::vector<uint64> target(order.source.size());
        for (uint64 i = 0; i < target.size(); ++i)
            target[order.source[i]] = i;
        for (uint64 r = 0; r < target.size(); ++r) {
            const auto raw = static_cast<int64>(r);
            to.map(raw) = target[from.map(raw)];
            to.zqf.replace(to.map(raw) * TestImage::BLOCK, TestImage::BLOCK, from.zqfBlock(from.map(raw)));
        }
    }

    /// Writes the image, or its first blocks, into `image`, and its other order into the index folder
    /// `index`.
    void write(const TempDir& dir, uint64 nBlocks = ~uint64{0}) const {
        from.write(SxString(dir.path("watched/image/")), nBlocks);
        noteVolume(dir.path("watched/image/"));
        writeIndex(dir);
        // Left over from another version of the records.
        dir.write("watched/image/runtime.json", "kept");
        writeHints(dir.path("watched/image"));
    }
    void writeIndex(const TempDir& dir) const {
        to.write(SxString(dir.path("watched/index/")));
        fs::remove(dir.path("watched/index/img.zqf"));
        ZqAppParams app(SxString(dir.path("watched/index/")));
        app.checksumMnt = ZqAppParams(SxString(dir.path("watched/image/"))).checksumMnt;
        app.write();
        writeHints(dir.path("watched/index"));
    }
    /// The index says nothing of it.
    static void noteVolume(const std::string& folder) {
        ZqImageParams params{SxString(folder)};
        params.volume = "erofs";
        params.write();
    }
    /// Hints of the map in `folder`.
    static void writeHints(const std::string& folder) {
        ZqOrderHints hints(ZqAppParams(SxString(folder + "/")).checksumIdx);
        hints.groups = {{0, 1, {0}, {}}};
        hints.write(folder);
    }
    /// What the image folder holds then; `nBlocks` of them where it was partial.
    TreeSnapshot expected(uint64 nBlocks = ~uint64{0}) const {
        const TempDir dir;
        write(dir);
        for (const char* name : {"app.json", "img.json", "img.idx", "img.hints"})
            fs::rename(dir.path(std::string("watched/index/") + name),
                       dir.path(std::string("watched/image/") + name));
        noteVolume(dir.path("watched/image/"));
        dir.write(
            "watched/image/img.zqf",
            std::string_view(to.zqf).substr(0, nBlocks == ~uint64{0} ? nBlocks : nBlocks * TestImage::BLOCK));
        return contentOf(dir, "watched/image");
    }

    TestImage from, to;
};

/// Runs the job, with few heads a round and small pieces, so that small images have several.
inline std::string optimize(ZqImageOptimize& job) {
    job.setLimits(20, 4, 8);
    jobUnderWay = &job;
    return failureOf(job);
}

/// Optimises the image in "watched", or goes on with it.
inline std::string optimizeOrGoOn(const TempDir& dir) {
    const SxString image = dir.path("watched/image"), index = dir.path("watched/index");
    if (fs::exists(dir.path("watched/image/optimize.lock")) || !fs::exists(dir.path("watched/index"))) {
        ZqImageOptimize job(image);
        return optimize(job);
    }
    ZqImageOptimize job(image, index);
    return optimize(job);
}
