#include "ZqRunTraces.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"
#include "ZqTraceSources.h"

namespace {

void log(const SxString& text) {
    zqLogMsg("base", "ZqRunTraces : " + text);
}

} // namespace

ZqRunTraces::ZqRunTraces(const SxString& image)
    : folder(ZqImageFolder::prefix(image) + ZqImageFiles::TRACES),
      note(ZqImageFolder::prefix(image) + NOTE) {
}

void ZqRunTraces::add(const SxString& path, int64 nMost) {
    try {
        std::vector<Entry> entries;
        for (const Entry& entry : read()) {
            if (isThere(entry)) entries.push_back(entry);
        }
        if (const auto info = SxFSAction::look(path))
            entries.push_back({info->inode, SxFileInfo(path).getName()});
        const size_t nOver = nMost > 0 && static_cast<int64>(entries.size()) > nMost
                                 ? entries.size() - static_cast<size_t>(nMost)
                                 : 0;
        const auto firstKept = entries.begin() + static_cast<std::ptrdiff_t>(nOver);
        // First: a folder that is gone is passed over, one that isn't noted would stay.
        for (auto entry = entries.begin(); entry != firstKept; ++entry)
            remove(*entry);
        write({firstKept, entries.end()});
    } catch (const SxException& e) {
        log(SxString("cannot look after the traces of former runs: ") + e.what());
    }
}

std::vector<ZqRunTraces::Entry> ZqRunTraces::read() const {
    std::vector<Entry> entries;
    if (!SxFSAction::test_f(note)) return entries;
    for (const SxString& line : SxFileIO::readLines(note, 0)) {
        bool isBad = false;
        const int64 inode = line.left(" ").toInt64(&isBad);
        const SxString name = line.right(" ");
        if (!isBad && ZqTraceSources::isPlainName(name))
            entries.push_back({static_cast<uint64>(inode), name});
    }
    return entries;
}

void ZqRunTraces::write(const std::vector<Entry>& entries) const {
    SxString text;
    for (const Entry& entry : entries)
        text += SxString(entry.inode) + " " + entry.name + "\n";
    SxFileIO::writeAtomic(note, text, 0600);
}

bool ZqRunTraces::isThere(const Entry& entry) const {
    const auto info = SxFSAction::look(folder + entry.name);
    return info && info->kind == SxStat::Dir && info->inode == entry.inode;
}

void ZqRunTraces::remove(const Entry& entry) const {
    const SxString path = folder + entry.name + "/";
    if (!ZqTraceSources::holdsTraceAlone(path) || ZqTraceRecords::isRecording(path) ||
        ZqTraceLock::isHeld(path)) {
        return log("'" + path + "' holds something else than a trace, or is written: it stays");
    }
    log("removing the trace of an old run, " + path);
    SxFSAction::rm_r(path);
}
