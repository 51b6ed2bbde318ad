#pragma once

#include "SxString.h"
#include "ZqMovePlan.h"

/// What an optimisation was begun with, the file `move.json` of its work folder.
struct ZqOptimizeNote {
    enum Mode { InPlace, Copy };
    /// One order of the image's blocks.
    struct Order {
        SxString idx;       ///< MD5 text of its `img.idx`
        uint64 sizeZqf = 0; ///< bytes of its complete `img.zqf`
        bool operator==(const Order&) const = default;
    };

    Mode mode = InPlace;
    SxString guid; ///< of the RAW image
    Order from, to;
    SxString index;            ///< the index folder that is removed at the end; empty for none
    ZqMovePlan::Limits limits; ///< in place

    /// The record as a file holds it.
    SxString toText() const;
    /// Raises where the text is no such record, or one of a later format; failures name it `file`.
    static ZqOptimizeNote parse(const SxString& text, const SxString& file);
};

/// The folder `optimize.work` of an image, which holds all that an optimisation needs to go on after a kill
/// or a power cut, and what its beginning and end have to do there. `optimize.lock` beside it says that
/// neither order describes `img.zqf`, or that records and blocks are being replaced. Whoever calls holds
/// ZqImageLock::Shape exclusively; nothing is locked here. docs/file-formats.md has the files.
class ZqOptimizeFolder {
public:
    static constexpr const char* NOTE = "move.json";
    static constexpr const char* HEADS = "heads";
    static constexpr const char* PROGRESS = "progress";
    /// The index folder of a forecast, which must not come into the way of what was begun.
    static constexpr const char* FORECAST = "forecast/";

    /// `image` is the image folder with its trailing slash.
    explicit ZqOptimizeFolder(const SxString& image_);

    /// With its trailing slash.
    const SxString& getPath() const { return path; }
    SxString file(const char* name) const { return path + name; }
    bool has(const char* name) const;
    /// Whether there is no such folder, or nothing in it.
    bool isEmpty() const;
    bool isLocked() const;
    /// Whether the lock stands beside an empty folder: all is done but for their removal.
    bool isDone() const;

    /// Whether blocks have moved and the lock isn't there any longer: somebody has removed it.
    bool lacksLock() const;
    /// Raises where the folder is a link, or holds anything but plain files of an optimisation.
    void requireOwn() const;

    void make() const;
    void writeNote(const ZqOptimizeNote& note) const;
    ZqOptimizeNote readNote() const;
    /// XXH64 of the note, which ties the progress to it.
    uint64 digestNote() const;
    /// Makes `optimize.lock`. All that lies in the folder is on the device by then.
    void lock() const;

    /// Copies what an index folder has of records and map.
    static void copyIndex(const SxString& from, const SxString& to);
    /// Puts what the folder has of img.json, app.json, img.idx, img.idx.md5, img.zqf and the stretches that
    /// are kept beside it in the place of the image's, in that order.
    void replace() const;
    /// Removes all but the note and a copy of the image's blocks.
    void removeRecords() const;
    /// Removes the files, those that tell how far all has come last, then the lock, then the folder.
    void remove() const;

private:
    void removeFile(const char* name) const;

    const SxString image, path;
};
