#pragma once

#include "SxFileIO.h"
#include "ZqMovePlan.h"

#include <span>
#include <vector>

/// Reads blocks that lie scattered in a file, in the order of their places there, runs as one. One thread.
class ZqBlockGather {
public:
    /// Blocks that are best read together: 32 MiB.
    static constexpr uint64 PIECE = 8192;

    explicit ZqBlockGather(SxFileIO* file_) : file(file_) {}

    /// Reads the blocks at `positions`, none of which is NONE, one after the other into `to`. Raises where
    /// the file ends before one.
    void read(std::span<const ZqMovePlan::Position> positions, char* to);
    /// Copies the first blocks of `positions`, a piece at most, to a file in `folder`, which is removed
    /// again, and gives the bytes per second that the disk took for it, synced; 0 where there are none.
    /// Folders have trailing slashes.
    static double measureRate(SxFileIO* file, std::span<const ZqMovePlan::Position> positions,
                              const SxString& folder);

    /// Seconds that the disk takes to sync a block in a file in `folder`, which is removed again.
    static double measureSync(const SxString& folder);

private:
    SxFileIO* const file;
    std::vector<uint32> byPlace;
};
