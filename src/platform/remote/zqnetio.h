#pragma once

#include "SxTypes.h"

// Downloads as a list of plain functions. `download` is the address of an object whose first field is a
// pointer for this library's use, null until zqNetioDownload() has filled it. Each gives a status: 0 for
// success, 1 for a failure that zqNetioDownloadGetErrMsg() tells, 2 where there is no such download. All are
// safe from any thread, but for zqNetioDownload() and zqNetioDownloadFree(), which bracket all others.

using ZqNetioStatus = int;

/// Makes the network ready for the process, and undoes it. Every other function does the first by itself.
/// `nThreads` is advice: all requests of a link go over one thread.
ZqNetioStatus zqNetioStart(int nThreads);
ZqNetioStatus zqNetioStop();
/// Text of a status, valid for ever.
const char* zqNetioStrError(ZqNetioStatus status);

ZqNetioStatus zqNetioDownload(void* download);
/// Ends what the download does and waits for that.
ZqNetioStatus zqNetioDownloadFree(void* download);
/// The file's address, UTF-8, for later requests.
ZqNetioStatus zqNetioDownloadURL(const void* download, const char* url);
/// The file to write to, UTF-16.
ZqNetioStatus zqNetioDownloadPath(const void* download, const unsigned short* path);
/// Lines "Name: value" for later requests, closed by a null pointer; copied.
ZqNetioStatus zqNetioDownloadHeaders(const void* download, const char* const* headers);
/// Bytes of one request of a whole download, and bytes that may wait in memory for the disk; 0 for the usual.
/// Before the first request.
ZqNetioStatus zqNetioDownloadChunked(const void* download, uint64 requestSize, uint64 maxBuffered);
/// Bounds a whole download, in bytes a second; 0 lifts the bound.
ZqNetioStatus zqNetioDownloadThrottle(const void* download, double bytesPerSecond);
/// Bytes so far, bytes in all (0 until known), bytes a second of late.
ZqNetioStatus zqNetioDownloadProgress(const void* download, uint64* nDone, uint64* nTotal, uint64* speed);
/// Begins to download the whole file in the background.
ZqNetioStatus zqNetioDownloadStart(const void* download);
/// Waits for its end; `*result` is its status.
ZqNetioStatus zqNetioDownloadWait(const void* download, int* result);
ZqNetioStatus zqNetioDownloadFinished(const void* download, int* flag);
/// Number of errors so far.
ZqNetioStatus zqNetioDownloadErr(const void* download, uint64* nErrors);
/// The last error: its length in bytes where `buffer` is null, else as much of its text as `*length` allows,
/// without a NUL.
ZqNetioStatus zqNetioDownloadGetErrMsg(const void* download, char* buffer, uint64* length);

/// Blocks until `size` bytes from `offset` on are in `*data`, whose room the caller has made.
ZqNetioStatus zqNetioDownloadRange(uint64 offset, uint64 size, char** data, const void* download);
/// The same by a request of its own, whatever was announced.
ZqNetioStatus zqNetioDownloadAnew(uint64 offset, uint64 size, char** data, const void* download);
/// As zqNetioDownloadRange(), for `count` ranges, fetched together.
ZqNetioStatus zqNetioDownloadRanges(const uint64* offsets, const uint64* sizes, char* const* data,
                                    uint64 count, const void* download);
/// Begins to fetch ranges that zqNetioDownloadRange() will then ask for; returns at once.
ZqNetioStatus zqNetioDownloadAnnounce(const uint64* offsets, const uint64* sizes, uint64 count,
                                      const void* download);
/// What came of this range was wrong: nothing of it is kept, and it is fetched again when it is asked for.
ZqNetioStatus zqNetioDownloadForget(uint64 offset, uint64 size, const void* download);
/// While on, ranges fail with status 1, those that block within 20 ms, and a whole download ends.
ZqNetioStatus zqNetioDownloadCancel(const void* download, bool on);
