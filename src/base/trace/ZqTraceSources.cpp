#include "ZqTraceSources.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqRecordFile.h"
#include "ZqSysEnv.h"
#include "ZqTraceFiles.h"
#include "ZqTraceParams.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <random>

using SxParserKit::SxSymbol;

bool ZqTraceSources::isPlainName(const SxString& name) {
    return !name.isEmpty() && !(name == ".") && !(name == "..") && name.contains("/") == 0;
}

bool ZqTraceSources::isTraceFolder(const SxString& path) {
    bool isRest = true;
    for (const SxFileInfo& info : SxFSAction::ls(path)) {
        const SxString name = info.getName();
        if (name == ZqTraceFiles::ITEMS || name == ZqTraceFiles::RECORD) return true;
        isRest = isRest && ZqTraceFiles::isRest(name);
    }
    return isRest;
}

bool ZqTraceSources::holdsTraceAlone(const SxString& path) {
    for (const SxFileInfo& info : SxFSAction::ls(path)) {
        if (info.isDir() || !ZqTraceFiles::isOwn(info.getName())) return false;
    }
    return true;
}

SxString ZqTraceSources::newName(const SxString& tracesPath) {
    for (;;) {
        const SxString salt = SxString(ZqSysEnv::getSysTime()) + SxString(std::random_device()());
        SxString name = SxTime::strftime("%y%m%d_%H%M_") + ZqSysEnv::getUserId() + "_" + SxMd5::get(salt);
        if (!SxFSAction::exists(tracesPath + name)) return name;
    }
}

ZqTraceSources::Folder ZqTraceSources::look(const SxString& tracesPath, const SxString& name) {
    const SxString path = tracesPath + name + "/";
    Folder folder;
    folder.name = name;
    if (SxFSAction::sizeOf(path + ZqTraceFiles::RECORD) >= 0) {
        folder.record = SxMd5::file(path + ZqTraceFiles::RECORD);
    }
    folder.size = SxFSAction::sizeOf(path + ZqTraceFiles::ITEMS);
    return folder;
}

void ZqTraceSources::add(const SxString& tracesPath, const SxString& name) {
    Folder folder = look(tracesPath, name);
    if (name == target) {
        aside = newName(tracesPath);
        folder.name = aside;
    }
    folders.push_back(folder);
}

SxString ZqTraceSources::keepAside(const SxString& tracesPath, const SxString& mark) {
    aside = target + "-" + mark;
    const bool isFit = std::all_of(mark.str().begin(), mark.str().end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
    if (mark.isEmpty() || !isFit || SxFSAction::exists(tracesPath + aside)) aside = newName(tracesPath);
    return aside;
}

void ZqTraceSources::write(const SxString& path) const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("target", target);
    root.append("aside", aside);
    SxSymbol list = root.append("folders", SxParserAst::Array);
    for (const Folder& folder : folders) {
        SxSymbol entry = list.append(SxParserAst::Object);
        entry.append("name", folder.name);
        entry.append("record", folder.record);
        entry.append("size", folder.size);
    }
    ZqRecordFile::write(root, path + ZqTraceFiles::SOURCES);
}

std::optional<ZqTraceSources> ZqTraceSources::read(const SxString& path) {
    // A trace that was cut off while it was written has no record yet.
    if (!SxFSAction::test_f(path + ZqTraceFiles::SOURCES) || !ZqTraceParams::isValid(path)) return {};
    // A disk that fails says nothing of the note: without it, what went in would be joined again.
    const SxString text = SxFileIO::readUtf8(path + ZqTraceFiles::SOURCES);
    try {
        SxJSONParser parser;
        parser.readString(text, path + ZqTraceFiles::SOURCES);
        const SxSymbol root = parser.getRootSymbol();
        ZqTraceSources note(root.getElem("target").toString());
        note.aside = root.getElem("aside").toString();
        const SxSymbol list = root.getElem("folders");
        bool isSound = isPlainName(note.target) && (note.aside.isEmpty() || isPlainName(note.aside));
        for (int64 i = 0; i < list.getSize(); ++i) {
            Folder folder;
            folder.name = list.at(i).getElem("name").toString();
            folder.record = list.at(i).getElem("record").toString();
            folder.size = list.at(i).getElem("size").toInt();
            isSound = isSound && isPlainName(folder.name) && !(folder.name == note.target);
            note.folders.push_back(folder);
        }
        if (isSound) return note;
        zqLogMsg("base", "ZqTraceBuilder::main: " + path + ZqTraceFiles::SOURCES +
                             " names what is no folder of traces");
    } catch (const SxException& e) {
        zqLogMsg("base",
                 "ZqTraceBuilder::main: Cannot read " + path + ZqTraceFiles::SOURCES + ": " + e.what());
    }
    return {};
}

void ZqTraceSources::putInPlace(const SxString& tracesPath, const SxString& name) const {
    const SxString place = tracesPath + target;
    if (SxFSAction::exists(place)) {
        ZqTraceRecords::refuseRecording(place + "/");
        // What was recorded under this name since is no source and will be a run of the next sweep.
        const bool isFree = !aside.isEmpty() && !SxFSAction::exists(tracesPath + aside);
        SxFSAction::mv(place, tracesPath + (isFree ? aside : newName(tracesPath)));
        SxFSAction::syncDir(tracesPath);
    }
    SxFSAction::mv(tracesPath + name, place);
    SxFSAction::syncDir(tracesPath);
}

bool ZqTraceSources::isAsNoted(const SxString& tracesPath, const Folder& noted) {
    if (ZqTraceRecords::isRecording(tracesPath + noted.name + "/")) return false;
    const Folder now = look(tracesPath, noted.name);
    // Where one of the files is missing, a removal that was cut off has taken it.
    return (now.record.isEmpty() || now.record == noted.record) && (now.size < 0 || now.size == noted.size);
}

/// Removes the files of a trace alone.
void ZqTraceSources::removeTrace(const SxString& path) {
    for (const SxFileInfo& info : SxFSAction::ls(path)) {
        if (!info.isDir() && ZqTraceFiles::isOwn(info.getName())) SxFSAction::rm(info.getAbsPath());
    }
    SxFSAction::syncDir(path);
}

ZqTraceSources::Gone ZqTraceSources::removeAll(const SxString& tracesPath) const {
    Gone gone;
    // By the listing, which fails where it can't tell: a source that is passed over would be joined again.
    for (const SxFileInfo& info : SxFSAction::ls(tracesPath)) {
        const auto noted = std::find_if(folders.begin(), folders.end(),
                                        [&](const Folder& folder) { return folder.name == info.getName(); });
        if (noted == folders.end() || !isAsNoted(tracesPath, *noted)) continue;
        const SxString path = tracesPath + noted->name + "/";
        if (holdsTraceAlone(path)) {
            zqLogMsg("base", "ZqTraceBuilder::main: Removing trace folder " + info.getAbsPath());
            SxFSAction::rm_r(info);
            if (!(noted->name == aside)) gone.removed << noted->name;
        } else {
            zqLogMsg("base", "ZqTraceBuilder::main: Removing only the trace in " + info.getAbsPath());
            removeTrace(path);
            gone.emptied << noted->name;
        }
    }
    SxFSAction::syncDir(tracesPath);
    return gone;
}

ZqTraceSources::Gone ZqTraceSources::finish(const SxString& tracesPath, const SxString& name) const {
    if (!(name == target)) putInPlace(tracesPath, name);
    Gone gone = removeAll(tracesPath);
    SxFSAction::rm(tracesPath + target + "/" + ZqTraceFiles::SOURCES);
    SxFSAction::syncDir(tracesPath + target + "/");
    return gone;
}
