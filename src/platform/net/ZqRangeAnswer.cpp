#include "ZqRangeAnswer.h"

#include <algorithm>
#include <limits>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqRangeAnswer";
/// Of a whole file that comes for a range so much may go to waste, in bytes.
constexpr uint64 MAX_SKIPPED = 1 << 20;

SxString rangeText(uint64 first, uint64 end) {
    return SxString(first) + "-" + (end == ZqRangeAnswer::UNKNOWN ? SxString() : SxString(end - 1));
}

[[noreturn]] void raiseWrong(const SxString& text, int line) {
    throw SxException(ZqNetLink::WRONG, text, UNIT, line);
}

} // namespace

void ZqRangeAnswer::raiseNoSuchBytes(const ZqTransfer::Response& response) {
    // Other headers may be those of a page that says so.
    if (response.total >= 0) {
        const auto total = static_cast<uint64>(response.total);
        facts->learnSize(total);
        if (end == UNKNOWN && first >= total)
            throw SxException(AT_END, "The file ends there", UNIT, __LINE__);
    }
    const SxString text = "The server says that it hasn't got bytes " + rangeText(first, end) + " (416)";
    if (facts->leave(asked)) throw SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__);
    raiseWrong(text, __LINE__);
}

void ZqRangeAnswer::check(const ZqTransfer::Response& response) {
    if (response.status == 416) raiseNoSuchBytes(response);
    facts->checkStatus(response, asked);
    ZqTransfer::Response told = response;
    const bool isWhole = response.status == 200;
    if (isWhole) {
        told.total = response.length;
        told.first = 0;
        told.last = response.length - 1;
    } else if (response.first < 0) {
        raiseWrong("The server doesn't say which bytes it sends", __LINE__);
    }
    const auto begin = static_cast<uint64>(told.first);
    const uint64 bodyEnd = isWhole && response.length < 0 ? UNKNOWN : static_cast<uint64>(told.last + 1);
    const bool isRange = first > 0 || end != UNKNOWN;
    const SxString lacking =
        "The server answers a request for a range with the whole file (200): it, and any cache or proxy in "
        "front of it, must answer ranges (Range, 206), also for files of this size";
    // Where nothing tells how large the file is, or what comes, that may be a page about something else,
    // which would become the beginning of an image.
    const bool isUntold =
        facts->getDueSize() == UNKNOWN || (response.length < 0 && facts->getDueSize() > MAX_SKIPPED);
    if (isWhole && isRange && isUntold) raiseWrong(lacking, __LINE__);
    version = facts->learn(told, isVouched);
    facts->noteForm(isWhole);
    if (isWhole && first > MAX_SKIPPED) raiseWrong(lacking, __LINE__);
    const uint64 size = facts->getDueSize(), dueEnd = std::min(end, size);
    if (begin > first || (bodyEnd <= first && dueEnd > first)) {
        raiseWrong("The server was asked for bytes " + rangeText(first, dueEnd) + " and sends " +
                       rangeText(begin, bodyEnd),
                   __LINE__);
    }
    if (!isWhole && response.length >= 0 && static_cast<uint64>(response.length) != bodyEnd - begin) {
        raiseWrong("The server announces " + SxString(response.length) + " bytes for bytes " +
                       rangeText(begin, bodyEnd),
                   __LINE__);
    }
    const uint64 last = std::max(std::min(dueEnd, bodyEnd), first);
    constexpr auto MOST = static_cast<uint64>(std::numeric_limits<int64>::max());
    part->nSkip = static_cast<int64>(first - begin);
    part->nTake = static_cast<int64>(std::min(last - first, MOST));
    part->isMore = last < std::min(bodyEnd, size);
    takenEnd = last;
    wantedEnd = dueEnd;
}
