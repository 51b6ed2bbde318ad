#pragma once

#include "ZqLaunchValues.h"

#include <functional>
#include <optional>

/// The record `stream.json` of an image folder: where the image comes from, and which application a run has
/// started from it, so that the next run can go on. Written by runs, and by what lets a drive write into
/// `img.zqf`. read() and write() don't lock; update() does, and one process goes after the other there. The
/// file is for its user alone, since an address may hold a password.
class ZqStreamRecord {
public:
    SxString url;         ///< address of the image's folder; empty where none is known
    SxString trustFile;   ///< see ZqNetAccess; a host path, empty where none was given for this image
    SxString proxy;       ///< see ZqNetAccess, without a password; likewise
    int64 nStarts = 0;    ///< applications started so far
    int64 nUntraced = 0;  ///< of these, those since the last one whose run recorded a trace
    SxString application; ///< process group of the last of them, see SxProcessGroup::toText(); empty for none
    SxString verified;    ///< digest that the complete `img.zqf` was found to have; empty for none
    /// An `img.zqf` as it was at some moment: another size or time tells that it was changed.
    struct Stamp {
        int64 size = -1;      ///< bytes
        int64 modifiedMs = 0; ///< milliseconds since 1970 UTC
        bool operator==(const Stamp&) const = default;
        /// That of the file in the image folder; size -1 where there is none.
        static Stamp of(const SxString& image);
    };
    Stamp verifiedStamp; ///< of the file when `verified` was taken
    /// A partial `img.zqf` as its download has left it: another size or time tells that somebody else has
    /// changed it.
    struct Left {
        int64 size = -1;      ///< bytes; -1 for none
        int64 modifiedNs = 0; ///< nanoseconds since 1970 UTC
        bool operator==(const Left&) const = default;
        /// That of the file in the image folder.
        static Left of(const SxString& image);
    };
    Left left;              ///< none while a download goes on, and after one that was killed
    bool isWritten = false; ///< a drive may have written into `img.zqf`, so that its digest tells nothing

    /// How the application is started without a launcher, and how mounts have written it into `app.json`: one
    /// that was cut off may have left the values of the one before.
    struct Launch {
        ZqLaunchValues original;
        SxList<ZqLaunchValues> written;
    };
    std::optional<Launch> launch; ///< none where no launcher was set up

    /// Whether the image's `img.zqf` was found to have that digest, and is as it was then.
    bool isVerified(const SxString& image, const SxString& digest) const;
    /// Notes that the image's `img.zqf` is about to be written into, also where no address is known yet.
    static void noteWrites(const SxString& image);

    /// Fills the record from the image folder `image`; all defaults where it has no record. Raises
    /// "Failed to read file ..." with the cause.
    void read(const SxString& image);
    /// Replaces the record of the image folder as a whole. Raises "Failed to write file ..." with the cause.
    void write(const SxString& image) const;
    /// Reads the record, lets `change` change it, and writes it. Of several threads and processes one goes
    /// after the other. Raises as read() and write(), and where another one takes too long.
    static void update(const SxString& image, const std::function<void(ZqStreamRecord* record)>& change);
};
