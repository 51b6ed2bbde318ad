#include "ZqMoveProgress.h"

#include "SxXxh64.h"
#include "ZqBlocks.h"

#include <array>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqMoveProgress";
constexpr size_t N_FIELDS = 9;
constexpr int64 SLOT = ZqBlocks::SIZE;
using Record = std::array<uint64, N_FIELDS>;

uint64 magic() {
    uint64 value = 0;
    std::memcpy(&value, "ZMOVE001", sizeof value);
    return value;
}

uint64 checksum(const Record& record) {
    return SxXxh64::of(record.data(), (N_FIELDS - 1) * sizeof(uint64));
}

} // namespace

ZqMoveProgress ZqMoveProgress::create(const SxString& path, uint64 plan, const State& state) {
    ZqMoveProgress progress;
    progress.planDigest = plan;
    progress.state = state;
    progress.file.create(path);
    // All of its room is taken now, so that a disk that fills up later stops no change.
    const std::string zeros(2 * SLOT, '\0');
    progress.file.writeBuffer(zeros.data(), 2 * SLOT);
    progress.sequence = 1;
    progress.write(1);
    return progress;
}

ZqMoveProgress ZqMoveProgress::open(const SxString& path) {
    ZqMoveProgress progress;
    progress.file.open(path, "r+b");
    const bool isWhole = progress.file.getSize() == 2 * SLOT;
    if (isWhole) {
        progress.take(0);
        progress.take(1);
    }
    if (!isWhole || progress.sequence == 0) throw progress.damage();
    return progress;
}

SxException ZqMoveProgress::damage() const {
    return SxException(
        DAMAGED, "'" + file.getFilePath() + "' doesn't say how far the optimisation has come: it is damaged",
        UNIT, __LINE__);
}

void ZqMoveProgress::take(int64 slot) {
    Record record{};
    file.seek(slot * SLOT);
    if (file.readBuffer(record.data(), sizeof record) != static_cast<int64>(sizeof record)) throw damage();
    if (record == Record{}) return;
    if (record[0] != magic() || record[N_FIELDS - 1] != checksum(record) || record[3] > Tidy) throw damage();
    if (record[1] < sequence) return;
    sequence = record[1];
    planDigest = record[2];
    state = {static_cast<Phase>(record[3]), record[4], record[5], record[6], record[7]};
}

void ZqMoveProgress::requirePlan(uint64 plan) const {
    if (plan == planDigest) return;
    throw SxException("'" + file.getFilePath() + "' belongs to another optimisation than the files beside it",
                      UNIT, __LINE__);
}

void ZqMoveProgress::set(const State& next) {
    state = next;
    ++sequence;
    write(static_cast<int64>(sequence % 2));
}

void ZqMoveProgress::write(int64 slot) {
    Record record{
        magic(),         sequence,    planDigest, static_cast<uint64>(state.phase), state.round, state.batch,
        state.headsHash, state.probe, 0};
    record[N_FIELDS - 1] = checksum(record);
    file.seek(slot * SLOT);
    file.writeBuffer(record.data(), sizeof record);
    file.sync();
}
