#include "SxFSAction.h"
#include "SxQueue.h"
#include "ZqImage.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageParts.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <functional>

using namespace ZqImageParts;

namespace {

/// So many bytes of parts may wait for one sync of the joined file. One sync for each part of a megabyte
/// would take ten times as long.
constexpr uint64 SYNC_BATCH = 64 << 20;
/// So many batches of parts may be there twice where the disk has room: one being copied, one on its way to
/// the device, one being removed.
constexpr uint64 MAX_AHEAD = 3;

/// Raises unless parts `first` to the last are there in their sizes.
void checkParts(const Parts& parts, uint64 first) {
    for (uint64 part = first; part <= parts.count; ++part) {
        const SxFileInfo info(parts.path(part));
        if (!info.isFile()) {
            const SxString packed = info.getOrig() + PACKED;
            const SxString hint =
                SxFSAction::exists(packed) ? "; '" + packed + "' must be unpacked first" : SxString();
            throw SxException("Part '" + info.getOrig() + "' is missing" + hint, UNIT, __LINE__);
        }
        if (static_cast<uint64>(info.getSize()) != parts.bytes(part)) {
            throw SxException("Part '" + info.getOrig() + "' has " + info.getSize() + " bytes, not " +
                                  parts.bytes(part),
                              UNIT, __LINE__);
        }
    }
}

/// Raises where something stands at `path` that a join can't replace.
void requireFileOrNothing(const SxString& path) {
    if (SxFSAction::isGone(path) || (SxFileInfo(path).isFile() && !SxFileInfo(path).isLink())) return;
    throw SxException("'" + path + "' is not a plain file", UNIT, __LINE__);
}

/// The first part that a join which was cut off has not finished with, after a look at what is there. It is
/// the part after the last one that is gone: removals may reach the device in any order, so parts before that
/// one may still be there, although they are finished with.
uint64 findResumePoint(const Parts& parts, const SxString& zqf) {
    uint64 first = parts.count + 1;
    while (first > 1 && !SxFSAction::isGone(parts.path(first - 1)))
        --first;
    const uint64 have = SxFSAction::test_f(zqf) ? static_cast<uint64>(SxFileInfo(zqf).getSize()) : 0;
    const uint64 need = first <= parts.count ? parts.offset(first) : parts.size;
    if (have < need) {
        throw SxException("Part '" + parts.path(first - 1) + "' is missing, and '" + zqf + "' has only " +
                              have + " bytes of the parts that are gone",
                          UNIT, __LINE__);
    }
    checkParts(parts, first);
    return first;
}

/// One stage of what happens to parts beside the job: on a thread of its own, in the order of the parts.
class PartStage : public SxSystemThread {
public:
    using Batch = std::pair<uint64, uint64>; ///< first and last part
    using Queue = SxQueue<Batch>;

    PartStage(std::function<void(const Batch&)> work_, Queue* in_, Queue* out_)
        : work(std::move(work_)),
          in(in_),
          out(out_) {
        setThreadName("join");
    }

protected:
    void main() override {
        // A stage that fails ends those that follow it, too: none works on a batch that didn't get through.
        try {
            while (const auto batch = in->pop()) {
                work(*batch);
                out->push(*batch);
            }
        } catch (const SxException&) {
            out->close();
            throw;
        }
        out->close();
    }

private:
    std::function<void(const Batch&)> work;
    Queue *in, *out;
};

/// Brings the joined file to the device and removes the parts that are in it, while the job copies on.
class PartRemover {
public:
    PartRemover(SxFileIO* target, const Parts& parts)
        : syncing([target](const PartStage::Batch&) { target->sync(); }, &todo, &synced),
          removing(
              [&parts](const PartStage::Batch& batch) {
                  for (uint64 part = batch.first; part <= batch.second; ++part)
                      SxFSAction::rm(parts.path(part));
              },
              &synced, &done) {
        syncing.start();
        removing.start();
    }
    ~PartRemover() { end(); }
    PartRemover(const PartRemover&) = delete;
    PartRemover& operator=(const PartRemover&) = delete;

    /// Hands over the parts `first` to `last`.
    void take(uint64 first, uint64 last) {
        todo.push({first, last});
        ++nBusy;
    }
    /// Waits until at most `n` batches are under way.
    void settle(uint64 n) {
        for (; nBusy > n; --nBusy) {
            if (done.pop()) continue;
            end();
            throw syncing.hasException() ? syncing.getException() : removing.getException();
        }
    }

private:
    void end() {
        todo.close();
        syncing.wait();
        removing.wait();
    }

    PartStage::Queue todo, synced, done;
    PartStage syncing, removing;
    uint64 nBusy = 0; ///< batches handed over and not yet done
};

void joinParts(const Parts& parts, const SxString& zqf, uint64 first, Progress* progress) {
    // A batch takes at most a quarter of the free room. On a disk with little more room than for one part,
    // parts must be removed early, and one by one.
    const auto free = static_cast<uint64>(ZqSysEnv::getFreeDiskSpace(parts.prefix));
    const uint64 batch = std::max<uint64>(1, std::min(SYNC_BATCH, free / 4) / parts.partSize); // parts
    const uint64 nAhead = std::min<uint64>(MAX_AHEAD, free / batch / parts.partSize);
    SxFileIO target(zqf, "r+b", 0600);
    const uint64 start = first <= parts.count ? parts.offset(first) : parts.size;
    target.truncate(static_cast<int64>(start));
    target.seek(static_cast<int64>(start));
    progress->add(start);
    for (uint64 part = 1; part < first; ++part) {
        if (!SxFSAction::isGone(parts.path(part))) SxFSAction::rm(parts.path(part));
    }
    PartRemover remover(&target, parts);
    SxArray<char> buffer(BUFFER);
    uint64 handedOver = first - 1;
    for (uint64 part = first; part <= parts.count; ++part) {
        {
            SxFileIO source(parts.path(part), "rb", 0600);
            source.adviseSequential();
            copyBytes(&source, &target, parts.bytes(part), &buffer, progress);
        }
        if (part - handedOver < batch && part < parts.count) continue;
        remover.take(handedOver + 1, part);
        handedOver = part;
        remover.settle(std::max<uint64>(nAhead, 1) - 1);
    }
    remover.settle(0);
    target.close();
}

/// Takes a join back that has removed no part yet, and gives the record its name again, so that the folder is
/// as it was.
void undoJoin(const Parts& parts, const SxString& zqf, const SxString& info, const SxString& journal) {
    try {
        for (uint64 part = 1; part <= parts.count; ++part) {
            if (!SxFSAction::exists(parts.path(part))) return;
        }
        if (!SxFSAction::isGone(zqf)) SxFSAction::rm(zqf);
        // With the record beside it, what is left of img.zqf would look like the whole of it.
        const SxString folder = SxFileInfo(zqf).getPath();
        SxFSAction::syncDir(folder);
        SxFSAction::mv(journal, info);
        SxFSAction::syncDir(folder);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImage::join : cannot take the join back: " + e.toString(3, "\n"));
    }
}

} // namespace

bool ZqImage::join(ZqTaskMon* monitor) const {
    const SxString info = pathPrefix + ZqImageFiles::SPLIT_INFO;
    const SxString journal = pathPrefix + ZqImageFiles::JOIN_INFO;
    const SxString zqf = pathPrefix + ZqImageFiles::ZQF;
    // Without a record there is nothing to lock. Taking the lock would leave a lock file there.
    if (SxFSAction::isGone(info) && SxFSAction::isGone(journal) &&
        SxFSAction::isGone(pathPrefix + ZqImageFiles::SPLIT_JOURNAL))
        readRecord(pathPrefix, info);
    const auto lock = ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Exclusive, "image join");
    const bool resumed = isJoining(pathPrefix);
    const Parts parts = readRecord(pathPrefix, resumed ? journal : info);
    if (parts.count <= 1) return false;
    bool begun = false;
    try {
        uint64 first = 1;
        if (resumed) {
            first = findResumePoint(parts, zqf);
        } else {
            // A missing part, or one of the wrong size, is found while the record still stands.
            checkParts(parts, first);
        }
        requireFileOrNothing(zqf);
        if (first <= parts.count) ZqImageFolder::requireSpace(pathPrefix, parts.bytes(first));
        if (!resumed) SxFSAction::mv(info, journal);
        begun = true;
        // The names must be on the device before the first part is removed.
        if (!resumed || SxFSAction::isGone(zqf))
            SxFileIO().create(zqf, permissionsOf(parts.path(std::min(first, parts.count))));
        SxFSAction::syncDir(pathPrefix);
        Progress progress(monitor, parts.size);
        joinParts(parts, zqf, first, &progress);
        SxFSAction::syncDir(pathPrefix);
        SxFSAction::rm(journal);
        SxFSAction::syncDir(pathPrefix);
    } catch (const SxException& e) {
        if (begun) undoJoin(parts, zqf, info, journal);
        throw SxException(e, "Cannot join image " + zqf, UNIT, __LINE__);
    }
    return true;
}

void ZqImage::checkSplit() const {
    if (isJoining(pathPrefix)) {
        findResumePoint(readRecord(pathPrefix, pathPrefix + ZqImageFiles::JOIN_INFO),
                        pathPrefix + ZqImageFiles::ZQF);
        return;
    }
    const Parts parts = readRecord(pathPrefix, pathPrefix + ZqImageFiles::SPLIT_INFO);
    // What a compressed part holds shows only when it is unpacked.
    if (!SxFSAction::test_f(parts.path(1) + PACKED)) return checkParts(parts, 1);
    for (uint64 part = 1; part <= parts.count; ++part) {
        if (!SxFSAction::test_f(parts.path(part) + PACKED)) {
            throw SxException("Part '" + parts.path(part) + PACKED + "' is missing", UNIT, __LINE__);
        }
    }
}

ZqImage::SplitState ZqImage::getSplitState() const {
    SplitState state;
    state.joining = isJoining(pathPrefix);
    const SxString file = pathPrefix + (state.joining ? ZqImageFiles::JOIN_INFO : ZqImageFiles::SPLIT_INFO);
    if (!SxFSAction::exists(file)) return state;
    const Parts parts = readRecord(pathPrefix, file);
    state.partSize = parts.partSize;
    const SxFileInfo zqf(pathPrefix + ZqImageFiles::ZQF);
    // A record beside the whole file is what is left of a split that was cut off at its end, or of one part.
    state.split = state.joining || !zqf.isFile() || static_cast<uint64>(zqf.getSize()) < parts.size;
    return state;
}
