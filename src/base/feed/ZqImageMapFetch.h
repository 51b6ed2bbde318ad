#pragma once

#include "SxSystemThread.h"
#include "ZqAppParams.h"
#include "ZqRemoteFile.h"

#include <atomic>

/// Brings the map `img.idx` into an image folder from its server, on a thread of its own. A first mount has
/// to wait for the map, so it comes from `img.idx.zst` where the server has that and it is of this map, else
/// from `img.idx`. The packed form holds the differences of the map's entries: of these zstd makes a
/// twenty-fifth to a seventieth, where it makes a seventh of the entries themselves, in a tenth of the time.
/// Where the server doesn't answer for one of the two the other is asked for, in turns. What came of either
/// is kept beside the map's place until the map is there, so that a later run goes on with it. What is wrong
/// as a whole is fetched once more, in the form that was wrong.
class ZqImageMapFetch : public SxSystemThread {
public:
    /// `app` states the map's size and digest, that one empty where it isn't known. `folder_` is the image
    /// folder with a slash at its end, `url_` its address, see ZqRemoteFile::urlIn().
    ZqImageMapFetch(const SxPtr<ZqNetLink>& link_, const SxString& folder_, const SxString& url_,
                    const SxArray<SxString>& headers_, const ZqAppParams& app, const ZqStopTest& stop_);

    /// What is told how many bytes of the wire are still to come, as far as the server has told; none where
    /// it is null. To be called before the start; must outlive the thread.
    void setLeft(std::atomic<uint64>* left) { nLeft = left; }
    /// Waits for the end, and raises what went wrong.
    void finish();

protected:
    void main() override;

private:
    /// One of the two files that a map is made of.
    struct Form {
        const char* name;
        SxString part; ///< what came of it so far
        uint64 maxSize;
        bool isPacked;
    };

    bool tryForm(const Form& form, bool* mayCome, bool hasOther);
    void beginTurn(bool hasOther) const;
    void fetch(const Form& form);
    /// Adds to what has come of a form; `*isMixed` tells whether mirrors gave it that tell other versions.
    /// Without a digest to check it by, it comes as one, and of one of them.
    void download(const Form& form, bool isFresh, bool* isMixed) const;
    void take(const Form& form) const;
    void decode(const SxString& packed) const;
    void removePart(const Form& form) const;

    const SxPtr<ZqNetLink> link;
    const SxString folder, url;
    const SxArray<SxString> headers;
    const uint64 sizeIdx;
    const SxString digest; ///< MD5 text of the map; empty where it isn't known
    const ZqStopTest stop;
    const SxPtr<ZqNetRetry> retry; ///< of both forms
    std::atomic<uint64>* nLeft = nullptr;
};
