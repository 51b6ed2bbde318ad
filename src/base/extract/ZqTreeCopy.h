#pragma once

#include "SxOs.h"

#include <atomic>
#include <set>
#include <vector>

class ZqTaskMon;

/// A copy of a folder, or of one file, as it is: with modes, times of change, links, names of one file in
/// several folders, and empty folders, but without set-id bits and owners. Several files are copied at a
/// time. Nothing is synced. What is neither a file nor a folder nor a link is passed over. Paths are host
/// paths without a slash at the end. One thread.
///
/// Links are made after all files, so that nothing is ever written through one of a hostile drive.
class ZqTreeCopy {
public:
    /// `shown_`: how failures name the target.
    ZqTreeCopy(std::string source_, std::string target_, std::string shown_);

    /// What has that name, relative to the source, isn't copied. Before list().
    void leaveOut(const std::string& name) { left.insert(name); }
    /// Looks at all that is to be copied. `progress` may ask to stop, which raises.
    void list(const ZqTaskMon& progress);
    /// Whether the source is missing, or a folder with nothing in it.
    bool isEmpty() const { return entries.size() <= 1; }
    /// Bytes of the copy, each file in whole blocks, each folder and link as a block.
    uint64 getNNeeded() const { return nNeeded; }
    int64 getNFiles() const { return nFiles; }
    int64 getNSkipped() const { return nSkipped; }

    /// Copies. The target is missing, and the folder that it lies in is there. Adds the bytes to `progress`,
    /// and its speed since `t0` (system time in milliseconds). Raises where that asks to stop.
    void copy(ZqTaskMon* progress, int64 t0);
    /// Gives the folders their modes and times, when nothing more comes into them.
    void finish() const;

private:
    struct Entry {
        std::string path; ///< relative; empty for the source itself
        SxStat info;
    };

    void take(const std::string& path, const SxStat& info);
    void copyFiles(ZqTaskMon* progress, int64 t0);
    void copyFile(const Entry& entry, std::vector<char>* buffer, ZqTaskMon* progress, int64 t0) const;
    void copyLink(const Entry& entry) const;
    [[noreturn]] void fail(const Entry& entry, int64 error, int line) const;
    std::string from(const Entry& entry) const { return below(source, entry.path); }
    std::string to(const Entry& entry) const { return below(target, entry.path); }
    static std::string below(const std::string& folder, const std::string& path) {
        return path.empty() ? folder : folder + "/" + path;
    }

    const std::string source, target, shown;
    std::set<std::string> left;
    std::vector<Entry> entries;                    ///< a folder before what it holds
    std::vector<size_t> files;                     ///< of these, the files of which this is the first name
    std::vector<std::pair<size_t, size_t>> others; ///< further names, with the first one
    uint64 nNeeded = 0;
    int64 nFiles = 0, nSkipped = 0;
    std::atomic<size_t> nTaken{0};
    std::atomic<bool> hasFailed{false};
};
