#include "ZqWritePace.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqWritePace";
constexpr int FILE_MODE = 0600;
constexpr uint64 LEAST_MAX_SPEED = 0xA00000;
constexpr uint64 LARGE_BUFFER = 500'000'000;
constexpr int64 TEST_BYTES = 0x3200000;
/// A pause that lasted too long shortens the next one by no more than that.
constexpr int64 LARGEST_LAG_NS = 20'000'000;

/// Fills the array with numbers that no disk can pack (xorshift64*). That costs a few milliseconds for the
/// 50 MiB of the test, so it measures the disk and not the machine, and doesn't take a core for half a second
/// while a game starts.
void fillRandomly(SxArray<uint64>* words, uint64 seed) {
    uint64 x = seed | 1;
    for (uint64& word : *words) {
        x ^= x >> 12;
        x ^= x << 25;
        x ^= x >> 27;
        word = x * 0x2545F4914F6CDD1DULL;
    }
}

} // namespace

void ZqWritePace::testDisk(const SxString& dirPath, const ZqDiskReserve& reserve) {
    const SxString path = dirPath + TEST_FILE;
    try {
        // A disk that has room for the image must not be full by the test. For the same reason the test's
        // file is removed as soon as the test is over, also where that has failed.
        const uint64 free = std::min(ZqSysEnv::getFreeDiskSpace(dirPath), reserve.getRoom());
        writeTestFile(path, std::min(TEST_BYTES, static_cast<int64>(std::min(free, uint64{1} << 62) / 2)));
        SxFSAction::rm(path);
    } catch (const SxException& e) {
        SxOs::get().unlink(SxOs::hostPath(path));
        zqLogMsg("base", "Cannot perform disk speed test: " + SxString(e.what()));
        throw SxException(e, "Cannot perform disk speed test", UNIT, __LINE__);
    }
    maxSpeed = std::max(testBytes * 100 / testMs, LEAST_MAX_SPEED);
}

void ZqWritePace::writeTestFile(const SxString& path, int64 nBytes) {
    SxArray<uint64> words(nBytes / static_cast<int64>(sizeof(uint64)));
    fillRandomly(&words, static_cast<uint64>(ZqSysEnv::getSysTime()));
    testBytes = static_cast<uint64>(words.getSize()) * sizeof(uint64);
    const uint64 beginMs = static_cast<uint64>(SxClock::get().steadyMs());
    SxFileIO file;
    file.create(path, FILE_MODE);
    file.write(words);
    file.flush();
    file.close();
    testMs = std::max<uint64>(static_cast<uint64>(SxClock::get().steadyMs()) - beginMs, 1);
}

uint64 ZqWritePace::getTarget(uint64 dlSpeed, uint64 nAvailable) const {
    const uint64 wanted = nAvailable > LARGE_BUFFER ? 2 * dlSpeed : dlSpeed;
    return std::max(std::min(wanted, maxSpeed), MIN_SPEED);
}

void ZqWritePace::begin(int64 nowNs) {
    // What the last piece took too long is taken off the pause of this one. The pauses of pieces of 200 KB
    // are about a millisecond, as short as the system's sleep is inexact, and the pace would stay a sixth
    // below its target.
    const bool inTurn = nowNs - dueNs <= LARGEST_LAG_NS;
    dueNs = inTurn ? dueNs : nowNs;
}

void ZqWritePace::await(uint64 nBytes, uint64 target, const std::function<bool()>& isStopped) {
    dueNs += static_cast<int64>(static_cast<double>(nBytes) * 1e9 / static_cast<double>(target));
    const int64 pauseMs = (dueNs - SxClock::get().steadyNs()) / 1'000'000;
    SxWait::pass(pauseMs, isStopped);
}
