#pragma once

#include "SxList.h"
#include "SxString.h"
#include "SxTypes.h"

#include <vector>

/// The files with documents of a fleet. A plain value.
class ZqFleetFiles {
public:
    /// `given`: files, each taken as it is, and folders. Of a folder the files below it count that end in
    /// `.json`, `.jsonl` or `.ndjson`, but for those that an image, a trace or a patch is described by. Links
    /// in it aren't followed. Raises where one of them isn't there or can't be listed, and where a file is
    /// one of `outputs`, which will be written.
    ZqFleetFiles(const SxList<SxString>& given, const SxList<SxString>& outputs_);

    /// Those of a folder by their names.
    const std::vector<SxString>& getPaths() const { return paths; }
    /// Of all of them, when they were found.
    uint64 getNBytes() const { return nBytes; }

private:
    void addBelow(const SxString& folder);
    void add(const SxString& path);

    const SxList<SxString>& outputs;
    std::vector<SxString> paths;
    uint64 nBytes = 0;
};
