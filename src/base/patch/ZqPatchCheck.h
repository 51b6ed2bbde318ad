#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "ZqPatchInfo.h"
#include "ZqPatchParams.h"
#include "ZqTaskMon.h"

#include <functional>

class SxIndexSet;

/// Job that checks a patch folder without an image: records, sizes and digests, the lists of the map and of
/// the parts, and the stream of each part. Progress in bytes of `patch.data`. What it finds is in the list
/// once it has ended; a failure of the check itself leaves main(). Takes no lock.
class ZqPatchCheck : public ZqTaskMon {
public:
    /// Only so many faults are told one by one.
    static constexpr int64 MAX_LISTED = 10;

    /// `scratch_` is an empty folder for what is unpacked. Both with or without trailing slashes.
    ZqPatchCheck(const SxString& patch_, const SxString& scratch_);

    /// What is wrong, a sentence each, naming the file.
    const SxList<SxString>& getFaults() const { return faults; }
    // After the end, as far as it could be read.
    const ZqPatchParams& getParams() const { return params; }
    uint64 getNParts() const { return static_cast<uint64>(parts.getSize()); }
    uint64 getNKept() const { return nKept; }       ///< blocks that both versions have
    uint64 getNChanged() const { return nChanged; } ///< blocks that come with the patch

protected:
    void main() override;

private:
    void check();
    bool readRecords();
    SxString takeArchive(const char* archive, const char* file, uint64 size, const SxString& md5);
    bool attempt(const std::function<void()>& read);
    bool readMap(const SxString& file);
    bool readParts(const SxString& file);
    void checkMap(SxIndexSet* isMade);
    void checkParts(SxIndexSet* isMade);
    void checkData();
    void addFault(const SxString& text);
    void refuseStop() const;

    const SxString patch, scratch; ///< with trailing slashes
    ZqPatchParams params;
    SxArray<uint64> map; ///< `map.idx`
    SxList<ZqPatchInfo> parts;
    SxList<SxString> faults;
    uint64 nMore = 0;          ///< faults beyond those
    uint64 nOld = 0, nNew = 0; ///< items of both images; 0 where that couldn't be read
    uint64 nKept = 0, nChanged = 0;
};
