#pragma once

#include "SxException.h"
#include "SxFileIO.h"

/// How far an optimisation has come, in a file of its own, so that another process can go on after a kill or
/// a power cut at any point. Not locked.
///
/// File: two records of 72 bytes, at byte 0 and 4096, the rest zeros up to 8192 bytes. A record is nine
/// unsigned 64-bit little-endian numbers: "ZMOVE001" as text, sequence, digest of the plan, phase, round,
/// batch, XXH64 of the round's heads, probe, XXH64 of the eight before. The record of the higher sequence
/// counts; a change replaces the other one. A record lies in one sector, which a device writes as a whole or
/// not at all; so one that is neither whole nor zeros was damaged, and what it said isn't guessed.
class ZqMoveProgress {
public:
    enum Phase : uint64 {
        Heads = 0,   ///< the heads of `round` are being set aside
        Batches = 1, ///< `batch` of `round` may be half done; all before are done
        Records = 2, ///< all blocks are in their places; the records are being replaced
        Swap = 3,    ///< a copy of `round` bytes is complete; image and records are being replaced
        Tidy = 4     ///< all is replaced
    };
    /// What else is replaced, a sum as `batch` of the phases Records and Swap.
    static constexpr uint64 ALSO_AHEAD = 1, ALSO_IDX_MD5 = 2, ALSO_HINTS = 4;
    /// The tag of a failure where the file says nothing.
    static constexpr const char* DAMAGED = "Damaged";
    struct State {
        Phase phase = Heads;
        uint64 round = 0, batch = 0;
        uint64 headsHash = 0;
        /// What tells a file that all of that was done to from another one: XXH64 of blocks that are in their
        /// places, see ZqBlockProbe. 0 where none is.
        uint64 probe = 0;
        bool operator==(const State&) const = default;
    };

    /// Makes the file; `plan` is a digest of all that the numbers depend on. On the device at the end.
    static ZqMoveProgress create(const SxString& path, uint64 plan, const State& state);
    /// Reads the file. Raises where it says nothing, naming it.
    static ZqMoveProgress open(const SxString& path);

    const State& get() const { return state; }
    const SxString& getPath() const { return file.getFilePath(); }
    /// Raises where the file was made for another plan.
    void requirePlan(uint64 plan) const;
    /// Replaces the state. It is on the device at the end; raises where that isn't known.
    void set(const State& next);

private:
    ZqMoveProgress() = default;
    void take(int64 slot);
    void write(int64 slot);
    SxException damage() const;

    SxFileIO file;
    State state;
    uint64 sequence = 0, planDigest = 0;
};
