#pragma once

#include "SxList.h"
#include "SxMap.h"
#include "SxPtr.h"
#include "SxString.h"
#include "SxSymbol.h"

#include <optional>

struct ZqHttpLimits;

/// Statistics of one run of a streamed application. The jobs of the library write into it while they run,
/// each its own fields; the client fills the rest and reads it afterwards. All fields are public, there is no
/// lock.
class ZqRuntimeInfo {
public:
    /// What one preparation job did.
    struct Stats {
        bool started = false;
        int64 timeSec = 0;     ///< while the job runs its start in milliseconds, at its end seconds
        int64 bytes = 0;       ///< bytes that the job handled
        int64 bytesPerSec = 0; ///< bytes / timeSec, or bytes where timeSec is 0

        /// Notes the start at `nowMs`.
        void begin(int64 nowMs);
        /// Notes the end at `nowMs`.
        void end(int64 nowMs, int64 nBytes);
        bool operator==(const Stats&) const = default;
    };

    SxString path;     ///< image folder
    int64 version = 2; ///< format version
    SxString id;       ///< identifies this record at the statistics service; a new GUID
    SxString orgName;  ///< organisation
    SxString guid = "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX"; ///< guid of the application
    int64 time0 = 0;                                        ///< start of the run, milliseconds since 1970 UTC
    int64 nStarts = 0;
    int64 runTime = 0;             ///< seconds
    int64 preloadSize = 0;         ///< bytes required before the start
    int64 timeToStart = 0;         ///< seconds to the start of the application
    int64 timeToReady = 0;         ///< seconds until the application was ready
    int64 dataAtStart = 0;         ///< position of the download when the run began
    int64 dataAtEnd = 0;           ///< position of the download when the run ended
    int64 imageSize = 0;           ///< bytes
    bool downloadFromZero = false; ///< the download began with nothing present
    bool downloadComplete = false;
    double avgSpeed = 0;   ///< mean download speed, in millions of its upload unit
    double maxSpeed = 0;   ///< same unit
    double sigmaSpeed = 0; ///< standard deviation, same unit
    double reqSpeed = 0;   ///< required speed, same unit
    int64 nUnderflows = 0;
    int64 avgUnderflowTime = 0; ///< milliseconds
    int64 avgUnderflowSize = 0; ///< bytes
    int64 maxUnderflowTime = 0; ///< milliseconds
    int64 maxUnderflowSize = 0; ///< bytes
    int64 nOnDemandFetches = 0;
    int64 sumOnDemandSize = 0;  ///< bytes
    int64 avgOnDemandSize = 0;  ///< bytes
    int64 avgOnDemandTime = 0;  ///< milliseconds
    int64 maxOnDemandTime = 0;  ///< milliseconds
    int64 avgOnDemandQueue = 0; ///< mean length of the on-demand queue
    int64 maxOnDemandQueue = 0;
    int64 nHinted = 0;           ///< stretches that hints of the order have brought, see ZqOrderHints
    int64 nHintsUsed = 0;        ///< of these, those that a read has waited for later
    int64 prefetchSizeMB = 0;    ///< megabytes
    int64 exitCode = 0;          ///< of the application
    SxString winVer = "Unknown"; ///< text of the operating system's version
    SxList<SxString> gpuNames;   ///< video controllers
    SxList<SxString> gpuDrivers; ///< their drivers with versions
    SxList<int64> gpuRam;        ///< their memory, bytes
    int64 ramTotal = -1;         ///< mebibytes
    int64 ramFree = -1;          ///< mebibytes
    int64 ramLoad = -1;          ///< percent
    SxList<SxString> cpuNames;
    SxList<int64> cpuCores;
    SxString resolution = "Unknown"; ///< screen size as text
    SxString hostId = "Unknown";     ///< identifier of the machine
    SxList<SxString> driveNames;     ///< logical drives
    SxList<SxString> driveFileSystems;
    SxList<int> driveTypes;             ///< 2 removable, 3 fixed, 4 network, 5 optical, 6 memory
    SxList<uint64> driveSizes;          ///< bytes
    SxList<uint64> driveFree;           ///< bytes
    std::optional<double> coverage;     ///< of the image by its trace, 0 to 1; none without a trace
    SxUniqueList<SxString> appsAtStart; ///< applications seen at the start of the run
    Stats defragStats;                  ///< image defragmentation
    Stats patchStats;                   ///< patching
    Stats extractStats;                 ///< content extraction
    Stats createStats;                  ///< content creation
    SxString clientToken;               ///< given to this client by the statistics service
    bool startErr = false;              ///< the run failed at its start
    bool endErr = false;                ///< the run ended with a failure
    SxString rteVer;                    ///< version of this library
    SxString zqddVer;                   ///< version of the virtual disk driver
    SxString zqfmVer;                   ///< version of the file-system filter

    /// All defaults, with a new `id`.
    ZqRuntimeInfo();

    /// Makes the record ready for a new run: a new `id`; organisation, token, versions and the facts of the
    /// machine stay.
    void reset();
    /// Adds what `former`, an earlier part of the same run, has counted of underflows and fetches, and takes
    /// what only its beginning can know. Speeds but for the greatest, and times of the run, are left.
    void goOnFrom(const ZqRuntimeInfo& former);
    /// The record as `runtime.json` has it.
    SxParserKit::SxSymbol toJson() const;
    /// Writes `runtime.json` into the folder `path`, or into that of the field `path` where it is empty;
    /// makes the folder. Raises "Failed to write file ..." with the cause.
    void write(const SxString& path) const;
    /// What a statistics service gets of the record, as a JSON object: of `sections` (ZqReportSections) those
    /// whose condition holds. `update` false: the first report of a run, true: a later one.
    SxParserKit::SxSymbol toReport(const SxList<SxString>& sections, bool update) const;
    /// Sends that to a statistics service, in one try of at most 30 s: the first report by POST, later ones
    /// by PATCH. `headers` by name. Takes the `clientToken` that the answer to a first report may have, and
    /// gives what that field has then. Raises "Failed to upload runtime data." with the cause, "request
    /// failed" where the status isn't 200; the field stays then. Blocks; not beside another use of the
    /// record.
    SxString upload(const SxString& url, const SxMap<SxString, SxString>& headers, SxList<SxString> sections,
                    bool update);
    /// The same within other limits, which may have a stop.
    SxString upload(const SxString& url, const SxMap<SxString, SxString>& headers,
                    const SxList<SxString>& sections, bool update, const ZqHttpLimits& limits);
    /// Fills the versions and the facts of the machine. Raises where the drive service, which it starts where
    /// none runs, tells no version; the facts are as they were then. May wait for that service.
    void getHardwareSpecs();
    /// The same without the service and its two versions. All lists are emptied first; what can't be found
    /// out is logged and stays as it is. Never raises, and waits a second at most, for a display.
    void getMachineFacts();
    /// getHardwareSpecs(), or, where that raises, getMachineFacts() with empty versions of the service; gives
    /// why, or an empty text.
    SxString getKnownSpecs();
    /// Of all this only the versions of this library and of the system. Never raises.
    void getSystemVersions();
    /// "true" or "false".
    static SxString boolToString(bool value);
};
