#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <span>
#include <vector>

/// In which steps the blocks of a file come to a new order, each moved once. A step copies a block to the
/// position where it belongs; its former block has gone on before, or was set aside. Positions are ZqF
/// indices in blocks.
///
/// Steps follow each other in cycles, and in open paths, which begin at a position that holds nothing. Both
/// are cut into chains. The block at a chain's first position is its head: it is set aside, and the chain
/// before it ends by writing it. The first chain of a path has no head. Batch t does step t of every chain;
/// a round is what is done with one lot of heads, and takes whole cycles and paths.
///
/// So a batch reads heads, and positions that only the next batch writes: until that one writes, the batch
/// can be done again and does the same.
///
/// The plan follows from the order and the limits alone, in every version of this class (FORMAT). Not locked.
class ZqMovePlan {
public:
    using Position = uint32; ///< of a block; a file of 16 TiB has that many
    static constexpr Position NONE = ~Position{0};
    /// The rules by which cycles and paths are found, cut and put into rounds.
    static constexpr uint64 FORMAT = 1;

    struct Limits {
        uint64 nHeads = 16384; ///< of a round, at least 1
        uint64 nSteps = 32;    ///< of a chain, on average, at least 1
    };

    /// `source`, by position: where the block is now that belongs there; NONE for nothing. Each position is
    /// the source of one at most.
    ZqMovePlan(std::vector<Position> source_, const Limits& limits_);

    /// Blocks that belong elsewhere, and blocks in their place.
    uint64 getNMoved() const { return nMoved; }
    uint64 getNKept() const { return nKept; }
    /// No round has more heads.
    uint64 getMaxHeads() const { return std::min(limits.nHeads, nMoved); }

    /// Goes on to the next round, at first to round 0; false where there is none.
    bool nextRound();
    /// Of this round: the positions whose blocks are set aside, ascending. The place there is the head's
    /// slot.
    const std::vector<Position>& getHeads() const { return heads; }
    uint64 getNBatches() const { return ends.size(); }
    /// The positions that a batch writes, in an order that is the plan's, too.
    std::span<const Position> getBatch(uint64 batch) const;
    Position sourceOf(Position to) const { return source[to]; }
    bool isMoved(Position to) const { return source[to] != NONE && source[to] != to; }
    /// The slot of the head that was set aside at that position.
    std::optional<uint64> headAt(Position position) const;

private:
    /// A cycle or a path, by its first position.
    struct Course {
        Position first;
        uint64 nSteps;
        uint64 spacing; ///< one position in so many begins a chain
        bool isCut;     ///< it has more than one chain
    };
    using Visitor = std::function<void(Position to, uint64 step, bool isHead)>;

    void findSources();
    std::optional<Course> nextCourse();
    bool isOpen(Position first) const { return !drawn[first]; }
    uint64 countSteps(Position first);
    uint64 countHeads(const Course& course) const;
    bool beginsChain(Position position, uint64 spacing) const;
    void walk(const Course& course, const Visitor& visit) const;
    void fill(const std::vector<Course>& courses);

    std::vector<Position> source;
    const Limits limits;
    uint64 nMoved = 0, nKept = 0;
    std::vector<bool> drawn;    ///< positions that are the source of another one
    std::vector<uint64> breaks; ///< a bit for each position: no run of blocks goes on from the one before
    std::vector<bool> seen;     ///< positions of courses that were found
    uint64 nextPath = 0, nextCycle = 0;
    std::optional<Course> pending; ///< found, but for the next round

    std::vector<Position> heads, steps;
    std::vector<uint64> ends; ///< of the batches, in `steps`
};
