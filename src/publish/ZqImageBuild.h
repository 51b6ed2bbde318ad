#pragma once

#include "ZqAppParams.h"
#include "ZqDriveMaker.h"
#include "ZqLeftTrace.h"
#include "ZqTaskMon.h"

/// Job that makes a drive with a file system from a folder of files, and an image folder ready to stream from
/// that. It places the files as the drive will have them (see ZqSourceTree), lets the file system's own tool
/// make a RAW image of that tree (see ZqDriveMaker), and cuts it into blocks. The folder's content lies under
/// `TAVRIN-protected/app/` on the drive, readable by all. Blocks of zeros aren't included. Progress in bytes.
/// Takes the image's lock.
///
/// The ZqF order begins with all blocks that aren't content of a file. Then comes what a mount reads of
/// content, which is `gxprefetch.info` and redirected files, and then the rest in RAW order, or as traces
/// have it.
///
/// The same folder gives the same image, byte for byte; owners and times don't count, so a patch between two
/// versions holds what has changed and not every inode. The new image is written beside what `target` holds
/// and replaces it when it is complete: after a failure or a stop everything is as it was before.
class ZqImageBuild : public ZqTaskMon {
public:
    /// What the record of the application is made of, beyond what the image itself tells.
    struct Options {
        ZqDriveMaker::FileSystem fileSystem = ZqDriveMaker::Erofs;
        /// An `app.json` that gives all fields, or empty for defaults. Its guid is kept unless it is empty,
        /// so that an application stays the same from one version to the next.
        SxString appTemplate;
        // These take the place of what the template says, unless they are empty.
        SxString cmd; ///< the path of a file of the folder stands for that file on the drive
        SxList<SxString> args;
        SxString name, window;
        /// Folder that gets the drive as `img.raw`, or empty.
        SxString rawDir;
        /// Trace folders that give the order, the load profile and the hints, or none; see ZqBlockOrder. They
        /// were recorded on an image of the same files, which has the same `checksums.mnt`.
        SxList<SxString> traces;
        /// Bytes that the drive is to have free for what is written to it, with ext4; it has a tenth of its
        /// content and 16 MiB at least. 0: only that.
        uint64 freeBytes = 0;
        /// Traces and written data that `target` holds may be lost; see ZqImageStaging.
        bool mayDiscard = false;
        /// Copy what symbolic links that lead out of `source` lead to; else they fail the build.
        bool followsLinks = false;
    };

    /// `target` is the image folder to write, `source` the folder to read.
    ZqImageBuild(const SxString& target, const SxString& source, const Options& options);

    /// After the end: whether the new image is in its place.
    bool isComplete() const { return complete; }
    // After the end, of the source: what went into the image, and what was passed over; the log names that.
    int64 getNFiles() const { return nFiles; }
    int64 getNFolders() const { return nFolders; }
    int64 getNLinks() const { return nLinks; }
    int64 getNSkipped() const { return nSkipped; }
    int64 getNFollowed() const { return nFollowed; } ///< links that gave way to what they lead to
    /// After the end: what is doubtful about the command that was given, a sentence; empty for nothing.
    const SxString& getCommandDoubt() const { return commandDoubt; }
    /// After the end: the record of the application.
    const ZqAppParams& getApp() const { return made; }
    // After the end: blocks of the drive, those of them that are included, and the bytes that a mount needs.
    uint64 getNRaw() const { return nRaw; }
    uint64 getNIncluded() const { return nIncluded; }
    uint64 getSizeMnt() const { return sizeMnt; }
    /// After the end: blocks after those of a mount whose place the traces give; 0 without them.
    uint64 getNNamed() const { return nNamed; }
    /// After the end: traces that the order doesn't come from.
    const std::vector<ZqLeftTrace>& getLeft() const { return left; }

protected:
    void main() override;

private:
    class RawFile;
    class Cutter;

    ZqAppParams makeApp(const ZqSourceTree& tree) const;
    SxString commandFor(const ZqSourceTree& tree) const;
    SxString doubtOf(const SxString& cmd, const ZqSourceTree& tree) const;
    void refuseOverlaps(const ZqSourceTree& tree) const;
    /// Paths that a mount reads, relative to the drive's root.
    static SxList<SxString> earlyPaths(const ZqAppParams& app);
    void requireSpace(const ZqSourceTree& tree, const ZqDriveMaker& maker) const;
    void build(const ZqSourceTree& tree, const ZqDriveMaker& maker, const ZqAppParams& app);
    /// Makes the drive's file system in the file `raw`.
    ZqDriveMaker::Drive makeDrive(const ZqSourceTree& tree, const ZqDriveMaker& maker,
                                  const SxString& scratch, const SxString& raw, const ZqAppParams& app);
    void refuseBadTraces() const;
    void refuseStop() const;

    const SxString target, source; ///< with trailing slashes
    const Options options;
    bool complete = false;
    int64 nFiles = 0, nFolders = 0, nLinks = 0, nSkipped = 0, nFollowed = 0;
    SxString commandDoubt;
    ZqAppParams made;
    uint64 nRaw = 0, nIncluded = 0, sizeMnt = 0, nNamed = 0;
    std::vector<ZqLeftTrace> left;
};
