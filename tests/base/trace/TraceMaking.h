#pragma once

#include "SxFileIO.h"
#include "TempDir.h"
#include "ZqTrace.h"

#include <string>
#include <utility>
#include <vector>

using ItemList = std::vector<ZqTraceItem>;
using Params = ZqTraceParams;

/// Items of blocks at relative times, which may be negative; ~block for one with the mark.
inline ItemList at(std::initializer_list<std::pair<uint64, int64>> list) {
    ItemList items;
    for (const auto& [block, time] : list) {
        const bool flag = block > ~uint64{0} / 2;
        items.emplace_back(flag ? ~block : block, static_cast<uint64>(time), flag);
    }
    return items;
}

/// A trace of items at relative times.
inline SxString makeTrace(const TempDir& dir, const std::string& name, const ItemList& items, int64 time0 = 0,
                          const SxString& build = "build") {
    const SxString path = dir.path(name) + "/";
    Params record;
    record.time0 = time0;
    record.checksumMnt = build;
    record.write(path);
    ZqTrace trace;
    const auto absolute = SxPtr<ZqTrace::Items>::create();
    for (ZqTraceItem item : items) {
        item.time += static_cast<uint64>(time0);
        absolute->append(item);
    }
    SxFileIO file(path + "img.trc", "wb");
    ZqTrace::writeItems(&file, absolute);
    return path;
}

inline SxConstPtr<SxArray<ZqTrace>> asList(const std::vector<SxString>& paths) {
    auto list = SxPtr<SxArray<ZqTrace>>::create();
    for (const SxString& path : paths)
        list->append(ZqTrace(path));
    return list;
}
