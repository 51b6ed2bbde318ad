#include "ZqFWriter.h"

#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqWriteBuffer.h"
#include "ZqWriteLog.h"
#include "ZqWritePace.h"
#include "ZqWriteRoom.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr const char* UNIT = "src/base/ZqFWriter";
constexpr const char* PREFIX = "ZqFWriter::main: ";
constexpr int FILE_MODE = 0600;
static_assert(ZqFWriter::NO_OFFSET == ZqWriteBuffer::NO_OFFSET);

/// Of a piece so much is written at a time, so that the drive's cursor moves within a piece, too: on a slow
/// disk what is there can be read before the rest is written.
constexpr int64 WRITE_STEP = 256 << 10;
constexpr int64 PASS_MS = 1000;
constexpr int64 RETRY_MS = 100;
/// From one look at the free room to the next, while there isn't enough.
constexpr int64 ROOM_LOOK_MS = 100;

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
      cursor0(sizeOf(dirPath_ + fileName_)),
      buffer(std::make_unique<ZqWriteBuffer>(cursor0)),
      writeEnd(cursor0),
      sync(pathOf(fileName)),
      room(std::make_unique<ZqWriteRoom>()),
      pace(std::make_unique<ZqWritePace>()),
      log(std::make_unique<ZqWriteLog>(cursor0)) {
    setThreadName("image writer");
    removeIfThere(chunkFolder());
    SxFSAction::mkdir_p(chunkFolder(), 0777);
    // Whoever watches the file, or mounts it, may start before this thread does.
    SxFileIO image(pathOf(fileName), "ab", FILE_MODE);
    image.close();
}

ZqFWriter::~ZqFWriter() = default;

void ZqFWriter::setReserve(const ZqDiskReserve& reserve) {
    *room = ZqWriteRoom(reserve);
}

void ZqFWriter::pushChunk(uint64 offset, const SxArray<char>& data) {
    const auto size = static_cast<uint64>(data.getSize());
    if (size == 0) return;
    for (uint64 done = 0; done < size; done += ZqWriteBuffer::MAX_PIECE) {
        const auto n = static_cast<int64>(std::min(ZqWriteBuffer::MAX_PIECE, size - done));
        try {
            Piece piece = Piece::create(n);
            std::memcpy(piece->data(), data.data() + done, static_cast<size_t>(n));
            buffer->push(offset + done, std::move(piece));
        } catch (const std::bad_alloc&) {
            throw SxException(SxException("There is no memory left", UNIT, __LINE__),
                              "Failed to write chunk file " + chunkPath(offset + done), UNIT, __LINE__);
        }
    }
    holdPusher();
}

void ZqFWriter::pushChunk(uint64 offset, SxArray<char>&& data) {
    const auto size = static_cast<uint64>(data.getSize());
    if (size == 0 || size > ZqWriteBuffer::MAX_PIECE) {
        pushChunk(offset, data);
        return;
    }
    try {
        buffer->push(offset, Piece::create(std::move(data)));
    } catch (const std::bad_alloc&) {
        throw SxException(SxException("There is no memory left", UNIT, __LINE__),
                          "Failed to write chunk file " + chunkPath(offset), UNIT, __LINE__);
    }
    holdPusher();
}

void ZqFWriter::holdPusher() const {
    SxWait::pass(PASS_MS, [this] { return !throttleFlag || stopRequested(); });
}

void ZqFWriter::setThrottle(bool on) {
    throttleFlag = on;
}

void ZqFWriter::updateBufferCursor() {
    buffer->update(!finalizeRequested());
}

uint64 ZqFWriter::popOffset() {
    updateBufferCursor();
    return buffer->pop();
}

uint64 ZqFWriter::getBytesAvail() const {
    return buffer->getCursors().nAvailable;
}

uint64 ZqFWriter::getBufferCursor() const {
    return buffer->getCursors().buffered;
}

uint64 ZqFWriter::getWriteCursor() const {
    return buffer->getCursors().written;
}

uint64 ZqFWriter::getBytesHeld() const {
    return buffer->getBytesHeld();
}

uint64 ZqFWriter::getBytesPerSecond() const {
    return buffer->getBytesPerSecond();
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
    return completeImage;
}

void ZqFWriter::main() {
    try {
        if (isPaced) pace->testDisk(dirPath, room->getReserve());
        log->open(dirPath, pace->getTestBytes(), pace->getTestMs());
        writeImage();
        log->close();
        removeLeftovers();
    } catch (const SxException& e) {
        ZqJobFailure::report(this, SxString(PREFIX) + "Cannot write ZqF File: ", dirPath, e, UNIT, __LINE__);
        sync.finish(getWriteCursor());
    }
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
        if (offset == NO_OFFSET) break;
        if (!awaitRoom(static_cast<uint64>(buffer->get(offset)->getSize()))) break;
        const uint64 dlSpeed = getBytesPerSecond();
        const uint64 target = targetSpeed(dlSpeed, bytesBehindLast);
        log->setSpeeds(dlSpeed, target);
        writePiece(&image, buffer->get(offset), target);
        freePiece(offset);
        fileSize = getWriteCursor();
        bytesBehindLast = getBytesAvail();
        if (log->isLineDue() || fileSize >= total) log->writeLine(buffer->getCursors(), pace->getMaxSpeed());
    }
    if (log->hasLine()) log->writeLine(buffer->getCursors(), pace->getMaxSpeed());
    image.close();
    sync.finish(fileSize);
    completeImage = fileSize >= total;
}

/// Waits for the first bytes that follow the end of the file.
void ZqFWriter::beginAtEnd(SxFileIO* image, uint64 total) {
    const auto size = static_cast<uint64>(image->getSize());
    writeEnd = size;
    buffer->beginAt(size);
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

/// Waits until so much fits beside the reserve; false after a stop.
bool ZqFWriter::awaitRoom(uint64 nBytes) {
    bool fits = room->take(nBytes);
    waitingForRoom = !fits;
    const auto ready = [&] {
        sync.look(getWriteCursor());
        fits = fits || room->take(nBytes);
        return fits || stopRequested();
    };
    while (!SxWait::pass(PASS_MS, ready, ROOM_LOOK_MS))
        continue;
    waitingForRoom = false;
    return fits;
}

uint64 ZqFWriter::targetSpeed(uint64 dlSpeed, uint64 nAvailable) const {
    if (finalizeRequested() || !isPaced) return pace->getMaxSpeed();
    return pace->getTarget(dlSpeed, nAvailable);
}

/// Writes at `target` bytes a second, or at once with 0.
void ZqFWriter::writePiece(SxFileIO* image, const Piece& piece, uint64 target) {
    const int64 beginNs = SxClock::get().steadyNs();
    pace->begin(beginNs);
    for (int64 at = 0; at < piece->getSize(); at += WRITE_STEP) {
        const int64 n = std::min(WRITE_STEP, piece->getSize() - at);
        image->writeBuffer(piece->data() + at, n);
        writeEnd += static_cast<uint64>(n);
    }
    image->flush();
    const auto written = static_cast<uint64>(piece->getSize());
    if (target > 0) pace->await(written, target, [this] { return stopRequested(); });
    log->add(written, SxClock::get().steadyNs() - beginNs);
    buffer->advance(written);
}

void ZqFWriter::freePiece(uint64 offset) {
    buffer->free(offset);
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

void ZqFWriter::removeLeftovers() {
    for (const SxString& path : {chunkFolder(), pathOf(ZqWritePace::TEST_FILE)}) {
        try {
            removeIfThere(path);
        } catch (const SxException& e) {
            zqLogMsg("base", SxString(PREFIX) + "Failed to remove " + path + ": " + e.what());
        }
    }
}
