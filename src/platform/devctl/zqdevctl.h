#pragma once

#include "SxTypes.h"

// The control library of the drive service: a list of plain functions. Every one gives a status, 0 for
// success, else 1, and fills its out-parameters only with success. The words of a failure travel beside the
// status (ZqVolume::getLastFailure). All are safe from any thread and any process of the same user. They
// start the service where it isn't there and is needed: the calls that take no image, zqDriveMountImage() and
// the guard's. A question about an image that no service serves is answered 'not mounted' without starting
// one.
//
// `image` is the path of the image folder, NUL-terminated UTF-16; every spelling of it means the same disk.
// Wide texts are NUL-terminated UTF-16, at most 32767 units; a flag is one byte, 0 or 1. Blocks have 4096
// bytes; the cursor and the underflow queue count in ZqF indices. `devId` is a drive letter minus 'A'.

using ZqStatus = int;
using ZqWide = const unsigned short*;
using ZqFlag = unsigned char;

/// Creates the disk of an image folder and starts to serve it; returns before its drive letter exists. A
/// trace is begun in `traceFolder`, where that isn't empty. `readTW`: writes go into the layer `img.tix`,
/// `img.tmp`. `removable` is kept and reported. `awaitFileSystem`, `hostFlag` and `spareFlag` mean nothing to
/// this service, and are kept and stored. `sizeRaw`, `sectorSize` in bytes, `cursor` in blocks. The sector
/// size is only given back as it came: what the kernel sees has sectors of 4096 bytes, the smallest unit that
/// is stored. Fails on an image that is served already.
ZqStatus zqDriveMountImage(ZqWide image, ZqWide traceFolder, ZqFlag readOnly, ZqFlag readTW, ZqFlag removable,
                           ZqFlag hostFlag, ZqFlag awaitFileSystem, ZqFlag spareFlag, uint64 sizeRaw,
                           uint64 sectorSize, uint64 cursor);
/// Removes the disk at once: fails what is held, detaches what is mounted. Returns when it is gone.
ZqStatus zqDriveEjectImage(ZqWide image);

ZqStatus zqDriveIsMounted(ZqWide image, ZqFlag* flag);
ZqStatus zqDriveIsRemovable(ZqWide image, ZqFlag* flag);
ZqStatus zqDriveIsSuspended(ZqWide image, ZqFlag* flag);
/// Whether a read beyond the cursor is held.
ZqStatus zqDriveIsUnderflow(ZqWide image, ZqFlag* flag);
ZqStatus zqDriveIsMonitored(ZqWide image, ZqFlag* flag);
/// Whether a trace record has come since the last question.
ZqStatus zqDriveHasTraceEvent(ZqWide image, ZqFlag* flag);
ZqStatus zqDriveGetDeviceID(ZqWide image, uint64* id);
ZqStatus zqDriveGetSectorSize(ZqWide image, uint64* bytes);
ZqStatus zqDriveGetCursor(ZqWide image, uint64* zqfIdx);
/// All blocks below the cursor are present in `img.zqf` from now on.
ZqStatus zqDriveSetCursor(ZqWide image, uint64 zqfIdx);
/// A pretended cursor: reads at or above it are only counted. Fails where the kernel serves the drive, as do
/// zqDriveSuspend() and zqDriveMonitorOn(): nobody sees its reads.
ZqStatus zqDriveSetQACursor(ZqWide image, uint64 zqfIdx);
/// Holds every read and write until zqDriveResume().
ZqStatus zqDriveSuspend(ZqWide image);
ZqStatus zqDriveResume(ZqWide image);
/// From now on reads of missing blocks fail, those that are held at once.
ZqStatus zqDriveSetFailOnUnderflow(ZqWide image);
/// Number of blocks in the queue of missing blocks.
ZqStatus zqDriveGetOnDemandQueueLen(ZqWide image, uint64* nBlocks);
/// Takes the next block from the queue, oldest read first; fails on an empty queue. A block that isn't
/// delivered within 100 ms stands on the queue again.
ZqStatus zqDrivePopUnderflowZqFBlock(ZqWide image, uint64* zqfIdx);
/// The same for as many as there are: `*count` is the room in `zqfIdx` on entry, the number stored on return.
ZqStatus zqDrivePopUnderflowZqFBlocks(ZqWide image, uint64* zqfIdx, uint64* count);
/// Offset in `img.zqf` and length, both in bytes, of the oldest held read; zeros where none is held.
ZqStatus zqDriveGetRequestData(ZqWide image, uint64* offset, uint64* length);
/// Delivers the bytes of the blocks from `zqfIdx` on. The length is a multiple of a block, or reaches the
/// image's end.
ZqStatus zqDriveResolveUnderflow(ZqWide image, uint64 zqfIdx, const char* data, uint64 length);
/// Starts a trace in the folder, afresh.
ZqStatus zqDriveMonitorOn(ZqWide image, ZqWide traceFolder);
ZqStatus zqDriveMonitorOff(ZqWide image);
/// Moves what the write layer has for included blocks into `img.zqf`.
ZqStatus zqDriveFlushTWToImage(ZqWide image);

/// Bounds the memory for delivered blocks of each disk; what is beyond it lies in a temporary file.
ZqStatus zqDriveSetCacheSize(int bytes);
/// Writes down which disks there are, to be brought up again by zqDriveLoadDisks() of a later service.
ZqStatus zqDriveStoreDisks();
ZqStatus zqDriveLoadDisks();
/// Ejects all disks and sets the cache size to 0.
ZqStatus zqDriveReset();
ZqStatus zqDrivePing(ZqFlag* flag);
/// Writes the version as NUL-terminated UTF-8. `*size` is the buffer's size on entry, the bytes written with
/// the NUL on return; fails where it is too small.
ZqStatus zqDriveGetVersion(char* buffer, uint64* size);

/// Attaches the guard to a drive; to be repeated until the flag is true. Likewise zqGuardOff().
ZqStatus zqGuardOn(unsigned char devId, ZqFlag* flag);
ZqStatus zqGuardOff(unsigned char devId, ZqFlag* flag);
ZqStatus zqGuardPing(ZqFlag* flag);
ZqStatus zqGuardGetVersion(char* buffer, uint64* size);
ZqStatus zqGuardSetImageType(unsigned char devId, int type);
ZqStatus zqGuardSetLogging(ZqFlag on);
/// Redirects each name of the comma-separated list, relative to the drive's protected folder, to
/// `directory`/<protected folder>/<name>, which must be there.
ZqStatus zqGuardSetReparse(unsigned char devId, ZqWide names, ZqWide directory);
