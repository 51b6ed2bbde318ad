#pragma once

#include "ZqRuntimeInfo.h"
#include "ZqTaskMon.h"

/// Job that packs a folder of files into an image folder: the files' bytes one after the other in `img.zqf`,
/// each filled up to whole blocks of 4096 bytes, an identity map, and the records. There is no file system
/// and no file table in it. Progress in bytes. Takes the image's lock. Links are passed over. Only a link
/// that leads into itself, or to a folder above it, fails the job, which names it.
///
/// Before anything is written the whole list of files is read, each file is opened, and the free space is
/// looked at. The new image is then written beside what `target` holds, and replaces it when it is complete:
/// after a failure or a stop everything is as it was before. The price is room for both images.
class ZqCreateContent : public ZqTaskMon {
public:
    /// `target` is the image folder to write, `source` the folder to read. `mayDiscard`: traces and written
    /// data that `target` holds may be lost; see ZqImageStaging.
    ZqCreateContent(const SxString& target, const SxString& source, bool mayDiscard = true);

    /// Gets `createStats`; not null.
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    /// After the end: whether the new image is in its place.
    bool isComplete() const { return complete; }
    /// After the end: number of files in it.
    int64 getNFiles() const { return nFiles; }
    /// After the end: number of links, pipes, sockets and devices that were passed over; the log names them.
    int64 getNSkipped() const { return nSkipped; }

protected:
    void main() override;

private:
    struct Entry {
        SxString relPath;
        int64 size; ///< bytes
    };

    SxList<Entry> scan(uint64* nBlocks);
    /// Raises where a file can't be opened, which is better found before anything is written.
    void requireReadable(const SxList<Entry>& files) const;
    void build(const SxList<Entry>& files, uint64 nBlocks);
    SxString pack(const SxString& folder, const SxList<Entry>& files, int64 t0);
    void writeRecords(const SxString& folder, uint64 nBlocks, const SxString& digest) const;
    void log(const SxString& text) const;

    const SxString target, source; ///< with trailing slashes
    const bool mayDiscard;
    bool complete = false;
    int64 nFiles = 0, nSkipped = 0;
};
