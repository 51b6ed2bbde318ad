#include "FaultOs.h"
#include "MountTest.h"
#include "SxEventBus.h"
#include "SxTime.h"
#include "ZqFWriter.h"
#include "ZqImageProgress.h"

namespace {

constexpr uint64 TOTAL = 10'000'000;
/// The end of the image in the drive's cursor, once TOTAL bytes are there.
constexpr uint64 END = Machine::SIZE_RAW / 4096;

/// A drive whose image downloads; the test is the writer.
class Download {
public:
    explicit Download(uint64 present) {
        machine.app.sizeZqf = TOTAL;
        machine.driver.mounted = true;
        machine.driver.image = machine.name;
        grow(present);
        SxEventBus::getGlobalObj().subscribe(SX_APP_ERROR, &errors);
    }

    void grow(uint64 size) const { fs::resize_file(machine.dir.path("image/img.zqf"), size); }
    SxPtr<ZqImageProgress> progress() const {
        return SxPtr<ZqImageProgress>::create(machine.image, machine.app);
    }
    void writeTrace(const std::string& folder, size_t nBytes) const {
        machine.dir.write(folder + "/img.trc", std::string(nBytes, 'x'));
    }
    std::string publishedFailure() {
        SxEvent event;
        if (!errors.tryPop(&event)) return "";
        EXPECT_EQ(event.getData().getText(0), machine.image);
        return event.getData().getText(1).str();
    }
    uint64 cursor() const { return machine.driver.cursor; }

    Machine machine;
    SxEventListener errors;
};

/// A disk whose file system tells the size that a write will bring while that is still under way.
class SlowDisk : public FaultOs {
public:
    static constexpr int64 WRITE_MS = 300;

    explicit SlowDisk(Download* download_)
        : FaultOs(download_->machine.dir.path("image")),
          download(download_),
          nReadable(fs::file_size(download_->machine.dir.path("image/img.zqf"))) {}

    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        const int64 done = FaultOs::writeAt(fd, buffer, n, offset);
        if (n < LEAST) return done; // a record's
        SxTime::msleep(WRITE_MS);
        nAhead += download->cursor() > nReadable / 4096 ? 1 : 0;
        nReadable += static_cast<uint64>(done);
        greatest = std::max(greatest, n);
        return done;
    }
    int64 nAhead = 0;   ///< writes during which the cursor was beyond what could be read
    int64 greatest = 0; ///< bytes

private:
    static constexpr int64 LEAST = 20'000;
    Download* const download;
    uint64 nReadable;
};

} // namespace

TEST(ImageProgress, CursorAndCountFollowTheFile) {
    Download download(100);
    const auto progress = download.progress();
    progress->start();
    SxTime::msleep(500);
    EXPECT_EQ(progress->getNCurrent0(), 100U);
    EXPECT_EQ(progress->getNCurrent(), 100U) << "what is there counts before any growth";
    const std::pair<uint64, uint64> cases[] = {
        {4095, 0}, {4096, 1}, {4097, 0}, {8191, 0}, {8192, 2}, {8193, 1}, {2'000'000, 487},
    };
    for (const auto& [size, cursor] : cases) {
        SCOPED_TRACE(size);
        download.grow(size);
        SxTime::msleep(20);
        EXPECT_EQ(download.cursor(), cursor);
        EXPECT_EQ(progress->getNCurrent(), size);
    }
    // A drive that comes up later gets the cursor, though nothing grows.
    download.machine.driver.cursor = 0;
    SxTime::msleep(2000);
    EXPECT_EQ(download.cursor(), 487U);
    EXPECT_TRUE(progress->isRunning());

    download.grow(TOTAL);
    progress->wait();
    EXPECT_LE(download.machine.elapsedMs(), 2660);
    EXPECT_EQ(download.cursor(), END);
    EXPECT_EQ(progress->getNCurrent(), TOTAL);
    EXPECT_EQ(download.machine.nLogged("ZqImageProgress::main: START"), 1);
    EXPECT_EQ(download.machine.nLogged("ZqImageProgress::main: END"), 1);
}

TEST(ImageProgress, TheCursorGoesNoFurtherThanTheWriterHasWritten) {
    Download download(4096);
    Machine& machine = download.machine;
    const SxString folder = machine.dir.prefix() + "image/";
    machine.app.write(folder);
    SlowDisk disk(&download);
    const auto writer = SxPtr<ZqFWriter>::create(folder, "img.zqf");
    writer->setUnpaced();
    const auto progress = download.progress();
    progress->setWriteEnd(
        [writer] { return writer->isRunning() ? writer->getWriteEnd() : ZqImageProgress::ANY; });
    writer->start();
    progress->start();
    for (uint64 at = 4096; at < TOTAL; at += 1'000'000)
        writer->pushChunk(at, SxArray<char>(static_cast<int64>(std::min<uint64>(1'000'000, TOTAL - at))));
    // Of the first piece a part can be read while the rest is written.
    SxTime::msleep(SlowDisk::WRITE_MS * 5 / 2);
    EXPECT_GE(download.cursor(), 2U);
    EXPECT_LT(download.cursor(), 1'000'000U / 4096);
    progress->wait();
    writer->wait();
    EXPECT_EQ(disk.nAhead, 0);
    EXPECT_LE(disk.greatest, 256 << 10);
    EXPECT_EQ(download.cursor(), END);
    EXPECT_EQ(progress->getNCurrent(), TOTAL);
}

TEST(ImageProgress, SpeedsComeOncePerPass) {
    Download download(0);
    const auto progress = download.progress();
    progress->start();
    SxTime::msleep(5);
    uint64 size = 0;
    // The first pass begins with the first growth.
    for (const uint64 megabit : {2U, 4U, 6U, 0U}) {
        size += megabit * 125'000;
        download.grow(size);
        SxTime::msleep(size == 250'000 ? 1500 : 1000);
        download.machine.driver.clock().adjustSystem(-3600'000);
    }
    EXPECT_NEAR(progress->getCurrentSpeed(), 0, 0.01);
    EXPECT_NEAR(progress->getAvgSpeed(), 3, 0.05);
    EXPECT_NEAR(progress->getSigmaSpeed(), std::sqrt(5), 0.05);
    EXPECT_NEAR(progress->getGlobalMaxSpeed(), 6, 0.05);
    const double average = progress->getAvgSpeed();
    EXPECT_EQ(progress->getTotalETA(), (TOTAL - size) / static_cast<uint64>(average * 125'000));
    EXPECT_EQ(progress->getStartETA(0), progress->getTotalETA());
    progress->resetAvgSpeed();
    EXPECT_EQ(progress->getAvgSpeed(), 0);
    EXPECT_EQ(progress->getGlobalAvgSpeed(), average);
    EXPECT_EQ(progress->getTotalETA(), (TOTAL - size) / 10'000) << "at the least speed";
    const int64 begin = download.machine.elapsedMs();
    progress->stop();
    progress->wait();
    EXPECT_LE(download.machine.elapsedMs() - begin, 10);
    EXPECT_EQ(download.cursor(), size / 4096 - 1) << "not that of the complete image";
}

TEST(ImageProgress, WhatTheStartNeeds) {
    struct Case {
        uint64 sizeMnt, minPreload, minBandwidth, traceBytes, limit, nInit;
    };
    constexpr uint64 FAST = 1'000'000'000;
    const Case cases[] = {
        {5000, 0, 0, 0, 0, TOTAL},   // no speed
        {5000, 0, 0, 0, FAST, 5000}, // the profile needs nothing at that speed
        {5000, 1, 0, 0, FAST, 1'000'000},  {5000, ~uint64{0}, 0, 0, FAST, TOTAL},
        {TOTAL + 1, 0, 0, 0, FAST, TOTAL}, {5000, 0, 0, 47, FAST, 5000}, // a trace doesn't count
        {5000, 0, 1, 0, FAST, 5000},       {5000, 0, 3, 0, FAST, TOTAL}, // below the least bandwidth
        {5000, 0, 1, 0, 100'000, TOTAL},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.nInit);
        Download download(1);
        download.machine.app.sizeMnt = c.sizeMnt;
        download.machine.app.minPreload = c.minPreload;
        download.machine.app.minBandwidth = c.minBandwidth;
        download.machine.app.loadprofile = {{0, 0}, {1000, 1}};
        download.writeTrace("image/traces/run1", c.traceBytes / 2);
        download.writeTrace("image/traces/run2", c.traceBytes);
        const auto progress = download.progress();
        // Before the first second is over, the link's rate counts.
        progress->setEarlySpeed([] { return 2; });
        progress->start();
        SxTime::msleep(5);
        EXPECT_EQ(progress->getNInit(c.limit), c.nInit);
        download.grow(250'001);
        SxTime::msleep(1040);
        EXPECT_NEAR(progress->getAvgSpeed(), 2, 0.1);
        EXPECT_EQ(progress->getNInit(c.limit), c.nInit);
        EXPECT_EQ(progress->getStartETA(c.limit) == 0, c.nInit < 250'001);
        progress->setNCurrent(TOTAL);
        EXPECT_EQ(progress->getNInit(c.limit), TOTAL);
        progress->stop();
        progress->wait();
    }
    Download download(0);
    EXPECT_EQ(download.progress()->getNInitTrace(), 0U);
    // The traces of a store of images, beside its folders.
    download.writeTrace("store/images/game/traces/one", 16);
    download.writeTrace("store/traces/two", 71); // four items and a rest
    download.machine.dir.write("store/traces/notes.txt", "no trace");
    const ZqImageProgress stored(download.machine.dir.path("store/images/game"), download.machine.app);
    EXPECT_EQ(stored.getNInitTrace(), 4 * 4096U);
}

TEST(ImageProgress, EndsAndFailures) {
    struct Case {
        const char* name;
        uint64 present;
        std::function<void(Download&)> act;
        std::string failure;
        uint64 cursor;
    };
    const Case cases[] = {
        {"complete at the start", TOTAL, [](Download&) {}, "", END},
        {"not mounted", 5,
         [](Download& d) {
             d.machine.driver.mounted = false;
             d.grow(8192);
             SxTime::msleep(1100);
             EXPECT_EQ(d.cursor(), 0U);
             d.machine.driver.mounted = true;
             d.grow(TOTAL);
         },
         "", END},
        {"gone in the middle of a call", 5,
         [](Download& d) {
             d.machine.driver.fail("SetCursor");
             d.machine.driver.onCall = [&d](const std::string& name) {
                 if (name == "SetCursor") d.machine.driver.mounted = false;
             };
             d.grow(TOTAL);
         },
         "", TOTAL / 4096 - 1},
        {"shrunk", 9000, [](Download& d) { d.grow(8999); }, "Application image has been externally modified",
         0},
        {"removed", 9000, [](Download& d) { fs::remove(d.machine.dir.path("image/img.zqf")); },
         "Cannot get the size of", 0},
        {"failing driver", 5,
         [](Download& d) {
             d.machine.driver.fail("SetCursor", 1, "why");
             d.grow(8192);
         },
         "Cannot set disk cursor for image", 2},
        {"no record", 5,
         [](Download& d) {
             fs::remove(d.machine.dir.path("image/img.json"));
             d.grow(TOTAL);
         },
         "img.json", TOTAL / 4096 - 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Download download(c.present);
        const auto progress = download.progress();
        progress->start();
        SxTime::msleep(100);
        c.act(download);
        progress->wait();
        EXPECT_FALSE(progress->hasException());
        EXPECT_EQ(progress->hasFailure(), !c.failure.empty());
        const std::string failure = download.publishedFailure();
        EXPECT_THAT(failure, HasSubstr(c.failure));
        EXPECT_EQ(failure.empty(), c.failure.empty()) << failure;
        EXPECT_EQ(download.cursor(), c.cursor);
        EXPECT_EQ(download.machine.nLogged("ZqImageProgress::main: "), c.failure.empty() ? 2 : 3);
        if (c.failure.empty()) {
            EXPECT_EQ(progress->getNCurrent(), TOTAL);
        }
    }
}
