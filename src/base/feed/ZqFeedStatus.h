#pragma once

#include "SxArray.h"
#include "SxString.h"
#include "ZqImageAccess.h"
#include "ZqImageFigures.h"
#include "ZqImagePlay.h"
#include "ZqNetFigures.h"

/// What an image is completed from and how; see ZqImageFeed.
struct ZqFeedSettings {
    SxString image;                  ///< the image folder; may be absent
    SxString url;                    ///< address of the folder's original; empty for the one noted in it
    SxArray<SxString> headers;       ///< lines "Name: value" for each request
    ZqAccessWish access;             ///< the way to the server; its options are noted in the folder
    uint64 rateLimit = 0;            ///< of the ordered download, bytes a second; 0 for none
    SxString job = ZqImagePlay::JOB; ///< shown to whoever finds the image in use
    /// Neither drive nor application, only the image: what the server fails to give ends it, and so does
    /// a disk that surely lacks room for the whole image, at open().
    bool isDownloadOnly = false;
    /// Compare an image that is complete at open() with its digest, unless an earlier run has done so.
    bool verifies = true;
};

/// How the completion of an image stands. Sizes in bytes of `img.zqf`, speeds in bytes a second.
struct ZqFeedStatus {
    uint64 nCurrent = 0, nTotal = 0;
    uint64 nNeeded = 0;                ///< until the application may start
    double speed = 0.;                 ///< of late
    double linkRate = 0.;              ///< of the wire, within its limit; 0 not known
    uint64 startEta = 0, totalEta = 0; ///< seconds
    bool isUnderflow = false;          ///< an underflow that on-demand requests don't resolve
    bool holdsReads = false;           ///< of the drive, for the application of a run
    bool isChecking = false;           ///< the complete image is compared with its digest
    uint64 nChecked = 0;               ///< as far as here
    uint64 nShort = 0;                 ///< what the disk lacks for the rest of it
    SxString carried;                  ///< what was kept where the server has another order, a line; or empty
    SxString waiting;                  ///< what it waits for, as a line; empty while all goes well
    ZqNetOutage outage;                ///< how long the server, or the way to it, has been away
    ZqNetFigures link;
    ZqImageFigures image;
};
