#pragma once

#include "DriveLetter.h"
#include "SxMutex.h"

/// How far a disk has come, and what clients see of that. Safe from any thread.
///
///   stage     disk  file  volume  letter   goes on to
///   Starting  yes   yes   -       -        Mounted, Failed, Gone
///   Mounted   yes   yes   yes     yes      Detached, Gone
///   Detached  yes   yes   -       yes      Gone        the volume was dismounted
///   Failed    yes   -     -       -        Gone        says why, until it is ejected
///   Gone      -     -     -       -
class DiskState {
public:
    enum class Stage { Starting, Mounted, Detached, Failed, Gone };
    /// How a disk has ended.
    struct End {
        SxString lost; ///< what a program wrote and the disk could not keep, as a sentence; empty for nothing
        bool busy = false; ///< the volume was in use, and was detached all the same
    };
    /// What is seen at one moment.
    struct View {
        Stage stage;
        SxString failure;
        bool hasDrive;  ///< Mounted or Detached
        SxString drive; ///< letter and colon; empty without a letter
    };

    View view() const;
    bool is(Stage asked) const;
    /// Takes a letter for the volume, and is Mounted; gives the letter with its colon. Raises.
    SxString mount(const SxString& root, const SxString& volume);
    /// The same for a volume that has a letter by now, or gets one.
    SxString takeOver(const SxString& root, const SxString& volume);
    void detach();
    /// Detached without a letter.
    void dropLetter();
    void fail(const SxString& why);
    /// Keeps the reason, if it is the first; the stage stays.
    void noteFailure(const SxString& why);
    void end(const End& how);
    /// Once it is Gone.
    End getEnd() const;

private:
    mutable SxMutex mutex;
    Stage stage SX_GUARDED_BY(mutex) = Stage::Starting;
    DriveLetter letter SX_GUARDED_BY(mutex);
    SxString failure SX_GUARDED_BY(mutex);
    End ended SX_GUARDED_BY(mutex);
};
