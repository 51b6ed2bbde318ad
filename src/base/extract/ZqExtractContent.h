#pragma once

#include "ZqAppParams.h"
#include "ZqRuntimeInfo.h"
#include "ZqTaskMon.h"

#include <vector>

struct ZqExtractPlaces;
class ZqExtractNote;
class ZqTreeCopy;

/// Job that turns a complete image folder into a plain installation: mounts the image, copies the drive's
/// protected folder to a destination, and the redirected items of the application over it, makes the
/// registry entries permanent, and removes the image and the private originals. Progress in bytes.
///
/// The copy is made beside the destination and gets its name when it is complete and on the device. Until
/// then a stop, a failure or a cut leaves all as it was, but for what a killed job has begun, which the next
/// one removes. From that moment on the image is refused to everybody else (ZqExtractNote), a stop is too
/// late, and the same command goes on where it was cut off.
class ZqExtractContent : public ZqTaskMon {
public:
    /// `image_`: the image folder, or a link to it, which goes with it; `destination_`: the folder to create,
    /// which gets one folder, named like the protected folder of the drive. `isKept_`: the image and the
    /// private files stay.
    ZqExtractContent(const SxString& image_, const SxString& destination_, bool isKept_ = false);
    ~ZqExtractContent() override;

    /// Gets `extractStats`; not null.
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    // After the end.

    /// Whether all is done.
    bool isComplete() const { return complete; }
    /// Whether it only did the end of what a job that was cut off had begun.
    bool isResumed() const { return resumed; }
    int64 getNFiles() const { return nFiles; }
    /// Bytes that were copied.
    uint64 getNBytes() const { return nBytes; }
    /// The private folder in which programs have written beside redirected files; empty for none. That stays,
    /// and isn't in the installation.
    const SxString& getLeft() const { return privateLeft; }
    /// Number of pipes, sockets and devices that were passed over; the log names them.
    int64 getNSkipped() const { return nSkipped; }

protected:
    void main() override;

private:
    /// Tag of a failure that leaves main().
    static constexpr const char* REGISTRY = "RegistryEntries";
    static constexpr const char *PROTECTED = "TAVRIN-protected", *PRIVATE = "TAVRIN-private";
    struct Private;

    void run();
    /// Refuses what can be refused without a lock and without a drive.
    void requireImage(const ZqExtractPlaces& places);
    /// Raises where the image is gone since it was extracted, and what is left of it waits for its end.
    void requireNoRest(const ZqExtractPlaces& places);
    void requireNoDrive(const ZqExtractPlaces& places);
    void checkDigest(const ZqExtractPlaces& places);
    void requireRoom(uint64 nNeeded);

    void extract(const ZqExtractPlaces& places);
    void makeStaging(const ZqExtractPlaces& places);
    void copyDrive(const ZqExtractPlaces& places, const SxString& mntPoint, SxPtr<ZqTreeCopy>* copy);
    void findPrivate(const std::string& driveFolder, ZqTreeCopy* copy, uint64* nNeeded);
    void copyPrivate(const ZqExtractPlaces& places, bool isFolder);
    void copyPrivateItem(const std::string& into, const Private& each, const SxString& from);
    /// Brings the copy to the device.
    void syncCopy(const ZqExtractPlaces& places);
    /// Gives it its name.
    void commit(const ZqExtractPlaces& places);
    void takeBack(const ZqExtractPlaces& places) const;
    SxString privateSide() const;

    // Once the copy has its name: ZqExtractContentEnd.cpp.

    /// The image folder that a job that was cut off has left for this destination, or what is left of it;
    /// empty for none.
    static SxString findBegun(const ZqExtractPlaces& places);
    void goOn(const ZqExtractPlaces& places, const SxString& begun);
    void finish(const ZqExtractPlaces& places, const SxString& from, const ZqExtractNote& note);
    void makeRegistryEntries(const ZqExtractPlaces& places) const;
    SxString moveAway(const ZqExtractPlaces& places, const SxString& from);
    void removePrivate(const ZqExtractPlaces& places, const ZqExtractNote& note);
    void removeRest(const ZqExtractPlaces& places, const SxString& from) const;
    void removeMark(const ZqExtractPlaces& places) const;

    void log(const SxString& text) const;
    /// Logs and raises the failure of a step, in its stated words.
    [[noreturn]] void raise(const SxString& words, const char* separator, const SxException& e, int line);
    [[noreturn]] void raise(const SxString& words, int line);
    /// The same where nothing was touched: then the job isn't asked to stop.
    [[noreturn]] void refuse(const SxString& words, int line);
    void requireRunning() const;

    const SxString image, destination; ///< with trailing slashes
    const bool isKept;
    ZqAppParams app;
    SxString folder; ///< the protected folder
    std::vector<Private> privates;
    int64 t0 = 0;         ///< system time in milliseconds
    SxString mark;        ///< of the copy
    SxString privateLeft; ///< where other private files stay
    bool isTold = false, isRefused = false;
    bool isNamed = false; ///< the copy has its name
    bool complete = false, resumed = false;
    int64 nFiles = 0, nSkipped = 0;
    uint64 nBytes = 0;
};
