#pragma once

#include "SxList.h"
#include "SxPtr.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqTaskMon.h"

class SxFileIO;
class ZqSeekTable;

/// Job that checks an image folder as far as it is there: records, sizes, the map's invariants, digests,
/// and the packed forms where they are there.
/// Holds a shared lock on the image. Progress in bytes. What it finds is in the lists once it has ended; a
/// failure of the check itself leaves main().
class ZqImageCheck : public ZqTaskMon {
public:
    /// At most so many wrong entries of the map are listed one by one.
    static constexpr uint64 MAX_LISTED = 10;

    explicit ZqImageCheck(const SxString& path);

    /// What is wrong, a sentence each, naming the file.
    const SxList<SxString>& getFaults() const { return faults; }
    /// What was checked and found right, and what could not be checked and why.
    const SxList<SxString>& getNotes() const { return notes; }
    /// Whether bytes of the ZqF file are still missing, so that its digest could not be looked at.
    bool isPartial() const { return partial; }

protected:
    void main() override;

private:
    void readRecords();
    void checkMap();
    void checkPackedMap();
    void checkFileTable();
    void checkHints();
    void checkEntries(const SxArray<uint64>& map);
    void checkZqf();
    void checkPacked();
    SxPtr<ZqSeekTable> readTable(SxFileIO* packed) const;
    void checkFrames(const ZqSeekTable& table, SxFileIO* packed);
    void checkDigest(const SxString& file, const SxString& expected);
    void addFault(const SxString& text);

    const SxString pathPrefix;
    int64 startTime = 0;
    ZqAppParams app;
    ZqImageParams image;
    bool haveApp = false, haveImage = false;
    uint64 sizeZqf = 0, sizeComplete = 0;
    SxList<SxString> faults, notes;
    bool partial = false, hasPacked = false;
};
