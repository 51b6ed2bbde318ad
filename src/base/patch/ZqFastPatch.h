#pragma once

#include "SxArray.h"
#include "SxPtr.h"
#include "ZqAppParams.h"
#include "ZqPatchInfo.h"
#include "ZqPatchParams.h"
#include "ZqPatchProgress.h"
#include "ZqRuntimeInfo.h"
#include "ZqTaskMon.h"

#include <functional>
#include <vector>

class ZqFileCopyTask;

/// Job that turns the installed image of one version of an application into that of the next, in place, by a
/// patch folder. An item (a block by its RAW index) that both versions have keeps its slot (its place in
/// `img.zqf`); new data goes into the slots that become free, and at the end the file is compacted. It may be
/// stopped, killed or lose its power at any point: a new job on the same two folders goes on. It can begin
/// while `patch.data` is still arriving, and waits for each part's bytes.
///
/// docs/file-formats.md has the files. Whoever starts it holds ZqImageLock::Shape exclusively. Progress in
/// bytes of work. A failure is logged, published as APP_ERROR, and leaves main() as "Patch failed" with its
/// cause, unless a stop was asked for. The patch folder is removed at the end.
///
/// Durability: a descriptor is on the device before its step writes anything, and what a step has written is
/// before the next descriptor. So a step that is done again has the input that it had.
class ZqFastPatch : public ZqTaskMon {
public:
    ZqFastPatch() = default;
    /// Both folders with or without trailing slashes. `interval_`: milliseconds between two looks of each
    /// wait.
    ZqFastPatch(const SxString& imageDir_, const SxString& patchDir_, int interval_);

    /// The folder in the image folder that it works in.
    static constexpr const char* WORK = "patching/";

    // What was begun in the image folder `image` (with its trailing slash) and not ended.
    /// Whether anything was.
    static bool isBegun(const SxString& image);
    /// Whether only the commit is left, which needs nothing of the patch but its `img.json`.
    static bool isCommitting(const SxString& image);
    /// Whether `img.zqf` is still what it was.
    static bool isUntouched(const SxString& image);
    /// MD5 text of the `patch.json` of what was begun; empty where that isn't known.
    static SxString begunPatch(const SxString& image);
    /// Raises where `img.zqf` isn't what it was, and it was begun with another `patch.json` than the one with
    /// the MD5 text `digest`.
    static void refuseOther(const SxString& image, const SxString& digest);
    /// Takes back what was begun, as long as `img.zqf` is what it was.
    static void takeBack(const SxString& image);

    /// Gets `patchStats`; assigned before start().
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    void main() override;
    /// Counts `n` bytes of work, and sets the speed.
    void addNCurrent(uint64 n) override;
    void updateProgress();

    // The stages, in their order. A step that the descriptor says is done counts its bytes and does nothing.
    void parseMeta();
    void generateMap();
    /// Raises where fewer bytes are free on the image's disk.
    void checkFreeSpace(const uint64& bytes);
    void prepareOldData(uint32 part);
    void preparePatchData(uint32 part);
    void applyPatchData(uint32 part);
    void copyNewData(uint32 part);
    void cleanupPart(uint32 part);
    void finalizePatch();
    /// The commit: the new records take the place of the old ones. Can be repeated.
    void performLockFinish();

private:
    using Stage = ZqPatchProgress::Stage;
    // A part's files in the work folder.
    static constexpr const char *OLD_DATA = "oldData", *PATCH_DATA = "patchData", *NEW_DATA = "newData";
    /// A step of a part, as its log lines and its descriptor have it.
    struct Step {
        Stage stage;
        const char *prefix, *skipText, *runText;
    };

    void runAll();
    void run();
    void runParts();
    void openDescriptor();
    void requirePatch();
    void extract(const char* archive, const char* file, uint64 size, const SxString& md5) const;
    void setDescriptor(Stage stage, uint32 part);
    bool begin(const Step& step, uint32 part, uint64 bytes);
    void logStep(const Step& step, const char* text, uint32 part) const;
    template<class Task>
    void runTask(Task* task, const std::function<uint64()>& nDone, const SxString& failure);
    void runCopy(ZqFileCopyTask* task, const SxString& failure);
    void requireDigest(const SxMd5& expected, const SxMd5& actual, const char* what) const;
    void takeStreamAgain(uint32 part);
    void requireOutput(const SxString& file, const ZqPatchInfo& info) const;
    SxString partFile(uint32 part, const char* what) const;
    bool isLastPart(uint32 part) const { return part + 1 >= parts.size(); }
    uint64 roomNeeded() const;
    uint64 growth(bool hasMap) const;
    void requireOldMap() const;
    void readMaps();
    void writeNewMap(const SxString& name) const;
    void squash();
    void removeLayer() const;
    void generateMeta();
    void removePatch() const;

    SxString imageDir, patchDir;
    int interval = 200;
    uint64 startTime = 0;
    SxArray<uint64> oldIdx, newIdx;
    std::vector<ZqPatchInfo> parts;
    std::vector<uint64> patchOffsets; ///< of the parts in `patch.data`, and its end
    ZqAppParams oldApp, newApp;
    ZqPatchParams patchParams;
    ZqPatchProgress progress;
    SxString progressFile;
    SxString work; ///< `patching/` in the image folder
};
