#include "ZqFWriter.h"

#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr const char* UNIT = "src/base/ZqFWriter";
constexpr const char* PREFIX = "ZqFWriter::main: ";
constexpr const char* CHUNKS = "chunks";
constexpr const char* LOG = "write.log";
constexpr const char* TEST_FILE = "test.dat";
constexpr int FILE_MODE = 0600;

constexpr uint64 PIECE = 2'000'000;
/// Of a piece so much is written at a time, so that the drive's cursor moves within a piece, too: on a slow
/// disk what is there can be read before the rest is written.
constexpr int64 WRITE_STEP = 256 << 10;
constexpr uint64 MIN_WRITE_SPEED = 0x300000;       // bytes per second
constexpr uint64 LEAST_MAX_WRITE_SPEED = 0xA00000; // bytes per second
constexpr uint64 LARGE_BUFFER = 500'000'000;
constexpr int64 TEST_BYTES = 0x3200000;
constexpr int64 SAMPLES = 12;
constexpr int64 PASS_MS = 1000;
constexpr int64 RETRY_MS = 100;
constexpr uint64 SAMPLE_MS = 5000;
/// From one look at the free room to the next, while there is enough, and while there isn't. What is written
/// between two looks counts.
constexpr int64 ROOM_NS = 1'000'000'000;
constexpr int64 ROOM_LOOK_MS = 100;
/// From one line of the log to the next, where less than a whole piece is written. With a line for each
/// chunk, which may be one of 10 ms, the log of a slow download grew to a twentieth of the image.
constexpr int64 LINE_NS = 1'000'000'000;
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

void removeIfThere(const SxString& path) {
    if (SxFSAction::exists(path)) SxFSAction::rm_r(path);
}

/// The size of the file, as far as that can be believed.
uint64 sizeOf(const SxString& path) {
    ZqSyncedSize(path).cutBack();
    const SxFileInfo file(path);
    return file.exists() ? static_cast<uint64>(file.getSize()) : 0;
}

} // namespace

ZqFWriter::ZqFWriter(const SxString& dirPath_, const SxString& fileName_)
    : dirPath(dirPath_),
      fileName(fileName_),
      time0(static_cast<uint64>(ZqSysEnv::getSysTime())),
      steady0(static_cast<uint64>(SxClock::get().steadyMs())),
      cursor0(sizeOf(dirPath_ + fileName_)),
      writeCursor(cursor0),
      bytesReceived(cursor0),
      bytesAtLastSample(cursor0),
      timeAtLastSample(steady0),
      avgSpeed(SxPtr<ZqAvg>::create(SAMPLES)),
      writeEnd(cursor0),
      sync(pathOf(fileName)) {
    setThreadName("image writer");
    removeIfThere(pathOf(CHUNKS));
    SxFSAction::mkdir_p(pathOf(CHUNKS), 0777);
    // Whoever watches the file, or mounts it, may start before this thread does.
    SxFileIO image(pathOf(fileName), "ab", FILE_MODE);
    image.close();
}

void ZqFWriter::pushChunk(uint64 offset, const SxArray<char>& data) {
    const auto size = static_cast<uint64>(data.getSize());
    if (size == 0) return;
    for (uint64 done = 0; done < size; done += PIECE) {
        const auto n = static_cast<int64>(std::min(PIECE, size - done));
        try {
            Piece piece = Piece::create(n);
            std::memcpy(piece->data(), data.data() + done, static_cast<size_t>(n));
            keep(offset + done, std::move(piece));
        } catch (const std::bad_alloc&) {
            throw SxException(SxException("There is no memory left", UNIT, __LINE__),
                              "Failed to write chunk file " + chunkPath(offset + done), UNIT, __LINE__);
        }
    }
    holdPusher();
}

void ZqFWriter::pushChunk(uint64 offset, SxArray<char>&& data) {
    const auto size = static_cast<uint64>(data.getSize());
    if (size == 0 || size > PIECE) {
        pushChunk(offset, data);
        return;
    }
    try {
        keep(offset, Piece::create(std::move(data)));
    } catch (const std::bad_alloc&) {
        throw SxException(SxException("There is no memory left", UNIT, __LINE__),
                          "Failed to write chunk file " + chunkPath(offset), UNIT, __LINE__);
    }
    holdPusher();
}

void ZqFWriter::keep(uint64 offset, Piece piece) {
    const auto size = static_cast<uint64>(piece->getSize());
    // What it replaces is freed once the lock is left.
    SxMutexBlock lock(&dataMutex);
    bytesReceived += size;
    // Neither cursor would ever come by it again, and a client that bounds its memory by getBytesHeld() would
    // wait for ever.
    if (offset + size <= writeCursor) return;
    Piece& place = chunks[offset];
    if (place) bytesHeld -= static_cast<uint64>(place->getSize());
    bytesHeld += size;
    std::swap(place, piece);
    chunkSizes[offset] = size;
}

void ZqFWriter::holdPusher() const {
    SxWait::pass(PASS_MS, [this] { return !throttleFlag || stopRequested(); });
}

void ZqFWriter::setThrottle(bool on) {
    throttleFlag = on;
}

void ZqFWriter::updateBufferCursor() {
    const bool finalizing = finalizeRequested();
    SxMutexBlock lock(&dataMutex);
    for (auto next = chunkSizes.find(bufferCursor); next != chunkSizes.end();
         next = chunkSizes.find(bufferCursor)) {
        bytesAvail += next->second;
        bufferCursor += next->second;
    }
    const uint64 now = static_cast<uint64>(SxClock::get().steadyMs());
    if (finalizing || now <= timeAtLastSample + SAMPLE_MS || bytesReceived <= bytesAtLastSample) return;
    avgSpeed->update(static_cast<double>(bytesReceived - bytesAtLastSample) * 1000.0 /
                     static_cast<double>(now - timeAtLastSample));
    bytesAtLastSample = bytesReceived;
    timeAtLastSample = now;
}

uint64 ZqFWriter::popOffset() {
    updateBufferCursor();
    SxMutexBlock lock(&dataMutex);
    const auto next = chunkSizes.find(writeCursor);
    if (next == chunkSizes.end() || bytesAvail == 0) return NO_OFFSET;
    // A longer chunk may have replaced the one that was counted.
    bytesAvail -= std::min(bytesAvail, next->second);
    chunkSizes.erase(next);
    return writeCursor;
}

uint64 ZqFWriter::getBytesAvail() const {
    SxMutexBlock lock(&dataMutex);
    return bytesAvail;
}

uint64 ZqFWriter::getBufferCursor() const {
    SxMutexBlock lock(&dataMutex);
    return bufferCursor;
}

uint64 ZqFWriter::getWriteCursor() const {
    SxMutexBlock lock(&dataMutex);
    return writeCursor;
}

uint64 ZqFWriter::getBytesHeld() const {
    SxMutexBlock lock(&dataMutex);
    return bytesHeld;
}

uint64 ZqFWriter::getBytesPerSecond() const {
    SxMutexBlock lock(&dataMutex);
    return static_cast<uint64>(avgSpeed->getAverage());
}

void ZqFWriter::finalize() {
    finalizeFlag = true;
}

bool ZqFWriter::finalizeRequested() const {
    return finalizeFlag;
}

void ZqFWriter::stop() {
    stopFlag = true;
}

bool ZqFWriter::stopRequested() const {
    return stopFlag;
}

bool ZqFWriter::isCompleteImage() const {
    SxMutexBlock lock(&dataMutex);
    return completeImage;
}

void ZqFWriter::main() {
    try {
        if (isPaced) testDisk();
        openLog();
        writeImage();
        log.close();
        removeLeftovers();
    } catch (const SxException& e) {
        ZqJobFailure::report(this, SxString(PREFIX) + "Cannot write ZqF File: ", dirPath, e, UNIT, __LINE__);
        sync.finish(getWriteCursor());
    }
}

void ZqFWriter::testDisk() {
    const SxString path = pathOf(TEST_FILE);
    try {
        // A disk that has room for the image must not be full by the test. For the same reason the test's
        // file is removed as soon as the test is over, also where that has failed.
        const uint64 free = std::min(ZqSysEnv::getFreeDiskSpace(dirPath), reserve.getRoom());
        writeTestFile(std::min(TEST_BYTES, static_cast<int64>(std::min(free, uint64{1} << 62) / 2)));
        SxFSAction::rm(path);
    } catch (const SxException& e) {
        SxOs::get().unlink(SxOs::hostPath(path));
        zqLogMsg("base", "Cannot perform disk speed test: " + SxString(e.what()));
        throw SxException(e, "Cannot perform disk speed test", UNIT, __LINE__);
    }
    maxWriteSpeed = std::max(testBytes * 100 / testMs, LEAST_MAX_WRITE_SPEED);
}

void ZqFWriter::writeTestFile(int64 nBytes) {
    SxArray<uint64> words(nBytes / static_cast<int64>(sizeof(uint64)));
    fillRandomly(&words, time0);
    testBytes = static_cast<uint64>(words.getSize()) * sizeof(uint64);
    const uint64 begin = static_cast<uint64>(SxClock::get().steadyMs());
    SxFileIO file;
    file.create(pathOf(TEST_FILE), FILE_MODE);
    file.write(words);
    file.flush();
    file.close();
    testMs = std::max<uint64>(static_cast<uint64>(SxClock::get().steadyMs()) - begin, 1);
}

void ZqFWriter::openLog() {
    // In the place of a link that stands there, as with the test's file.
    log.create(pathOf(LOG), FILE_MODE);
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

void ZqFWriter::writeImage() {
    const uint64 total = ZqAppParams(dirPath).sizeZqf;
    SxFileIO image(pathOf(fileName), "ab", FILE_MODE);
    const auto begin = static_cast<uint64>(image.getSize());
    if (begin < total) sync.begin(begin);
    beginAtEnd(&image, total);
    uint64 fileSize = getWriteCursor(), bytesBehindLast = getBytesAvail();
    while (fileSize < total) {
        const uint64 offset = awaitOffset();
        if (getBufferCursor() >= total) finalize();
        if (offset == NO_OFFSET || !awaitRoom(offset)) break;
        stretch.dlSpeed = getBytesPerSecond();
        stretch.target = targetSpeed(stretch.dlSpeed, bytesBehindLast);
        writePiece(&image, offset, stretch.target);
        freePiece(offset);
        fileSize = getWriteCursor();
        bytesBehindLast = getBytesAvail();
        const bool isDue =
            stretch.nBytes >= PIECE || SxClock::get().steadyNs() - lineNs >= LINE_NS || fileSize >= total;
        if (isDue) writeLogLine();
    }
    if (stretch.nBytes > 0) writeLogLine();
    image.close();
    sync.finish(fileSize);
    SxMutexBlock lock(&dataMutex);
    completeImage = fileSize >= total;
}

/// Waits for the first bytes that follow the end of the file.
void ZqFWriter::beginAtEnd(SxFileIO* image, uint64 total) {
    const auto size = static_cast<uint64>(image->getSize());
    writeEnd = size;
    {
        SxMutexBlock lock(&dataMutex);
        bufferCursor = size;
        writeCursor = size;
    }
    const auto ready = [&] {
        if (stopRequested() || size >= total) return true;
        updateBufferCursor();
        return getBytesAvail() != 0;
    };
    while (!SxWait::pass(PASS_MS, ready))
        continue;
}

/// The next offset, or NO_OFFSET after a stop.
uint64 ZqFWriter::awaitOffset() {
    uint64 offset = NO_OFFSET;
    const auto ready = [&] {
        sync.look(getWriteCursor());
        if (offset == NO_OFFSET) offset = popOffset();
        return offset != NO_OFFSET || stopRequested();
    };
    while (!SxWait::pass(PASS_MS, ready))
        continue;
    return stopRequested() ? NO_OFFSET : offset;
}

/// Whether so much may be written, which then counts as written.
bool ZqFWriter::hasRoom(uint64 nBytes) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nBytes > room || nowNs - roomNs >= ROOM_NS) {
        room = reserve.getRoom();
        roomNs = nowNs;
    }
    if (nBytes > room) return false;
    room -= nBytes;
    return true;
}

/// Waits until the chunk at `offset` fits beside the reserve; false after a stop.
bool ZqFWriter::awaitRoom(uint64 offset) {
    uint64 size = 0;
    {
        SxMutexBlock lock(&dataMutex);
        size = static_cast<uint64>(chunks.at(offset)->getSize());
    }
    bool fits = hasRoom(size);
    waitingForRoom = !fits;
    const auto ready = [&] {
        sync.look(getWriteCursor());
        fits = fits || hasRoom(size);
        return fits || stopRequested();
    };
    while (!SxWait::pass(PASS_MS, ready, ROOM_LOOK_MS))
        continue;
    waitingForRoom = false;
    return fits;
}

uint64 ZqFWriter::targetSpeed(uint64 dlSpeed, uint64 bytesBehindLast) const {
    if (finalizeRequested() || !isPaced) return maxWriteSpeed;
    const uint64 wanted = bytesBehindLast > LARGE_BUFFER ? 2 * dlSpeed : dlSpeed;
    return std::max(std::min(wanted, maxWriteSpeed), MIN_WRITE_SPEED);
}

/// Writes at `target` bytes a second, or at once with 0.
void ZqFWriter::writePiece(SxFileIO* image, uint64 offset, uint64 target) {
    const int64 beginNs = SxClock::get().steadyNs();
    // What the last piece took too long is taken off the pause of this one. The pauses of pieces of 200 KB
    // are about a millisecond, as short as the system's sleep is inexact, and the pace would stay a sixth
    // below its target.
    const bool inTurn = beginNs - dueNs <= LARGEST_LAG_NS;
    dueNs = inTurn ? dueNs : beginNs;
    Piece piece;
    {
        SxMutexBlock lock(&dataMutex);
        piece = chunks.at(offset);
    }
    for (int64 at = 0; at < piece->getSize(); at += WRITE_STEP) {
        const int64 n = std::min(WRITE_STEP, piece->getSize() - at);
        image->writeBuffer(piece->data() + at, n);
        writeEnd += static_cast<uint64>(n);
    }
    image->flush();
    const auto written = static_cast<uint64>(piece->getSize());
    if (target > 0) {
        dueNs += static_cast<int64>(static_cast<double>(written) * 1e9 / static_cast<double>(target));
        const int64 pauseMs = (dueNs - SxClock::get().steadyNs()) / 1'000'000;
        SxWait::pass(pauseMs, [this] { return stopRequested(); });
    }
    stretch.nBytes += written;
    stretch.ns += SxClock::get().steadyNs() - beginNs;
    SxMutexBlock lock(&dataMutex);
    writeCursor += written;
}

void ZqFWriter::freePiece(uint64 offset) {
    {
        SxMutexBlock lock(&dataMutex);
        const auto place = chunks.find(offset);
        if (place != chunks.end()) {
            bytesHeld -= static_cast<uint64>(place->second->getSize());
            chunks.erase(place);
        }
        // A chunk that has taken its place since would be counted, and never be given.
        chunkSizes.erase(offset);
    }
    const SxString path = chunkPath(offset);
    for (bool done = false; !done && !stopRequested();) {
        try {
            if (SxFSAction::exists(path)) SxFSAction::rm(path);
            done = true;
        } catch (const SxException&) {
            // Another program has the file open, or the disk is away for a moment.
            SxWait::pass(RETRY_MS, [this] { return stopRequested(); });
        }
    }
}

void ZqFWriter::writeLogLine() {
    const Stretch done = std::exchange(stretch, {});
    lineNs = SxClock::get().steadyNs();
    const auto elapsedMs = static_cast<uint64>(done.ns / 1'000'000);
    const uint64 reached = done.nBytes * 1000 / std::max<uint64>(elapsedMs, 1);
    uint64 received = 0, buffered = 0, written = 0, available = 0;
    {
        SxMutexBlock lock(&dataMutex);
        received = bytesAtLastSample;
        buffered = bufferCursor;
        written = writeCursor;
        available = bytesAvail;
    }
    log.write(SxString::sprintf(
        "%20s %15lf %15ju %15ju %15ju %15ju %15ju %15ju %15ju %15ju %15ju\n",
        ZqSysEnv::getTimestamp().ascii(),
        static_cast<double>(static_cast<uint64>(SxClock::get().steadyMs()) - steady0) / 1000.0,
        uintmax_t{received}, uintmax_t{done.dlSpeed}, uintmax_t{buffered}, uintmax_t{written},
        uintmax_t{available}, uintmax_t{reached}, uintmax_t{done.target}, uintmax_t{MIN_WRITE_SPEED},
        uintmax_t{maxWriteSpeed}));
    log.flush();
}

void ZqFWriter::removeLeftovers() {
    for (const char* name : {CHUNKS, TEST_FILE}) {
        const SxString path = pathOf(name);
        try {
            removeIfThere(path);
        } catch (const SxException& e) {
            zqLogMsg("base", SxString(PREFIX) + "Failed to remove " + path + ": " + e.what());
        }
    }
}
