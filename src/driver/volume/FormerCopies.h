#pragma once

#include <string>
#include <vector>

/// What an overlay's upper layer holds beside the redirected names: files that the game wrote in a folder of
/// its drive, and marks of what it removed. They were made on one version of the image, and would hide what
/// the next one brings, as a patch's files. At the first mount of another version the files that the volume
/// has, too, and all marks move into a dated folder beside the private side's protected folder. Redirected
/// names stay, and those that the volume lacks. Nothing is deleted: what moves may be saved games, which the
/// game wrote where nobody expected them.
///
/// A note beside the private side's folder tells the version. It names the dated folder before the first name
/// moves, so that the next mount goes on where a killed one was cut off. For one thread, of a process that
/// has the private side to itself and no overlay on it.
class FormerCopies {
public:
    using Path = std::vector<std::string>;

    /// `folder`: the private side's protected folder, a host path without links. `version` tells versions of
    /// the image apart; where it is empty nothing is moved. Raises where a note can't be read.
    FormerCopies(const std::string& folder, const std::string& version);

    /// Whether the next move() and finish() are due. Without a note, as earlier versions of this system leave
    /// a private side, nothing is moved: nobody knows whether the version is new.
    bool isDue() const { return due; }
    /// Notes what is going to be done. Before the first move().
    void begin();
    /// Moves what hides names of `onVolume`, a folder of the volume, or is a mark of removal, out of the
    /// private side's folder `inPrivate`. What is at or below one of `kept` stays, as do names that the
    /// volume lacks. `inPrivate` and `kept` are relative to the private side's protected folder.
    void move(const std::string& onVolume, const Path& inPrivate, const std::vector<Path>& kept);
    /// Notes that it is done, when all has reached the disk.
    void finish();

    /// The dated folder; empty where nothing was moved.
    const std::string& getMovedTo() const { return movedTo; }

private:
    struct Note {
        std::string version, dated;
    };
    class Walk;

    Note read() const;
    void write(const Note& note) const;
    std::string datedName() const;

    std::string folder, notePath, version;
    std::string dated; ///< path of the folder for what moves; made for the first
    std::string movedTo;
    bool known = false, due = false;
};
