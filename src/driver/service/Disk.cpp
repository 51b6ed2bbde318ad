#include "Disk.h"

#include "DriverLog.h"
#include "Helper.h"
#include "Mounts.h"
#include "SxDeadline.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqServiceFolder.h"

#include <cstdlib>
#include <cstring>
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
/// How often a disk looks whether it is still mounted.
constexpr int64 LOOK_NS = 1'000'000'000;
constexpr int64 TICK_MS = 100;
/// Of a tick, for giving room back to the disk: a fifth of the time.
constexpr int64 GIVE_BACK_MS = 25;
/// How long one try to set the read-ahead may take, and how many there are: the setting may be gone, or wait
/// for a device that is stuck. A drive without it is slower, and right.
constexpr int64 READ_AHEAD_MS = 3000;
constexpr int MAX_READ_AHEAD_TRIES = 5;
constexpr int64 READ_AHEAD_PASS_NS = 1'000'000'000;
/// Token of the reads that this process does itself; no request has that address.
constexpr uint64 OWN_TOKEN = 0;
/// Of the first block, which every file system has its superblock in; the next may not be there yet.
constexpr uint32 SUPERBLOCK_BYTES = 4096;

/// While blocks are missing, and while a trace is recorded, read-ahead would touch blocks that nobody asked
/// for; none at all would cost most of the throughput.
constexpr const char* LOW_READ_AHEAD = "16";    // KiB
constexpr const char* FULL_READ_AHEAD = "1024"; // KiB

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

} // namespace

/// Brings the volume up, which may wait for missing blocks.
class Disk::Starter : public SxSystemThread {
public:
    explicit Starter(Disk* disk_) : owner(disk_) { setThreadName("mount"); }

protected:
    void main() override { owner->start(); }

private:
    Disk* owner;
};

/// Takes down what is left of a disk whose mount somebody else has ended; on a thread of its own, since that
/// may take long and the ticker has other work.
class Disk::Ender : public SxSystemThread {
public:
    explicit Ender(Disk* disk_) : owner(disk_) { setThreadName("end"); }
    ~Ender() override { wait(); }

protected:
    void main() override {
        try {
            if (!owner->eject().lost.isEmpty()) owner->onLoss();
        } catch (const std::exception& e) {
            driverLog(e.what());
        }
    }

private:
    Disk* owner;
};

/// Does a disk's regular work, each on a thread of its own: one whose disk is stuck holds up no other one.
class Disk::Ticker : public SxSystemThread {
public:
    explicit Ticker(Disk* disk_) : owner(disk_) { setThreadName("tick"); }
    ~Ticker() override {
        stopping = true;
        wait();
    }

protected:
    void main() override {
        while (!stopping && !owner->isGone()) {
            try {
                owner->tick();
            } catch (const std::exception& e) {
                driverLog(e.what());
            }
            SxTime::msleep(TICK_MS);
        }
    }

private:
    Disk* owner;
    std::atomic<bool> stopping{false};
};

Disk::Disk(const MountParams& params_, const SxString& root_, const SxString& folder_, uint64 deviceId_,
           uint64 cacheSize_, int64 mounterPid_, std::function<void()> onLoss_)
    : params(params_),
      onLoss(std::move(onLoss_)),
      root(root_),
      folder(folder_),
      deviceId(deviceId_),
      madeNs(static_cast<uint64>(SxClock::get().steadyNs())),
      mounterPid(mounterPid_),
      driveLock(ZqImageLock::take(params.image, ZqImageLock::Drive, ZqImageLock::Exclusive, "drive service")),
      shapeLock(ZqImageLock::take(params.image, ZqImageLock::Shape, ZqImageLock::Shared, "drive service")),
      blocksLock(params.writesInPlace() ? takeBlocks() : SxPtr<ZqImageLock>()),
      disk({params.image + "/", params.sizeRaw, params.sectorSize, params.cursor, params.readOnly,
            params.writeLayer, cacheSize_},
           [this](uint64 token) {
               if (token == OWN_TOKEN) {
                   firstWoken = true;
               } else {
                   front.wake(token);
               }
           }),
      front(&disk),
      cacheSize(cacheSize_),
      appliedCacheSize(cacheSize_) {
    if (!disk.getNotice().isEmpty()) driverLog(params.image + ": " + disk.getNotice());
    if (!params.traceFolder.isEmpty()) disk.getTrace()->start(params.traceFolder);
    SxFileIO::writeAtomic(folder + "/" + ZqServiceFolder::IMAGE, params.image, 0600);
    starter = std::make_unique<Starter>(this);
    ticker = std::make_unique<Ticker>(this);
    try {
        starter->start();
        ticker->start();
    } catch (const std::exception&) {
        eject(); // there is no destructor for what isn't whole
        throw;
    }
}

Disk::~Disk() {
    eject();
    ticker.reset(); // before the ender, which it may still start
    ender.reset();  // before the locks, which it may still be letting go
}

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
        fail(text);
    }
}

void Disk::fail(const SxString& why) {
    const SxMutexBlock block(&mutex);
    failure = why;
    state = State::Failed;
}

void Disk::bringUp() {
    const SxString type = detectType();
    if (type != "ext4" && params.writesInPlace()) {
        throw SxException("A volume of type " + type + " can't be written to: mount it with mode ro or rtw",
                          UNIT, __LINE__);
    }
    if (::geteuid() != 0) UserDriver::requireMeans(type);
    for (const char* name : {ZqServiceFolder::FRONT, ZqServiceFolder::VOLUME})
        SxFSAction::mkdir_p(folder + "/" + name, 0700);
    front.mount((folder + "/" + ZqServiceFolder::FRONT).str(), "tavrin");
    attach(type);
    SxFileIO::writeAtomic(
        folder + "/" + ZqServiceFolder::IDENTITY,
        SxString(ZqServiceFolder::VENDOR) + "\n" + ZqServiceFolder::PRODUCT + "\n" + deviceId + "\n", 0600);
    const SxMutexBlock block(&tearing);
    if (ending) throw SxException("The disk was ejected", UNIT, __LINE__);
    // Before the letter, by which programs come.
    setHoldsWrites(!isReadOnly(type));
    const SxMutexBlock inner(&mutex);
    letter.take(root, folder + "/" + ZqServiceFolder::VOLUME);
    state = State::Mounted;
    driverLog("image " + params.image + " is drive " + letter.get() + ", " + type);
}

void Disk::attach(const SxString& type) {
    const SxString file = folder + "/" + ZqServiceFolder::FRONT + "/" + ZqServiceFolder::DISK_FILE;
    const bool readOnly = isReadOnly(type);
    if (::geteuid() != 0) {
        userDriver.start(type, file, folder + "/" + ZqServiceFolder::VOLUME, readOnly,
                         [this] { return ending.load(); });
        return;
    }
    const bool high = wantsReadAhead();
    const auto run = [&](const char* how) {
        return Helper::run({"attach", how, file, folder + "/" + ZqServiceFolder::VOLUME, type,
                            readOnly ? "ro" : "rw", high ? FULL_READ_AHEAD : LOW_READ_AHEAD},
                           MOUNT_MS, [this] { unblock(); });
    };
    Helper::Facts facts = run(type == "erofs" ? "file" : "loop");
    if (facts.count("needsLoop") != 0) facts = run("loop");
    const SxMutexBlock block(&mutex);
    loop = SxString(facts["loop"]);
    readAhead = SxString(facts["readahead"]);
    isReadingAhead = high;
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
    if (holdsWrites) noteLost(why);
    front.abort();
}

/// The first reason stays.
void Disk::noteLost(const SxString& why) {
    const SxMutexBlock block(&mutex);
    if (!lost.isEmpty()) return;
    lost = "What programs wrote to the drive of image '" + params.image +
           "' is lost as far as they hadn't synced it: " + why;
    driverLog(lost);
}

SxString Disk::getLost() const {
    const SxMutexBlock block(&mutex);
    return lost;
}

/// Notes it in the disk's folder, too, for whoever tidies up after a service that was killed.
void Disk::setHoldsWrites(bool holds) {
    if (holdsWrites.exchange(holds) == holds) return;
    const SxString file = folder + "/" + ZqServiceFolder::WRITTEN;
    if (holds) {
        SxFileIO::writeAtomic(file, "", 0600);
    } else {
        SxOs::get().unlink(file.str());
    }
}

bool Disk::readBlocking(uint64 offset, uint32 size, char* to) {
    int error = 0;
    firstWoken = false;
    // As a retry, since a trace holds what others read.
    VirtualDisk::Result result = disk.read(offset, size, to, OWN_TOKEN, true, &error);
    while (result == VirtualDisk::Result::Held) {
        while (!firstWoken && !ending)
            SxTime::msleep(SxWait::LOOK_MS);
        if (ending) {
            disk.forget(OWN_TOKEN);
            return false;
        }
        firstWoken = false;
        result = disk.read(offset, size, to, OWN_TOKEN, true, &error);
    }
    return result == VirtualDisk::Result::Done;
}

SxString Disk::detectType() {
    char bytes[SUPERBLOCK_BYTES] = {};
    const auto n = static_cast<uint32>(std::min<uint64>(SUPERBLOCK_BYTES, params.sizeRaw));
    if (!readBlocking(0, n, bytes)) {
        throw SxException("The start of the volume can't be read", UNIT, __LINE__);
    }
    if (std::memcmp(bytes + 1024, "\xe2\xe1\xf5\xe0", 4) == 0) return "erofs";
    if (std::memcmp(bytes + 1024 + 56, "\x53\xef", 2) == 0) return "ext4";
    if (std::memcmp(bytes, "hsqs", 4) == 0) return "squashfs";
    throw SxException("The image holds no file system that can be mounted (EROFS, ext4, squashfs)", UNIT,
                      __LINE__);
}

SxString Disk::getLabel() {
    char bytes[SUPERBLOCK_BYTES] = {};
    int error = 0;
    if (params.sizeRaw < SUPERBLOCK_BYTES || !isMounted() ||
        disk.read(0, SUPERBLOCK_BYTES, bytes, OWN_TOKEN, true, &error) != VirtualDisk::Result::Done) {
        disk.forget(OWN_TOKEN);
        return {};
    }
    const bool erofs = std::memcmp(bytes + 1024, "\xe2\xe1\xf5\xe0", 4) == 0;
    const char* name = bytes + 1024 + (erofs ? 64 : 120);
    return SxString(std::string(name, ::strnlen(name, 16))).validUtf8();
}

bool Disk::isMounted() const {
    const SxMutexBlock block(&mutex);
    return state == State::Mounted;
}

void Disk::setState(State newState) {
    const SxMutexBlock block(&mutex);
    state = newState;
}

bool Disk::dismount() {
    const SxMutexBlock block(&tearing);
    return isMounted() && detach();
}

/// Unmounts the volume; the caller holds `tearing`.
bool Disk::detach() {
    detaching = true;
    disk.setFailOnUnderflow();
    disk.resume();
    SxString device;
    {
        const SxMutexBlock block(&mutex);
        device = loop;
    }
    const Helper::Facts facts =
        runHelper({"detach", folder + "/" + ZqServiceFolder::VOLUME, device.isEmpty() ? "-" : device,
                   folder + "/" + ZqServiceFolder::FRONT + "/" + ZqServiceFolder::DISK_FILE});
    const bool busy = facts.count("busy") != 0;
    const auto unsynced = facts.find("unsynced");
    if (unsynced != facts.end() && holdsWrites) noteLost(SxString(unsynced->second));
    // One that somebody else has detached may live on with its users, too.
    const bool isDetached = busy || facts.count("unmounted") != 0;
    const SxString why = userDriver.stop(isDetached, stallMs(), [this] { return getProgress(); });
    if (!why.isEmpty() && holdsWrites) noteLost(why);
    setHoldsWrites(false);
    // What a program still has open fails from here on, so that it can't wait for ever.
    if (busy) cutOff("the drive was in use");
    setState(State::Detached);
    return busy;
}

Disk::End Disk::eject() {
    const SxMutexBlock one(&ejecting);
    ending = true;
    disk.setFailOnUnderflow();
    disk.resume();
    if (!SxWait::pass(START_MS, [this] { return !starter->isRunning(); }))
        cutOff("the drive was ejected while it came up");
    starter->wait();
    const SxMutexBlock block(&tearing);
    {
        const SxMutexBlock inner(&mutex);
        if (state == State::Gone) return ended;
    }
    End end;
    try {
        end.busy = detach();
    } catch (const SxException& e) {
        driverLog("image " + params.image + ": " + describe(e));
        cutOff(describe(e));
        sweep();
    }
    {
        const SxMutexBlock inner(&mutex);
        state = State::Detached;
        letter.remove();
    }
    front.end();
    const SxString failed = describeLostWrites(disk.close());
    if (!failed.isEmpty()) driverLog(failed);
    // Of the two the first one knows why.
    end.lost = failed.isEmpty() ? getLost() : failed;
    removeFolder();
    {
        const SxMutexBlock inner(&mutex);
        ended = end;
        state = State::Gone;
    }
    // Whoever waits for the end may take the image at once.
    driveLock = SxPtr<ZqImageLock>();
    shapeLock = SxPtr<ZqImageLock>();
    blocksLock = SxPtr<ZqImageLock>();
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
        Helper::run({"sweep", folder}, SWEEP_MS, nullptr);
    } catch (const SxException& e) {
        driverLog("image " + params.image + ": " + describe(e));
    }
}

/// Removes what the disk has made in its folder, one by one: where a volume could not be unmounted, nothing
/// of it must be touched.
void Disk::removeFolder() {
    const std::string path = folder.str() + "/";
    SxOs::get().unlink(path + ZqServiceFolder::IMAGE);
    SxOs::get().unlink(path + ZqServiceFolder::IDENTITY);
    SxOs::get().unlink(path + ZqServiceFolder::WRITTEN);
    SxOs::get().removeDir(path + ZqServiceFolder::VOLUME);
    SxOs::get().removeDir(path + ZqServiceFolder::FRONT);
    const int result = SxOs::get().removeDir(folder.str());
    if (result < 0) driverLog("folder " + folder + " can't be removed: " + SxOs::errorText(result));
}

/// Gives what is to be set now, and where; none where all is right, or was tried often enough.
std::optional<bool> Disk::takeReadAhead(SxString* setting) {
    const bool high = wantsReadAhead();
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock block(&mutex);
    // While the disk is suspended the kernel might wait for it.
    if (state != State::Mounted || readAhead.isEmpty() || disk.isSuspended()) return {};
    if (high == isReadingAhead || high != isReadAheadDue) nReadAheadTries = 0;
    if (high == isReadingAhead) return {};
    isReadAheadDue = high;
    const bool isSoon = nReadAheadTries > 0 && nowNs - readAheadNs < READ_AHEAD_PASS_NS;
    if (isSoon || nReadAheadTries >= MAX_READ_AHEAD_TRIES) return {};
    ++nReadAheadTries;
    readAheadNs = nowNs;
    *setting = readAhead;
    return high;
}

/// The ticker's alone, so that two settings never cross.
void Disk::adjustReadAhead() {
    SxString setting;
    const std::optional<bool> high = takeReadAhead(&setting);
    if (!high) return;
    try {
        Helper::run({"readahead", setting, *high ? FULL_READ_AHEAD : LOW_READ_AHEAD}, READ_AHEAD_MS, nullptr);
        nReadAheadTries = 0;
        const SxMutexBlock block(&mutex);
        isReadingAhead = *high;
    } catch (const SxException& e) {
        logOnce("its read-ahead can't be set: " + describe(e));
    }
}

/// What of the two somebody has unmounted; null for neither.
const char* Disk::findUnmounted() const {
    const std::string base = folder.str() + "/";
    if (front.hasEnded() || !Mounts::isMounted(base + ZqServiceFolder::FRONT)) return "file";
    return Mounts::isMounted(base + ZqServiceFolder::VOLUME) ? nullptr : "volume";
}

/// Looks once a second, in the mount table and at the file's connection, whether somebody else has unmounted
/// the volume or the file that it lies on. Then the rest is taken down as by an unmount, and the log says
/// why. Where written data went with it, the next `umount` says so (onLoss).
void Disk::noticeEnd() {
    const int64 nowNs = SxClock::get().steadyNs();
    if (ender || ending || nowNs - lastLookNs < LOOK_NS) return;
    lastLookNs = nowNs;
    if (!isMounted()) return;
    const char* what = nullptr;
    try {
        what = findUnmounted();
    } catch (const SxException& e) {
        // Nobody knows, then. The next look may.
        logOnce("Cannot see whether the drive is still mounted: " + describe(e));
    }
    // Looked at after the table, since an unmounting of our own may have begun meanwhile.
    if (!what || detaching || ending) return;
    const SxString why = SxString("Somebody has unmounted the drive's ") + what;
    logOnce(why);
    {
        const SxMutexBlock block(&mutex);
        if (failure.isEmpty()) failure = why;
    }
    auto made = std::make_unique<Ender>(this);
    try {
        made->start();
    } catch (const SxException& e) {
        logOnce("it can't be taken down yet: " + describe(e));
        return; // the next look tries it again
    }
    ender = std::move(made);
}

bool Disk::wasTakenAway() const {
    // After the ticker, which makes the ender.
    return !ticker->isRunning() && ender && !ender->isRunning();
}

bool Disk::isGone() const {
    const SxMutexBlock block(&mutex);
    return state == State::Gone;
}

/// What doesn't go into the file that it is meant for stays in memory: that fails no other disk.
void Disk::applyCacheSize() {
    const uint64 wanted = cacheSize;
    if (wanted == appliedCacheSize) return;
    appliedCacheSize = wanted;
    try {
        disk.setCacheSize(wanted);
    } catch (const SxException& e) {
        logOnce("its cache size can't be set to " + SxString(wanted) + ": " + describe(e));
    }
}

void Disk::tick() {
    // First what waits for nothing of the image's disk.
    noticeEnd();
    adjustReadAhead();
    applyCacheSize();
    replaced = disk.isReplaced();
    disk.tick();
    // After a large discard there is a lot of it, and the rest of the work must go on meanwhile.
    for (const SxDeadline deadline(GIVE_BACK_MS); deadline.getLeftMs() > 0 && disk.giveBackRoom();)
        continue;
    for (const SxString& text : {disk.getFailure(), disk.getTrace()->getFailure()})
        logOnce(text);
    // A loop device has 128 requests: when all are held, it stands still.
    constexpr uint64 NEARLY_ALL = 100;
    const uint64 nHeld = disk.nHeld();
    const SxMutexBlock block(&mutex);
    if (!loop.isEmpty() && nHeld >= NEARLY_ALL && !fullLogged) {
        driverLog("image " + params.image + " holds " + SxString(nHeld) +
                  " reads; at 128 its loop device serves no others");
    }
    fullLogged = nHeld >= NEARLY_ALL;
}

void Disk::logOnce(const SxString& text) {
    const SxMutexBlock block(&mutex);
    if (text.isEmpty() || logged.contains(text)) return;
    logged.append(text);
    driverLog("image " + params.image + ": " + text);
}
