#pragma once

#include "ZqDriveWire.h"
#include "ZqVolume.h"

/// The client's side of the connection to the drive service of the machine root: one for each thread. Starts
/// the service where a call needs it. Where a connection was cut off before the answer, the service may have
/// ended for want of clients: the next one is started, told of the cache size, and asked the same again. One
/// is started for any call where the kernel still serves drives of a service that has ended: it takes them
/// over.
namespace ZqServiceClient {

enum class Start {
    Never,   ///< a service that isn't there fails the call, unless it left drives that the kernel serves
    IfNeeded ///< it is started
};

/// The program of the service: $TAVRIN_ZQDD, or `zqdd` beside the external tools.
SxString program();

/// Makes one call. Gives whether it succeeded; `*answer` holds the results then. Why it failed is kept for
/// getLastFailure(). Safe from any thread.
bool call(ZqDriveWire::Call call, const ZqDriveWire::Writer& request, ZqDriveWire::Reader* answer,
          Start start);

/// Whether the last call failed for want of a service: none was there, or it ended before its answer.
bool wasCutOff();

/// Whether a service is there, without starting one. One that is stuck counts: it still serves its drives.
bool isServing();

/// Whether the last answer on this thread came from a service of another version.
bool wasForeign();

/// The one path that every spelling of a folder has: a host path, absolute, without links and trailing
/// slashes. Raises on a path that is none.
SxString keyOf(const SxString& path);

/// The longest that an answer may take, in seconds, for this process.
void setPatience(int seconds);

/// The cache size that a service which had to be started again is told of.
void keepCacheSize(int bytes);

void setLastFailure(const SxString& text, const SxString& tag = {});
SxString getLastFailure();
/// ZqVolume::SILENT or ALREADY_MOUNTED where that was why the last call failed, else empty.
SxString getLastTag();

/// Whether the disk that this thread ejected last was in use.
void setBusy(bool busy);
bool wasBusy();

/// Reads what an answer says of a disk.
ZqDiskStatus readStatus(ZqDriveWire::Reader* answer);

} // namespace ZqServiceClient
