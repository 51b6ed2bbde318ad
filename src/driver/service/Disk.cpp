#include "Disk.h"

#include "DriverLog.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqDriveMeans.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/Disk";
/// A mount may wait for blocks as long as somebody wants it to: an eject ends it.
constexpr int64 MOUNT_MS = int64{24} * 3600 * 1000;
/// How long a helper may take from the last progress of the disk. Unmounting writes what programs have left
/// to be written, and a slow disk may take any time for it: a limit for the whole would lose what one of them
/// took for written. Time in which nobody looked for progress doesn't count (SxDeadline).
constexpr int64 STALL_MS = 20'000;
constexpr int64 SWEEP_MS = 20'000;
/// How long bringing a volume up may still take once its reads fail.
constexpr int64 START_MS = 5000;

/// $TAVRIN_ZQDD_STALL_MS in its place, for tests.
int64 stallMs() {
    const char* text = std::getenv("TAVRIN_ZQDD_STALL_MS");
    bool bad = !text;
    const int64 value = bad ? 0 : SxString(text).toInt64(&bad);
    return bad ? STALL_MS : value;
}

SxString describe(const SxException& e) {
    return e.toString(SxException::ShowMessage, ": ");
}

DirectNote freshNote(const MountParams& params, int64 mounterPid) {
    DirectNote note;
    note.params = params;
    note.madeNs = static_cast<uint64>(SxClock::get().steadyNs());
    note.mounterPid = mounterPid;
    return note;
}

} // namespace

Disk::Disk(const MountParams& params_, const Place& place, int64 mounterPid_)
    : Disk(freshNote(params_, mounterPid_), place, nullptr) {
}

Disk::Disk(const DirectNote& note_, const Place& place, const std::function<void()>& claim)
    : Disk(note_, place, &claim) {
}

/// `claim`: null for a disk that is to be made.
Disk::Disk(const DirectNote& note_, const Place& place, const std::function<void()>* claim)
    : params(note_.params),
      onLoss(place.onLoss),
      root(place.root),
      folder(place.folder),
      directVolumes(place.directVolumes),
      deviceId(place.deviceId),
      madeNs(note_.madeNs),
      mounterPid(note_.mounterPid),
      locks(params.image, params.writesInPlace()),
      kernelNote(params.image),
      disk({params.image + "/", params.sizeRaw, params.sectorSize, params.cursor, params.readOnly,
            params.writeLayer, place.cacheSize},
           [this](uint64 token) {
               if (token == VolumeProbe::TOKEN) {
                   probe.wake();
               } else {
                   front.wake(token);
               }
           }),
      probe(&disk),
      front(&disk),
      lost(params.image, folder),
      readAhead(disk),
      note(note_),
      starter("mount", [this] { start(); }),
      upkeep({params.image, folder, front, disk, readAhead}, place.cacheSize,
             {[this] { return isMounted(); }, [this] { return isGone(); }, [this] { return isDirect.load(); },
              [this](const SxString& why) { return takeDown(why); }}) {
    if (claim) {
        requireUnchanged();
        (*claim)();
        takeOver();
        return;
    }
    if (!disk.getNotice().isEmpty()) driverLog(params.image + ": " + disk.getNotice());
    if (!params.traceFolder.isEmpty()) disk.getTrace()->start(params.traceFolder);
    folder.noteImage(params.image);
    try {
        starter.start();
        upkeep.start();
    } catch (const std::exception&) {
        eject(); // there is no destructor for what isn't whole
        throw;
    }
}

Disk::~Disk() {
    eject();
}

/// Brings the volume up, which may wait for missing blocks.
void Disk::start() {
    SxString text;
    try {
        bringUp();
    } catch (const SxException& e) {
        text = describe(e);
    } catch (const std::exception& e) {
        text = e.what(); // a library's, for want of memory
    }
    if (!text.isEmpty()) {
        driverLog("image " + params.image + " can't be mounted: " + text);
        cutOff(text);
        front.end();
        state.fail(text);
    }
}

void Disk::bringUp() {
    const SxString type = probe.detectType(ending);
    if (type != "ext4" && params.writesInPlace()) {
        throw SxException("A volume of type " + type + " can't be written to: mount it with mode ro or rtw",
                          UNIT, __LINE__);
    }
    const ZqDriveMeans means;
    ZqDriveMeans::require(means.forVolume(type, true));
    folder.makeMountPoints();
    if (!attachDirect(type)) {
        ZqDriveMeans::require({means.getFuse()});
        front.mount(folder.getFront().str(), "tavrin");
        attach(type);
    }
    folder.noteIdentity(deviceId);
    const SxMutexBlock block(&tearing);
    if (ending) throw SxException("The disk was ejected", UNIT, __LINE__);
    // Before the letter, by which programs come.
    lost.setHolds(!isReadOnly(type));
    const SxString drive = state.mount(root, folder.getVolume());
    if (isDirect) noteDirect();
    driverLog("image " + params.image + " is drive " + drive + ", " + type);
}

void Disk::attach(const SxString& type) {
    const bool readOnly = isReadOnly(type);
    if (::geteuid() != 0) {
        userDriver.start(type, folder.getFile(), folder.getVolume(), readOnly,
                         [this] { return ending.load(); });
        return;
    }
    const bool high = readAhead.isWanted();
    const auto run = [&](const char* how) {
        return Helper::run({"attach", how, folder.getFile(), folder.getVolume(), type, readOnly ? "ro" : "rw",
                            ReadAhead::valueOf(high)},
                           MOUNT_MS, [this] { unblock(); });
    };
    Helper::Facts facts = run(type == "erofs" ? "file" : "loop");
    if (facts.count("needsLoop") != 0) facts = run("loop");
    loop = SxString(facts["loop"]);
    if (!loop.isEmpty()) upkeep.noteLoop();
    readAhead.begin(SxString(facts["readahead"]), high);
}

/// Runs a helper that may write to the disk: it goes on as long as that takes bytes.
Helper::Facts Disk::runHelper(const SxList<SxString>& words) {
    return Helper::run(
        words, stallMs(), [this] { unblock(); }, [this] { return getProgress(); });
}

/// Makes everything fail that waits for this disk.
void Disk::unblock() {
    disk.setFailOnUnderflow();
    disk.resume();
    isAborted = true;
    cutOff("the disk took no byte for " + SxString(stallMs() / 1000) + " s");
}

/// Ends the connection to the kernel. Whatever does so goes through here, since what programs wrote and the
/// disk hasn't got goes with the connection: that is noted, for the reason given.
void Disk::cutOff(const SxString& why) {
    lost.note(why);
    front.abort();
}

bool Disk::dismount() {
    const SxMutexBlock block(&tearing);
    return isMounted() && detach();
}

/// Unmounts the volume; the caller holds `tearing`.
bool Disk::detach() {
    detaching = true;
    endNote();
    disk.setFailOnUnderflow();
    disk.resume();
    const Helper::Facts facts =
        runHelper({"detach", folder.getVolume(), loop.isEmpty() ? "-" : loop, folder.getFile()});
    const bool busy = facts.count("busy") != 0;
    const auto unsynced = facts.find("unsynced");
    if (unsynced != facts.end()) lost.note(SxString(unsynced->second));
    // One that somebody else has detached may live on with its users, too.
    const bool isDetached = busy || facts.count("unmounted") != 0;
    const SxString why = userDriver.stop(isDetached, stallMs(), [this] { return getProgress(); });
    if (!why.isEmpty()) lost.note(why);
    lost.setHolds(false);
    // What a program still has open fails from here on, so that it can't wait for ever. What the kernel
    // serves doesn't wait.
    if (busy && !isDirect) cutOff("the drive was in use");
    state.detach();
    return busy;
}

Disk::End Disk::eject() {
    const SxMutexBlock one(&ejecting);
    ending = true;
    disk.setFailOnUnderflow();
    disk.resume();
    if (!SxWait::pass(START_MS, [this] { return !starter.isRunning(); }))
        cutOff("the drive was ejected while it came up");
    starter.wait();
    const SxMutexBlock block(&tearing);
    if (isGone()) return state.getEnd();
    End end;
    try {
        end.busy = detach();
    } catch (const SxException& e) {
        driverLog("image " + params.image + ": " + describe(e));
        cutOff(describe(e));
        sweep();
    }
    state.dropLetter();
    front.end();
    const SxString failed = describeLostWrites(disk.close());
    if (!failed.isEmpty()) driverLog(failed);
    // Of the two the first one knows why.
    end.lost = failed.isEmpty() ? lost.get() : failed;
    folder.remove();
    state.end(end);
    // Whoever waits for the end may take the image at once.
    locks.release();
    return end;
}

SxString Disk::describeLostWrites(int closeError) const {
    const int error = front.getWriteError() != 0 ? front.getWriteError() : closeError;
    if (error == 0 || (params.readOnly && closeError == 0)) return {};
    return "Something that was written to the drive of image '" + params.image +
           "' is lost: " + SxOs::errorText(error);
}

/// Takes away by force what could not be unmounted in the usual way.
void Disk::sweep() {
    try {
        Helper::run({"sweep", folder.getPath()}, SWEEP_MS, nullptr);
    } catch (const SxException& e) {
        driverLog("image " + params.image + ": " + describe(e));
    }
}

/// Somebody else has unmounted the drive: the rest is taken down as by an unmount, and the log says why.
/// Where written data went with it, the next `umount` says so (onLoss). Gives whether that is under way.
bool Disk::takeDown(const SxString& why) {
    // Looked at after the mounts, since an unmounting of our own may have begun meanwhile.
    if (detaching || ending) return false;
    upkeep.logOnce(why);
    state.noteFailure(why);
    // On a thread of its own, since it may take long and the upkeep has other work.
    auto made = std::make_unique<DiskThread>("end", [this] {
        try {
            if (!eject().lost.isEmpty()) onLoss();
        } catch (const std::exception& e) {
            driverLog(e.what());
        }
    });
    try {
        made->start();
    } catch (const SxException& e) {
        upkeep.logOnce("it can't be taken down yet: " + describe(e));
        return false; // the next look tries it again
    }
    ender = std::move(made);
    return true;
}

bool Disk::wasTakenAway() const {
    // After the upkeep, which makes the ender.
    return !upkeep.isRunning() && ender && !ender->isRunning();
}
