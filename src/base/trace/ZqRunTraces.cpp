#include "ZqRunTraces.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"
#include "ZqTraceSources.h"

#include <algorithm>

namespace {

constexpr uint64 UNMADE = 0; ///< in the place of the inode of a folder that a mount has yet to make

void log(const SxString& text) {
    zqLogMsg("base", "ZqRunTraces : " + text);
}

} // namespace

ZqRunTraces::ZqRunTraces(const SxString& image)
    : folder(ZqImageFolder::prefix(image) + ZqImageFiles::TRACES),
      note(ZqImageFolder::prefix(image) + ZqImageFiles::TRACES_NOTE) {
}

void ZqRunTraces::begin(const SxString& path) {
    try {
        const SxString name = SxFileInfo(path).getName();
        std::vector<Entry> entries = othersThan(name);
        entries.push_back({UNMADE, name});
        write(entries);
    } catch (const SxException& e) {
        log(SxString("cannot note the trace that begins: ") + e.what());
    }
}

void ZqRunTraces::drop(const SxString& path) {
    try {
        if (SxFSAction::exists(path)) remove(SxFileInfo(path).getName());
    } catch (const SxException& e) {
        log(SxString("cannot remove the trace of a mount that failed: ") + e.what());
    }
}

void ZqRunTraces::add(const SxString& path, int64 nMost) {
    try {
        const SxString name = SxFileInfo(path).getName();
        std::vector<Entry> entries = othersThan(name);
        if (const auto info = SxFSAction::look(path)) entries.push_back({info->inode, name});
        const auto firstKept =
            entries.begin() + static_cast<std::ptrdiff_t>(countOver(entries.size(), nMost));
        // Before the note is written: a folder that is noted and gone is passed over, but one that is there
        // and not noted would stay for good.
        for (auto entry = entries.begin(); entry != firstKept; ++entry)
            remove(entry->name);
        write({firstKept, entries.end()});
    } catch (const SxException& e) {
        log(SxString("cannot look after the traces of former runs: ") + e.what());
    }
}

SxList<SxString> ZqRunTraces::getOver(int64 nMost) const {
    SxList<SxString> names;
    try {
        const std::vector<Entry> entries = othersThan("");
        for (size_t i = 0; i < countOver(entries.size(), nMost); ++i)
            names.append(entries[i].name);
    } catch (const SxException& e) {
        log(SxString("cannot tell which traces are too many: ") + e.what());
    }
    return names;
}

size_t ZqRunTraces::countOver(size_t n, int64 nMost) {
    const size_t most = nMost > 0 ? static_cast<size_t>(nMost) : n;
    return n > most ? n - most : 0;
}

void ZqRunTraces::follow(const SxString& from, const SxString& to) {
    try {
        std::vector<Entry> entries = read();
        const auto entry = std::find_if(entries.begin(), entries.end(),
                                        [&](const Entry& each) { return each.name == from; });
        const auto info = SxFSAction::look(folder + to);
        if (entry == entries.end() || !info || !isThere(*entry)) return;
        *entry = {info->inode, to};
        write(entries);
    } catch (const SxException& e) {
        log(SxString("cannot note the new name of a trace: ") + e.what());
    }
}

std::vector<ZqRunTraces::Entry> ZqRunTraces::othersThan(const SxString& name) const {
    std::vector<Entry> others;
    for (const Entry& entry : read()) {
        if (isThere(entry) && !(entry.name == name)) others.push_back(entry);
    }
    return others;
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
    return info && info->kind == SxStat::Dir && (entry.inode == UNMADE || info->inode == entry.inode);
}

void ZqRunTraces::remove(const SxString& name) const {
    const SxString path = folder + name + "/";
    if (!ZqTraceSources::holdsTraceAlone(path) || ZqTraceRecords::isRecording(path) ||
        ZqTraceLock::isHeld(path)) {
        return log("'" + path + "' holds something else than a trace, or is written: it stays");
    }
    log("removing the trace in " + path);
    SxFSAction::rm_r(path);
}
