#include "ZqMovePlan.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace {

constexpr uint64 WORD = 64;
constexpr uint64 WINDOW = 16; ///< words
/// A chain ends after so many times the steps that one has on average.
constexpr uint64 LONGEST = 2;
/// A round ends before it would take more steps, unless one cycle or path has so many: they are in memory.
constexpr uint64 ROUND_STEPS = uint64{1} << 21;

} // namespace

ZqMovePlan::ZqMovePlan(std::vector<Position> source_, const Limits& limits_)
    : source(std::move(source_)),
      limits(limits_),
      drawn(source.size()),
      breaks(source.size() / WORD + 1, 0),
      seen(source.size()) {
    findSources();
}

void ZqMovePlan::findSources() {
    for (uint64 to = 0; to < source.size(); ++to) {
        const Position from = source[to];
        const bool goesOn = to > 0 && from != NONE && source[to - 1] != NONE && from == source[to - 1] + 1;
        if (!goesOn) breaks[to / WORD] |= uint64{1} << to % WORD;
        if (from == NONE) continue;
        drawn[from] = true;
        if (from == to) {
            ++nKept;
        } else {
            ++nMoved;
        }
    }
}

/// Blocks that move side by side belong to courses of their own, or to distant steps of one. To be in the
/// same batches, so that these read and write runs, they must be cut at the same places. So the place
/// decides: a run, in a window of 1024 positions, is cut as a whole or not at all, by a number that its first
/// position gives.
bool ZqMovePlan::beginsChain(Position position, uint64 spacing) const {
    uint64 at = position / WORD;
    uint64 word = breaks[at] << (WORD - 1 - position % WORD) >> (WORD - 1 - position % WORD);
    while (word == 0 && at % WINDOW != 0)
        word = breaks[--at];
    const uint64 first =
        word == 0 ? at * WORD : at * WORD + WORD - 1 - static_cast<uint64>(std::countl_zero(word));
    return ((first + 1) * 0x9E3779B97F4A7C15 >> 32) % spacing == 0;
}

void ZqMovePlan::walk(const Course& course, const Visitor& visit) const {
    const bool open = isOpen(course.first);
    uint64 step = 0;
    Position to = course.first;
    do {
        const bool isFirst = to == course.first;
        const bool begins =
            isFirst ||
            (course.isCut && (step == LONGEST * course.spacing || beginsChain(to, course.spacing)));
        if (begins) step = 0;
        visit(to, step++, begins && !(isFirst && open));
        to = source[to];
    } while (to != course.first && source[to] != NONE);
}

uint64 ZqMovePlan::countSteps(Position first) {
    uint64 n = 0;
    Position to = first;
    do {
        seen[to] = true;
        ++n;
        to = source[to];
    } while (to != first && source[to] != NONE);
    return n;
}

uint64 ZqMovePlan::countHeads(const Course& course) const {
    uint64 n = 0;
    walk(course, [&](Position, uint64, bool isHead) { n += isHead; });
    return n;
}

std::optional<ZqMovePlan::Course> ZqMovePlan::nextCourse() {
    const uint64 n = source.size();
    while (nextPath < n && (source[nextPath] == NONE || drawn[nextPath]))
        ++nextPath;
    uint64* next = &nextPath;
    if (nextPath == n) {
        next = &nextCycle;
        while (nextCycle < n &&
               (source[nextCycle] == NONE || source[nextCycle] == nextCycle || seen[nextCycle]))
            ++nextCycle;
        if (nextCycle == n) return std::nullopt;
    }
    const auto first = static_cast<Position>((*next)++);
    const uint64 nSteps = countSteps(first);
    Course course{first, nSteps, std::max(limits.nSteps, nSteps / limits.nHeads),
                  nSteps > LONGEST * limits.nSteps};
    // One course has one lot of heads, however long it is.
    while (countHeads(course) > limits.nHeads)
        course.spacing += course.spacing / 8 + 1;
    return course;
}

bool ZqMovePlan::nextRound() {
    std::vector<Course> courses;
    uint64 nHeads = 0, nSteps = 0;
    if (!pending) pending = nextCourse();
    while (pending) {
        const uint64 more = countHeads(*pending);
        const bool isFull = nHeads + more > limits.nHeads || nSteps + pending->nSteps > ROUND_STEPS;
        if (isFull && !courses.empty()) break;
        nHeads += more;
        nSteps += pending->nSteps;
        courses.push_back(*pending);
        pending = nextCourse();
    }
    fill(courses);
    return !courses.empty();
}

void ZqMovePlan::fill(const std::vector<Course>& courses) {
    heads.clear();
    ends.clear();
    for (const Course& course : courses) {
        walk(course, [&](Position to, uint64 step, bool isHead) {
            if (step >= ends.size()) ends.resize(step + 1, 0);
            ++ends[step];
            if (isHead) heads.push_back(to);
        });
    }
    std::sort(heads.begin(), heads.end());
    // From the sizes of the batches to where each begins, which become their ends as they are filled.
    uint64 n = 0;
    for (uint64& end : ends)
        n += std::exchange(end, n);
    steps.resize(n);
    for (const Course& course : courses)
        walk(course, [&](Position to, uint64 step, bool) { steps[ends[step]++] = to; });
}

std::span<const ZqMovePlan::Position> ZqMovePlan::getBatch(uint64 batch) const {
    const uint64 begin = batch == 0 ? 0 : ends[batch - 1];
    return std::span(steps).subspan(begin, ends[batch] - begin);
}

std::optional<uint64> ZqMovePlan::headAt(Position position) const {
    const auto found = std::lower_bound(heads.begin(), heads.end(), position);
    if (found == heads.end() || *found != position) return std::nullopt;
    return static_cast<uint64>(found - heads.begin());
}
