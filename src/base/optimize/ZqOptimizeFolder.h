#pragma once

#include "SxString.h"
#include "ZqImageFiles.h"
#include "ZqMovePlan.h"
#include "ZqStreamRecord.h"

#include <span>

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
    SxString index;               ///< the index folder that goes at the end, see ZqConsumedIndex; or empty
    ZqMovePlan::Limits limits;    ///< in place
    ZqStreamRecord::Stamp source; ///< by copy: of `img.zqf`

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
    /// An index folder that is looked at, and must not come into the way of what was begun before.
    static constexpr const char* STAGED = "index/";
    /// Bytes of the disk for records, note and progress.
    static constexpr uint64 ROOM_FOR_RECORDS = 1 << 20;
    /// All that an index folder holds, what it is known by last.
    static constexpr const char* INDEX_FILES[] = {ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX,
                                                  ZqImageFiles::IDX_MD5,    ZqImageFiles::IDX_7Z,
                                                  ZqImageFiles::HINTS,      ZqImageFiles::APP_JSON};

    /// `image` is the image folder with its trailing slash.
    explicit ZqOptimizeFolder(const SxString& image_);

    enum State {
        Nothing,   ///< nothing has begun that could be gone on with
        CopyBegun, ///< a copy may have begun; the image is what it was
        Moving,    ///< blocks are on their way within the image
        Replacing, ///< the blocks are where they belong; records, and maybe a copy, are taking their places
        Done,      ///< all has its place; what was needed for it is being removed
        Lost       ///< blocks or records may be on their way, and nothing tells how far
    };
    /// How far an optimisation has come, whether the lock is there or somebody has removed it. Raises where
    /// the files say nothing of it, or can't be read.
    State state() const;
    bool isLocked() const;
    /// Notes the state once more, before anybody goes on by it: who was killed while it noted it has left it
    /// in memory alone, perhaps.
    void confirm() const;

    /// With its trailing slash.
    const SxString& getPath() const { return path; }
    SxString file(const char* name) const { return path + name; }
    bool has(const char* name) const;
    /// Raises where the folder is a link, or holds anything but plain files of an optimisation.
    void requireOwn() const;

    void make() const;
    void writeNote(const ZqOptimizeNote& note) const;
    ZqOptimizeNote readNote() const;
    /// XXH64 of the note, which ties the progress to it.
    uint64 digestNote() const;
    /// Makes `optimize.lock`. All that lies in the folder is on the device by then.
    void lock() const;

    /// Whether an index folder has hints that can be taken at all, by their kind and size.
    static bool hasHints(const SxString& index);
    /// Copies what an index folder has of records, map and hints.
    static void copyIndex(const SxString& from, const SxString& to);
    /// What was begun works with the staged index folder from here on. All else goes, unless `keepsCopy` the
    /// note and a copy of the image's blocks.
    void takeStaged(bool keepsCopy) const;
    /// Nothing is noted any longer of how far it has come; on the device.
    void removeProgress() const;
    SxString getStaged() const { return path + STAGED; }
    /// What the folder has beyond map, records and img.zqf, a sum of what ZqMoveProgress has of such.
    uint64 findReplaced() const;
    /// Puts what the folder has of img.json, app.json, img.idx, img.idx.md5, img.hints, and of a copy img.zqf
    /// and the stretches that are kept beside it, in the place of the image's, in that order.
    void replace(ZqOptimizeNote::Mode mode) const;
    /// Removes all, the lock last but for the folder. Under the lock what tells how far all has come is the
    /// last file that goes, without it the first.
    void remove() const;

private:
    bool hasAny(std::span<const char* const> names) const;

    const SxString image, path;
};
