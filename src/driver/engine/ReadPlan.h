#pragma once

#include "BlockIdx.h"

/// What one read takes from where: blocks that lie together in their file are one run. Fits on the stack.
class ReadPlan {
public:
    enum Kind : uint32 {
        Zeros,
        Stored,    ///< in `img.zqf`
        Delivered, ///< in the underflow store
        Layered    ///< in `img.tmp`
    };
    static constexpr size_t N_KINDS = 4;
    struct Run {
        Kind kind;
        uint32 size; ///< bytes
        uint64 from; ///< byte offset in the file
        char* to;
    };

    void clear() { nRuns = 0, moves = false; }
    void add(Kind kind, uint64 from, uint32 size, char* to) {
        if (nRuns > 0) {
            Run& last = runs[nRuns - 1];
            if (last.kind == kind && (kind == Zeros || last.from + last.size == from)) {
                last.size += size;
                return;
            }
        }
        runs[nRuns++] = {kind, size, from, to};
        moves |= kind >= Delivered;
    }
    const Run* begin() const { return runs; }
    const Run* end() const { return runs + nRuns; }
    /// Whether some of it can be dropped or moved while it is read.
    bool isVolatile() const { return moves; }

private:
    uint32 nRuns = 0;
    bool moves = false;
    Run runs[MAX_REQUEST_BLOCKS];
};
