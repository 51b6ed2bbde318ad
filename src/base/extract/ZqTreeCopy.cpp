#include "ZqTreeCopy.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqJobsTogether.h"
#include "ZqLog.h"
#include "ZqTaskMon.h"

#include <algorithm>
#include <cerrno>
#include <map>

namespace {

constexpr const char* UNIT = "src/base/extract/ZqTreeCopy";
/// What is read is still in the processor's cache when it is written; 2 MiB take twice the time. Nor does it
/// help to have the device begin early, since that takes the pages away from the writer.
constexpr int64 CHUNK = 256 << 10;
/// Small files wait for the disk one by one; with more threads than this they wait for each other.
constexpr size_t N_THREADS = 3;
constexpr uint32 FILE_BITS = 0777, FOLDER_BITS = 01777;

uint64 wholeBlocks(int64 bytes) {
    return (static_cast<uint64>(bytes) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE * ZqBlocks::SIZE;
}

void requireRunning(const ZqTaskMon& progress) {
    if (progress.stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

} // namespace

ZqTreeCopy::ZqTreeCopy(std::string source_, std::string target_, std::string shown_)
    : source(std::move(source_)),
      target(std::move(target_)),
      shown(std::move(shown_)) {
}

void ZqTreeCopy::fail(const Entry& entry, int64 error, int line) const {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line),
                      "Cannot copy " + from(entry) + " to " + below(shown, entry.path), UNIT, line);
}

void ZqTreeCopy::list(const ZqTaskMon& progress) {
    SxOs& os = SxOs::get();
    SxStat info;
    const int found = os.lstat(source, &info);
    if (found == -ENOENT) return;
    if (found < 0) fail({}, found, __LINE__);
    take("", info);
    // The list grows by what its folders hold.
    for (size_t next = 0; next < entries.size();) {
        const Entry entry = entries[next++];
        if (entry.info.kind != SxStat::Dir) continue;
        requireRunning(progress);
        std::vector<std::string> names;
        const int listed = os.list(from(entry), &names);
        if (listed < 0) fail(entry, listed, __LINE__);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            std::string path = entry.path;
            if (!path.empty()) path += '/';
            path += name;
            if (left.contains(path)) continue;
            const int looked = os.lstat(below(source, path), &info);
            if (looked < 0) fail({path, {}}, looked, __LINE__);
            take(path, info);
        }
    }
    std::map<std::pair<uint64, uint64>, size_t> firstNames;
    for (size_t i = 0; i < entries.size(); ++i) {
        const SxStat& file = entries[i].info;
        if (file.kind != SxStat::File) continue;
        ++nFiles;
        if (file.nNames > 1) {
            const auto [first, isNew] = firstNames.try_emplace({file.device, file.inode}, i);
            if (!isNew) {
                others.emplace_back(first->second, i);
                continue;
            }
        }
        nNeeded += wholeBlocks(file.size);
        files.push_back(i);
    }
}

void ZqTreeCopy::take(const std::string& path, const SxStat& info) {
    if (info.kind == SxStat::Other) {
        // An overlay's mark says that there is nothing.
        if (info.isRemoval) return;
        zqLogMsg("base", "'" + SxString(below(source, path)) + "' is passed over: it is no plain file");
        ++nSkipped;
        return;
    }
    if (info.kind != SxStat::File) nNeeded += ZqBlocks::SIZE;
    entries.push_back({path, info});
}

void ZqTreeCopy::copy(ZqTaskMon* progress, int64 t0) {
    SxOs& os = SxOs::get();
    for (const Entry& entry : entries) {
        if (entry.info.kind != SxStat::Dir) continue;
        // It must be writable until it is filled.
        const int made = os.makeDir(to(entry), 0700);
        if (made < 0) fail(entry, made, __LINE__);
    }
    copyFiles(progress, t0);
    for (const auto& [first, other] : others) {
        const int linked = os.link(to(entries[first]), to(entries[other]));
        if (linked < 0) fail(entries[other], linked, __LINE__);
    }
    for (const Entry& entry : entries)
        if (entry.info.kind == SxStat::Link) copyLink(entry);
    requireRunning(*progress);
}

void ZqTreeCopy::copyFiles(ZqTaskMon* progress, int64 t0) {
    const auto work = [&] {
        std::vector<char> buffer;
        try {
            for (size_t i = nTaken++; i < files.size() && !hasFailed; i = nTaken++) {
                requireRunning(*progress);
                copyFile(entries[files[i]], &buffer, progress, t0);
            }
        } catch (const SxException&) {
            hasFailed = true;
            throw;
        }
    };
    ZqJobsTogether threads;
    for (size_t i = 0; i < std::min(N_THREADS, files.size()); ++i)
        threads.start("extract copy", work);
    threads.wait();
}

void ZqTreeCopy::copyFile(const Entry& entry, std::vector<char>* buffer, ZqTaskMon* progress,
                          int64 t0) const {
    try {
        SxFileIO in(SxString(from(entry)), "rb"), out;
        out.create(SxString(to(entry)), 0600);
        const int64 size = entry.info.size;
        if (size > CHUNK) in.adviseSequential();
        if (static_cast<int64>(buffer->size()) < std::min(size, CHUNK))
            buffer->resize(static_cast<size_t>(std::min(size, CHUNK)));
        for (int64 done = 0; done < size;) {
            requireRunning(*progress);
            const int64 n = std::min(size - done, CHUNK);
            if (in.readBuffer(buffer->data(), n) != n) {
                throw SxException(SxString("The file became shorter than its ") + size + " bytes", UNIT,
                                  __LINE__);
            }
            out.writeBuffer(buffer->data(), n);
            done += n;
            progress->addNCurrent(static_cast<uint64>(n));
            progress->updateSpeed(t0);
        }
        int kept = SxOs::get().setPermissionsFd(out.getFd(), entry.info.permissions & FILE_BITS);
        if (kept == 0) kept = SxOs::get().setModifiedFd(out.getFd(), entry.info.modifiedNs);
        if (kept < 0) throw SxException(SxOs::errorText(kept), UNIT, __LINE__);
        out.close();
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        throw SxException(e, "Cannot copy " + from(entry) + " to " + below(shown, entry.path), UNIT,
                          __LINE__);
    }
}

void ZqTreeCopy::copyLink(const Entry& entry) const {
    SxOs& os = SxOs::get();
    std::string leadsTo;
    int result = os.readLink(from(entry), &leadsTo);
    if (result == 0) result = os.symlink(leadsTo, to(entry));
    if (result == 0) result = os.setModified(to(entry), entry.info.modifiedNs);
    if (result < 0) fail(entry, result, __LINE__);
}

void ZqTreeCopy::finish() const {
    SxOs& os = SxOs::get();
    // What lies in a folder first, since the folder may not be written to after this.
    for (size_t i = entries.size(); i-- > 0;) {
        const Entry& entry = entries[i];
        if (entry.info.kind != SxStat::Dir) continue;
        int result = os.setPermissions(to(entry), entry.info.permissions & FOLDER_BITS);
        if (result == 0) result = os.setModified(to(entry), entry.info.modifiedNs);
        if (result < 0) fail(entry, result, __LINE__);
    }
}
