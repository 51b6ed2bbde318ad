#include "ZqExtractContent.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqExtractDrive.h"
#include "ZqExtractNote.h"
#include "ZqExtractPlaces.h"
#include "ZqFileLock.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqJobFailure.h"
#include "ZqJobsTogether.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"
#include "ZqNewFolder.h"
#include "ZqRedirection.h"
#include "ZqSaves.h"
#include "ZqStreamRecord.h"
#include "ZqSysEnv.h"
#include "ZqTreeCopy.h"

#include <algorithm>
#include <array>

namespace {

constexpr const char* UNIT = "src/base/extract/ZqExtractContent";
constexpr const char* JOB = "content extract";
/// Who only looks at an image has its lock for a moment, and an hour's copy needn't fail for that.
constexpr int64 PATIENCE_MS = 5000;

/// What a drive shows depends on these, so others than before mean that the copy may be of former ones.
using Stamps = std::array<std::pair<int64, int64>, 3>;

Stamps stampsOf(const SxString& image) {
    Stamps stamps;
    size_t i = 0;
    for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::LAYER_INDEX, ZqImageFiles::LAYER_DATA}) {
        const auto info = SxFSAction::look(image + "/" + name);
        stamps[i++] = info ? std::pair{info->size, info->modifiedNs} : std::pair{int64{-1}, int64{0}};
    }
    return stamps;
}

} // namespace

/// A redirected item that the private side has.
struct ZqExtractContent::Private {
    ZqRedirection::Item item;
    SxString from;       ///< the private one
    std::string host;    ///< its host path
    std::string onDrive; ///< name on the drive, whatever its case; empty where that has none
};

ZqExtractContent::ZqExtractContent(const SxString& image_, const SxString& destination_, bool isKept_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      image(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image_))),
      destination(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(destination_))),
      isKept(isKept_) {
    setThreadName(JOB);
}

ZqExtractContent::~ZqExtractContent() = default;

void ZqExtractContent::main() {
    try {
        run();
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) return;
        if (e.hasTag(REGISTRY)) throw;
        if (!isRefused) stop();
        if (!isTold) log(e.toString(3, "\n"));
        ZqJobFailure::publish(this, image, e, UNIT, __LINE__);
    }
}

void ZqExtractContent::log(const SxString& text) const {
    zqLogMsg("base", "ZqExtractContent::main : " + text);
}

void ZqExtractContent::raise(const SxString& words, const char* separator, const SxException& e, int line) {
    if (e.hasTag(SxException::STOPPED)) throw e;
    isTold = true;
    log(words + separator + e.toString(3, "\n"));
    throw SxException(e, words, UNIT, line);
}

void ZqExtractContent::raise(const SxString& words, int line) {
    isTold = true;
    log(words);
    throw SxException(words, UNIT, line);
}

void ZqExtractContent::refuse(const SxString& words, int line) {
    isRefused = true;
    raise(words, line);
}

void ZqExtractContent::requireRunning() const {
    if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

void ZqExtractContent::run() {
    t0 = ZqSysEnv::getSysTime();
    runtimeInfo->extractStats.begin(t0);
    if (image == "/" || destination == "/") refuse("IMAGE and DEST have to be named", __LINE__);
    const ZqExtractPlaces places(image, destination);
    // Before anything is made. What matters is asked again under the locks.
    if (findBegun(places).isEmpty()) requireImage(places);
    const SxString cannotCreate = "Cannot create destination directory " + destination;
    SxPtr<ZqNewFolder> parent;
    try {
        parent = SxPtr<ZqNewFolder>::create(SxFileInfo(destination).getPath());
    } catch (const SxException& e) {
        raise(cannotCreate, " : ", e, __LINE__);
    }
    const ZqFileLock alone(places.lock,
                           "Another command extracts an image to '" + destination + "' at the moment",
                           cannotCreate);
    const SxString begun = findBegun(places);
    if (begun.isEmpty()) {
        parent->sync();
        extract(places);
    } else {
        goOn(places, begun);
    }
    parent->keep();
    setNCurrent(getNTotal());
    runtimeInfo->extractStats.end(ZqSysEnv::getSysTime(), static_cast<int64>(getNTotal()));
    complete = true;
}

void ZqExtractContent::requireImage(const ZqExtractPlaces& places) {
    if (!SxFSAction::test_d(image)) {
        requireNoRest(places);
        refuse(image + " is not a directory.", __LINE__);
    }
    // In the middle of a replacement the records aren't there.
    ZqImageLock::finishReplacement(image);
    if (ZqImageStaging::liesIn(places.destination, places.image))
        refuse("The destination " + destination + " lies in the image " + image, __LINE__);
    // Also to say more than that it isn't complete.
    ZqImageLock::refuseUnfinished(image);
    const ZqImage::SplitState storage = ZqImage(image).getSplitState();
    if (storage.split || storage.joining) {
        refuse("Image '" + image + "' is in parts; put them together first: tavrin image join IMAGE",
               __LINE__);
    }
    try {
        app = ZqAppParams(image);
    } catch (const SxException& e) {
        raise("Cannot read app parameters in " + image, " : ", e, __LINE__);
    }
    const SxString zqf = image + ZqImageFiles::ZQF;
    if (SxFSAction::sizeOf(zqf) != static_cast<int64>(app.sizeZqf))
        refuse(zqf + " is not fully downloaded.", __LINE__);
    setNTotal(app.sizeZqf);
    // A link that leads nowhere has the name, too.
    if (!SxFSAction::isGone(places.destination)) refuse(destination + " already exists.", __LINE__);
    // Names that lead out are refused before anything is made.
    if (!ZqRedirection(app).isEmpty()) ZqSaves::requireFree(app.guid, places.image);
    requireNoDrive(places);
}

void ZqExtractContent::requireNoDrive(const ZqExtractPlaces& places) {
    const SxString words = "Cannot mount TAVRIN disk " + image;
    try {
        if (!ZqExtractDrive::isForeign(places.image)) return;
    } catch (const SxException& e) {
        raise(words, " : ", e, __LINE__);
    }
    raise(image + " is already mounted.", __LINE__);
}

void ZqExtractContent::checkDigest(const ZqExtractPlaces& places) {
    const SxString zqf = places.image + "/" + ZqImageFiles::ZQF;
    ZqStreamRecord record;
    record.read(places.image);
    if (app.checksumZqf.isEmpty() || record.isWritten || record.isVerified(places.image, app.checksumZqf))
        return;
    SxFileIO file(zqf, "rb");
    file.adviseSequential();
    const SxString digest = SxMd5::file(&file, [this](int64 n) {
        addNCurrent(static_cast<uint64>(n));
        updateSpeed(t0);
        return !stopRequested();
    });
    requireRunning();
    setNCurrent(0);
    if (digest == app.checksumZqf) return;
    throw SxException("'" + zqf + "' has the digest " + digest + " where app.json states " + app.checksumZqf +
                          ": the image is damaged, and nothing of it was extracted",
                      UNIT, __LINE__);
}

void ZqExtractContent::requireRoom(uint64 nNeeded) {
    const SxString words = "Cannot get free disk space for " + destination;
    uint64 nFree = 0;
    try {
        nFree = ZqSysEnv::getFreeDiskSpace(destination);
    } catch (const SxException& e) {
        raise(words, " : ", e, __LINE__);
    }
    if (nNeeded <= nFree) return;
    raise("Insufficient space for directory " + destination + " : " + nNeeded + " bytes required", __LINE__);
}

void ZqExtractContent::extract(const ZqExtractPlaces& places) {
    const auto growth = ZqImageLock::take(places.image, ZqImageLock::Growth, ZqImageLock::Exclusive, JOB);
    requireImage(places);
    ZqExtractDrive::removeLeft(places.image);
    takeBack(places);
    checkDigest(places);
    SxPtr<ZqImageLock> shape;
    try {
        makeStaging(places);
        requireRoom(app.sizeZqf);
        const Stamps before = stampsOf(places.image);
        SxPtr<ZqTreeCopy> copy;
        {
            ZqExtractDrive drive(places.image, [this](const SxString& text) { log(text); });
            SxString mntPoint;
            try {
                requireRunning();
                mntPoint = drive.mount(app);
            } catch (const SxException& e) {
                raise("Cannot mount TAVRIN disk " + image, " : ", e, __LINE__);
            }
            drive.note(places.destination);
            copyDrive(places, mntPoint, &copy);
            // The device needn't wait for the unmount.
            ZqJobsTogether syncing;
            syncing.start("extract sync", [&] { syncCopy(places); });
            try {
                drive.umount();
            } catch (const SxException& e) {
                raise("Cannot eject TAVRIN disk " + image, " : ", e, __LINE__);
            }
            syncing.wait();
        }
        // The drive held the shape itself.
        shape =
            ZqImageLock::await(places.image, ZqImageLock::Shape, ZqImageLock::Exclusive, JOB, PATIENCE_MS);
        ZqImageLock::refuseUnfinished(places.image);
        if (stampsOf(places.image) != before)
            throw SxException("Image '" + image + "' was changed while it was copied", UNIT, __LINE__);
        copyPrivate(places, true);
        copyPrivate(places, false);
        copy->finish();
        syncCopy(places);
        commit(places);
    } catch (const SxException&) {
        if (!isNamed) takeBack(places);
        throw;
    }
    finish(places, places.image, ZqExtractNote::read(places.image));
}

void ZqExtractContent::makeStaging(const ZqExtractPlaces& places) {
    // Not what somebody else has put there, such as a link.
    const SxString words = "Cannot create destination directory " + destination;
    const int made = SxOs::get().makeDir(places.staging.str(), 0777);
    if (made < 0)
        raise(words, " : ", SxException("'" + places.staging + "': " + SxOs::errorText(made), UNIT, __LINE__),
              __LINE__);
    try {
        mark = ZqSysEnv::getNewGUID() + places.markEnd();
        SxFileIO file;
        file.create(places.staging + ZqExtractNote::MARK);
        file.write(mark);
        file.close();
    } catch (const SxException& e) {
        raise(words, " : ", e, __LINE__);
    }
}

void ZqExtractContent::copyDrive(const ZqExtractPlaces& places, const SxString& mntPoint,
                                 SxPtr<ZqTreeCopy>* copy) {
    std::string root;
    bool isFound = false;
    try {
        if (const int found = SxOs::get().canonical(SxOs::hostPath(mntPoint + "/"), &root); found < 0)
            throw SxException(SxOs::errorText(found), UNIT, __LINE__);
        for (const char* name : {PROTECTED, PRIVATE}) {
            folder = name;
            const std::string source = root + "/" + name;
            const auto info = SxFSAction::look(source);
            if (!info || info->kind != SxStat::Dir) continue;
            *copy = SxPtr<ZqTreeCopy>::create(source, places.staging.str() + "/" + name,
                                              destination.str() + name);
            uint64 nNeeded = 0;
            findPrivate(source, copy->getPtr(), &nNeeded);
            (*copy)->list(*this);
            isFound = !(*copy)->isEmpty() || !privates.empty();
            nNeeded += (*copy)->getNNeeded();
            if (isFound) requireRoom(nNeeded);
            if (isFound) break;
        }
        if (!isFound)
            throw SxException("No files in " + mntPoint + "/" + folder + "/* found.", UNIT, __LINE__);
    } catch (const SxException& e) {
        if (isTold) throw;
        raise("Cannot get filelist for TAVRIN drive", ": ", e, __LINE__);
    }
    try {
        (*copy)->copy(this, t0);
    } catch (const SxException& e) {
        raise("Cannot copy files from TAVRIN drive", ": ", e, __LINE__);
    }
    nFiles = (*copy)->getNFiles();
    nSkipped = (*copy)->getNSkipped();
    nBytes = getNCurrent();
}

SxString ZqExtractContent::privateSide() const {
    return ZqRedirection(app).getDirectory() + "/" + folder;
}

void ZqExtractContent::findPrivate(const std::string& driveFolder, ZqTreeCopy* copy, uint64* nNeeded) {
    privates.clear();
    const ZqRedirection redirection(app);
    if (redirection.isEmpty()) return;
    const std::string side = SxOs::hostPath(privateSide());
    const auto findItem = [&](Private* each, const SxString& name) {
        each->from = privateSide() + "/" + name;
        each->host = ZqMachineRoot::hostPathBelow(side, name.str());
        return ZqRedirection::has(side, {each->host.substr(side.size() + 1), each->item.isFolder});
    };
    for (const ZqRedirection::Item& item : redirection.getItems()) {
        const std::string found = ZqMachineRoot::hostPathBelow(driveFolder, item.name.str());
        Private each{item, {}, {}, found.substr(driveFolder.size() + 1)};
        const bool isOnDrive = ZqRedirection::has(driveFolder, {each.onDrive, item.isFolder});
        // Programs save a file under the drive's name for it, beside a first copy under the record's.
        const size_t slash = item.name.str().rfind('/') + 1;
        const SxString saved = item.name.str().substr(0, slash) + SxFileInfo(each.onDrive).getName().str();
        if ((item.isFolder || !findItem(&each, saved)) && !findItem(&each, item.name)) continue;
        const bool isInOther = std::any_of(privates.begin(), privates.end(), [&](const Private& other) {
            return (each.host + "/").starts_with(other.host + "/");
        });
        if (isInOther) continue;
        if (isOnDrive) {
            copy->leaveOut(each.onDrive);
        } else {
            each.onDrive.clear();
        }
        ZqTreeCopy tree(each.host, "", "");
        tree.list(*this);
        *nNeeded += tree.getNNeeded();
        privates.push_back(std::move(each));
    }
}

void ZqExtractContent::copyPrivate(const ZqExtractPlaces& places, bool isFolder) {
    const SxString words = SxString("Cannot move reparsed ") + (isFolder ? "folders" : "files");
    try {
        for (const Private& each : privates) {
            if (each.item.isFolder != isFolder) continue;
            requireRunning();
            const SxString &from = each.from, to = destination + folder + "/" + each.item.name;
            log((isKept ? "cp " : "mv ") + from + " " + to);
            try {
                copyPrivateItem(places.staging.str() + "/" + folder.str(), each, to);
            } catch (const SxException& e) {
                if (e.hasTag(SxException::STOPPED)) throw;
                throw SxException(e, "Cannot move " + from + " to " + to, UNIT, __LINE__);
            }
        }
    } catch (const SxException& e) {
        raise(words, ": ", e, __LINE__);
    }
}

void ZqExtractContent::copyPrivateItem(const std::string& into, const Private& each, const SxString& shown) {
    const std::string target = each.onDrive.empty() ? ZqMachineRoot::hostPathBelow(into, each.item.name.str())
                                                    : into + "/" + each.onDrive;
    SxFSAction::mkdir_p(SxFileInfo(target).getPath(), 0777);
    ZqTreeCopy tree(each.host, target, shown.str());
    tree.list(*this);
    tree.copy(this, t0);
    tree.finish();
    nFiles += tree.getNFiles();
    nSkipped += tree.getNSkipped();
    nBytes = getNCurrent();
}

void ZqExtractContent::syncCopy(const ZqExtractPlaces& places) {
    SxOs& os = SxOs::get();
    const int fd = os.open(places.staging.str(), SxOs::Read | SxOs::Directory, 0);
    int result = fd;
    if (fd >= 0) {
        result = os.syncFs(fd);
        os.close(fd);
    }
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot bring the files of " + destination + " to the disk", UNIT, __LINE__);
    }
}

void ZqExtractContent::commit(const ZqExtractPlaces& places) {
    const auto info = SxFSAction::look(places.staging);
    if (!info) throw SxException("'" + places.staging + "' was removed", UNIT, __LINE__);
    ZqExtractNote note;
    note.destination = places.destination;
    note.device = info->device;
    note.inode = info->inode;
    note.mark = mark;
    note.isKept = isKept;
    note.folder = folder;
    note.guid = app.guid;
    for (const Private& each : privates) {
        SxList<SxString>& names = each.item.isFolder ? note.dirmap : note.filemap;
        names.append(each.item.name);
        const SxString other = each.from.right(privateSide() + "/");
        if (!(other == each.item.name)) names.append(other);
    }
    note.write(places.image);
    requireRunning();
    // A folder that somebody has made meanwhile isn't replaced, empty or not.
    if (!SxFSAction::isGone(places.destination)) raise(destination + " already exists.", __LINE__);
    SxFSAction::mv(places.staging, places.destination);
    isNamed = true;
    SxFSAction::syncDir(places.parent);
}

/// Takes away what this job has made, or one before it that was killed.
void ZqExtractContent::takeBack(const ZqExtractPlaces& places) const {
    try {
        ZqExtractNote::remove(places.image);
        if (SxFSAction::isGone(places.staging)) return;
        // Not what somebody else has called so.
        const bool isOurs = !SxFSAction::isGone(places.staging + ZqExtractNote::MARK);
        const int removed = isOurs ? 0 : SxOs::get().removeDir(places.staging.str());
        if (isOurs) SxFSAction::rm_r(places.staging);
        if (removed < 0)
            throw SxException("'" + places.staging + "' isn't of this program: " + SxOs::errorText(removed),
                              UNIT, __LINE__);
    } catch (const SxException& e) {
        log("cannot remove what was copied so far: " + e.toString(3, "\n"));
    }
}
