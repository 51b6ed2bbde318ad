#pragma once

#include "../BaseTest.h"
#include "../trace/TraceMaking.h"
#include "Builders.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqArchive.h"
#include "ZqFastPatch.h"
#include "ZqImageParams.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <cstring>
#include <numeric>

/// Two versions of an image, and the patch from the one to the other, whose streams are the new data itself.
class PatchedImage {
public:
    static constexpr uint64 BLOCK = TestImage::BLOCK;
    static constexpr uint64 NONE = ~uint64{0};

    /// Of `nNew` items about the share `kept` has the bytes of an old one, somewhere else.
    PatchedImage(TestRandom& random, uint64 nOld, uint64 nNew, double kept)
        : from(random, nOld),
          raw(random.bytes(nNew * BLOCK)),
          includes(nNew, true),
          map(nOld, NONE) {
        std::vector<uint64> withSlot;
        for (const uint64 item : random.permutation(nOld))
            if (from.map(static_cast<int64>(item)) != NONE) withSlot.push_back(item);
        std::vector<uint64> added;
        size_t nKept = 0;
        for (const uint64 item : random.permutation(nNew)) {
            includes[item] = random.chance(0.9);
            if (!includes[item]) continue;
            if (nKept < withSlot.size() && random.chance(kept)) {
                const uint64 old = withSlot[nKept++];
                map[old] = item;
                raw.replace(item * BLOCK, BLOCK, from.rawBlock(old));
            } else {
                added.push_back(item);
            }
        }
        // A part reads old items that others need, too.
        for (size_t at = 0; at < added.size(); at += PART) {
            ZqPatchInfo part;
            std::vector<uint64> items(added.begin() + static_cast<std::ptrdiff_t>(at),
                                      added.begin() +
                                          static_cast<std::ptrdiff_t>(std::min(at + PART, added.size())));
            part.newMap = toArray(items);
            items.clear();
            for (size_t i = 0; i < 3 && !withSlot.empty(); ++i)
                items.push_back(withSlot[random.below(withSlot.size())]);
            part.oldMap = toArray(items);
            parts.push_back(part);
        }
    }

    /// The image into "watched/image", the patch into "watched/patch".
    void write(const TempDir& dir) const {
        const SxString image = dir.path("watched/image/"), patch = dir.path("watched/patch/");
        from.write(image);
        ZqAppParams app(image);
        app.guid = "old";
        app.write();
        ZqImageParams params(image);
        params.sizeRaw = static_cast<int64>(raw.size());
        params.write(patch);
        // Of every block, since a trace of which nothing is left counts as a damaged one.
        ItemList items;
        for (uint64 item = 0; item < map.size(); ++item)
            items.emplace_back(item, item, false);
        makeTrace(dir, "watched/image/traces/run", items, 0, app.checksumMnt);
        app.guid = "new";
        app.checksumMnt = "the new build";
        app.checksumZqf = "";
        app.sizeIdx = includes.size() * sizeof(uint64);
        app.write(patch);
        writeData(dir);
        // It has to be there, though it isn't run.
        dir.write("tools/hpatchz", "");
        ZqSysEnv::setRTERootDir(SxString(dir.path("tools")));
        dir.write("map.idx",
                  std::string_view(reinterpret_cast<const char*>(map.data()), map.size() * sizeof(uint64)));
        ZqPatchParams record;
        record.fromGUID = "old";
        record.toGUID = "new";
        record.compression = ZqPatchCompression::REPLACE;
        const auto pack = [&](const char* archive, const char* name, uint64* size, SxString* hash) {
            ZqArchive::compress7z(patch + archive, SxString(dir.path()), {name});
            *size = static_cast<uint64>(SxFSAction::sizeOf(patch + archive));
            *hash = SxMd5::file(patch + archive);
        };
        pack("map.7z", "map.idx", &record.sizeMap, &record.hashMap);
        pack("patch.7z", "patch.info", &record.sizeInfo, &record.hashInfo);
        record.sizeData = static_cast<uint64>(SxFSAction::sizeOf(patch + "patch.data"));
        record.hashData = SxMd5::file(patch + "patch.data");
        record.write(patch);
    }

    /// What is wrong with the image in "watched/image"; empty where it is the new version.
    std::string fault(const TempDir& dir) const {
        const std::string idx = dir.read("watched/image/img.idx"), zqf = dir.read("watched/image/img.zqf");
        if (idx.size() != includes.size() * sizeof(uint64)) return "the map's size";
        uint64 nUsed = 0;
        std::vector<bool> used(zqf.size() / BLOCK);
        for (uint64 item = 0; item < includes.size(); ++item) {
            uint64 slot = 0;
            std::memcpy(&slot, idx.data() + item * sizeof slot, sizeof slot);
            if ((slot != NONE) != includes[item]) return "which items have a slot: " + std::to_string(item);
            if (slot == NONE) continue;
            ++nUsed;
            if (slot >= used.size() || used[slot]) return "the slot of item " + std::to_string(item);
            used[slot] = true;
            if (zqf.compare(slot * BLOCK, BLOCK, raw, item * BLOCK, BLOCK) != 0)
                return "item " + std::to_string(item);
        }
        if (zqf.size() != nUsed * BLOCK) return "holes";
        const ZqAppParams app(SxString(dir.path("watched/image/")));
        if (!(app.guid == "new") || app.sizeZqf != zqf.size() ||
            !(app.checksumIdx == SxMd5::get(SxString(idx))))
            return "the record";
        const auto nTraces = std::distance(fs::directory_iterator(dir.path("watched/image/traces")), {});
        return nTraces == 1 ? "" : std::to_string(nTraces) + " traces";
    }

    TestImage from;
    std::string raw;            ///< of the new version
    std::vector<bool> includes; ///< by new item
    std::vector<uint64> map;    ///< by old item
    std::vector<ZqPatchInfo> parts;

private:
    static constexpr size_t PART = 7;

    void writeData(const TempDir& dir) const {
        std::string data;
        SxList<ZqPatchInfo> list;
        for (ZqPatchInfo part : parts) {
            std::string oldBytes, newBytes;
            for (const uint64 item : part.oldMap)
                oldBytes += from.rawBlock(item);
            for (const uint64 item : part.newMap)
                newBytes += raw.substr(item * BLOCK, BLOCK);
            part.patchSize = newBytes.size();
            part.oldMd5 = digest(oldBytes);
            part.newMd5 = part.patchMd5 = digest(newBytes);
            list << part;
            data += newBytes;
        }
        dir.write("watched/patch/patch.data", data);
        ZqPatchInfo::write(SxString(dir.path("patch.info")), list);
    }
    static SxArray<uint64> toArray(const std::vector<uint64>& items) {
        SxArray<uint64> array(static_cast<int64>(items.size()));
        std::copy(items.begin(), items.end(), array.begin());
        return array;
    }
    static SxMd5 digest(const std::string& bytes) {
        SxMd5 md5;
        md5.update(bytes.data(), static_cast<int64>(bytes.size()));
        md5.finish();
        return md5;
    }
};

/// Applies the patch in "watched", or goes on with it; gives the failure.
inline std::string patch(const TempDir& dir) {
    ZqFastPatch job(SxString(dir.path("watched/image")), SxString(dir.path("watched/patch")), 1);
    job.runtimeInfo = SxPtr<ZqRuntimeInfo>::create();
    jobUnderWay = &job;
    job.start();
    job.wait();
    return job.hasException() ? job.getException().what() : "";
}
