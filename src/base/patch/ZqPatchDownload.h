#pragma once

#include "SxArray.h"
#include "SxPtr.h"
#include "ZqPatchParams.h"
#include "ZqPatchSizes.h"
#include "ZqPatchWork.h"
#include "ZqRemoteFile.h"
#include "ZqTaskMon.h"

#include <vector>

/// Job that brings a patch folder from its server into the private copy of an image's work folder. The owner
/// calls fetchRecord(), readRecord() and fetchLists() first; main() then brings `patch.data` in its order, so
/// that its parts can be applied meanwhile. Progress in bytes of that.
///
/// A part's stream ends in the file only once all of it is right: what is wrong is cut off, and fetched once
/// more over another connection. What a killed run, or a power cut, has left of the file goes on as far as it
/// is sure to be right. A failure leaves main(); what came before it stays.
class ZqPatchDownload : public ZqTaskMon {
public:
    /// `work_` outlives the job. `headers_`: lines for each request.
    ZqPatchDownload(const ZqPatchWork& work_, const SxString& url_, const SxArray<SxString>& headers_,
                    const ZqNetAccess& access);

    /// The address as texts show it.
    SxString getName() const;
    /// The text of the server's `patch.json`.
    SxString fetchRecord(const ZqStopTest& stop);
    /// Reads that text, whatever it came from.
    const ZqPatchParams& readRecord(const SxString& record);
    /// After readRecord(): brings all but `patch.data` into the private copy, and reads the lists. A copy
    /// that is there goes on where it is of that patch, and makes way where it is of another.
    void fetchLists(const ZqStopTest& stop);

    // After fetchLists().
    const std::vector<ZqPatchSizes>& getParts() const { return parts; }
    /// Cuts `patch.data` where the stream of a part that is there isn't right any longer, so that it comes
    /// anew. Not while the job runs.
    void cutWrong(size_t part) const;
    /// Bytes of `patch.data` that are still to come.
    uint64 getMissing() const;
    /// Bytes that this job has fetched; from any thread.
    uint64 getNFetched() const { return nFetched.load(); }

protected:
    void main() override;

private:
    class Writer;

    SxPtr<ZqRemoteFile> remote(const char* name, uint64 size = ZqRemoteFile::UNKNOWN) const;
    void fetchFile(const char* name, uint64 size, const SxString& md5, const ZqStopTest& stop);
    void requireRecords() const;
    SxException noPatch(const SxException& why) const;
    bool isSame(const ZqStopTest& stop);
    void fetchData(const ZqStopTest& stop);
    SxString fileOf(const char* name) const;

    const ZqPatchWork& work;
    const SxString url;
    const SxArray<SxString> headers;
    const SxPtr<ZqNetLink> link;
    SxString digest; ///< MD5 text of patch.json
    ZqPatchParams params;
    std::vector<ZqPatchSizes> parts;
    std::atomic<uint64> nFetched{0};
};
