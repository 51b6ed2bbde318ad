#include "ZqWriteLog.h"

#include "SxClock.h"
#include "ZqSysEnv.h"
#include "ZqWritePace.h"

#include <algorithm>
#include <cstdint>

namespace {
constexpr const char* LOG = "write.log";
constexpr int FILE_MODE = 0600;
/// From one line to the next, where less than a whole piece is written. With a line for each chunk, which may
/// be one of 10 ms, the log of a slow download grew to a twentieth of the image.
constexpr int64 LINE_NS = 1'000'000'000;
} // namespace

ZqWriteLog::ZqWriteLog(uint64 cursor0_)
    : cursor0(cursor0_),
      time0(static_cast<uint64>(ZqSysEnv::getSysTime())),
      steady0(static_cast<uint64>(SxClock::get().steadyMs())) {
}

void ZqWriteLog::open(const SxString& dirPath, uint64 testBytes, uint64 testMs) {
    // In the place of a link that stands there, as with the test's file.
    log.create(dirPath + LOG, FILE_MODE);
    log.write(
        SxString::sprintf("#Time0: %15ju ms, Curser0: %15ju bytes\n", uintmax_t{time0}, uintmax_t{cursor0}));
    log.write(SxString::sprintf("# Testwrites of %15ju bytes took %15ju ms\n", uintmax_t{testBytes},
                                uintmax_t{testMs}));
    log.write(SxString::sprintf("#%20s %15s %15s %15s %15s %15s %15s %15s %15s %15s %15s\n", "Timestamp",
                                "Time [s]", "Receiv data [B]", "dlSpeed [B/s]", "Buffer pos [B]",
                                "ZqF Size [B]", "Buffer size [B]", "Speed IST [B/s]", "Speed SOLL [B/s]",
                                "min Speed [B/s]", "max Speed [B/s]"));
    log.flush();
}

void ZqWriteLog::setSpeeds(uint64 dlSpeed_, uint64 target_) {
    dlSpeed = dlSpeed_;
    target = target_;
}

void ZqWriteLog::add(uint64 nBytes_, int64 ns_) {
    nBytes += nBytes_;
    ns += ns_;
}

bool ZqWriteLog::isLineDue() const {
    return nBytes >= ZqWriteBuffer::MAX_PIECE || SxClock::get().steadyNs() - lineNs >= LINE_NS;
}

void ZqWriteLog::writeLine(const ZqWriteBuffer::Cursors& at, uint64 maxSpeed) {
    lineNs = SxClock::get().steadyNs();
    const auto elapsedMs = static_cast<uint64>(ns / 1'000'000);
    const uint64 reached = nBytes * 1000 / std::max<uint64>(elapsedMs, 1);
    log.write(SxString::sprintf(
        "%20s %15lf %15ju %15ju %15ju %15ju %15ju %15ju %15ju %15ju %15ju\n",
        ZqSysEnv::getTimestamp().ascii(),
        static_cast<double>(static_cast<uint64>(SxClock::get().steadyMs()) - steady0) / 1000.0,
        uintmax_t{at.nReceived}, uintmax_t{dlSpeed}, uintmax_t{at.buffered}, uintmax_t{at.written},
        uintmax_t{at.nAvailable}, uintmax_t{reached}, uintmax_t{target}, uintmax_t{ZqWritePace::MIN_SPEED},
        uintmax_t{maxSpeed}));
    log.flush();
    nBytes = 0;
    ns = 0;
    dlSpeed = 0;
    target = 0;
}
