#include "RecordFile.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageOptimize.h"
#include "ZqImageParams.h"
#include "ZqMoveProgress.h"
#include "ZqOptimizeFolder.h"

#include <cstring>

// The work folder of an optimisation that was cut off: whatever stands there, the job that goes on ends, and
// either says what is wrong or leaves an image without the lock. The first input byte tells which file the
// rest becomes, or that it is the fields of a `progress` that fits the others.
namespace {

constexpr uint64 N = 9; ///< blocks
constexpr const char* FILES[] = {ZqOptimizeFolder::PROGRESS, ZqOptimizeFolder::NOTE,
                                 ZqOptimizeFolder::HEADS,    ZqImageFiles::IDX,
                                 ZqImageFiles::IMAGE_JSON,   ZqImageFiles::APP_JSON};

void writeOrder(const SxString& folder, bool isReversed) {
    std::string map;
    for (uint64 rawIdx = 0; rawIdx < N; ++rawIdx) {
        const uint64 zqfIdx = isReversed ? N - 1 - rawIdx : rawIdx;
        map.append(reinterpret_cast<const char*>(&zqfIdx), sizeof zqfIdx);
    }
    SxFileIO(folder + ZqImageFiles::IDX, "wb").write(SxString(map));
    ZqImageParams params;
    params.sizeRaw = N * ZqBlocks::SIZE;
    params.write(folder);
    ZqAppParams app;
    app.guid = "g";
    app.checksumMnt = "m";
    app.sizeZqf = N * ZqBlocks::SIZE;
    app.sizeIdx = map.size();
    app.checksumIdx = SxMd5::get(SxString(map));
    app.write(folder);
}

uint64 number(const unsigned char* data, size_t size, size_t at) {
    uint64 value = 0;
    if (at < size) std::memcpy(&value, data + at, std::min(size - at, sizeof value));
    return value;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 1) return 0;
    const RecordFile zqf(ZqImageFiles::ZQF, data, 0);
    zqf.put(ZqImageFiles::ZQF, SxString(std::string(N * ZqBlocks::SIZE, 'b')));
    writeOrder(zqf.prefix(), false);
    const ZqOptimizeFolder work(zqf.prefix());
    work.make();
    writeOrder(work.getPath(), true);
    const ZqAppParams from(zqf.prefix()), to(work.getPath());
    ZqOptimizeNote note;
    note.guid = ZqImageParams(zqf.prefix()).guid;
    note.from = {from.checksumIdx, from.sizeZqf};
    note.to = {to.checksumIdx, to.sizeZqf};
    note.limits = {3, 2};
    work.writeNote(note);
    SxFileIO(work.file(ZqOptimizeFolder::HEADS), "wb").write(SxString(std::string(4 * ZqBlocks::SIZE, 'h')));
    ZqMoveProgress::State state;
    const size_t kind = data[0] % (std::size(FILES) + 1);
    if (kind == std::size(FILES)) {
        state = {static_cast<ZqMoveProgress::Phase>(number(data, size, 1) % (ZqMoveProgress::Tidy + 1)),
                 number(data, size, 9), number(data, size, 17), number(data, size, 25)};
    }
    ZqMoveProgress::create(work.file(ZqOptimizeFolder::PROGRESS), work.digestNote(), state);
    if (kind < std::size(FILES)) {
        SxFileIO(work.file(FILES[kind]), "wb").writeBuffer(data + 1, static_cast<int64>(size - 1));
    }
    work.lock();

    ZqImageOptimize job(zqf.prefix());
    job.start();
    job.wait();
    if (job.isComplete() == job.hasFailure()) std::abort();
    if (job.isComplete() && work.state() != ZqOptimizeFolder::Nothing) std::abort();
    return 0;
}
