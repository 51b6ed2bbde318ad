#include "BaseTest.h"
#include "Builders.h"
#include "NetLab.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqFileServer.h"
#include "ZqOrderedDownload.h"

#include <thread>

namespace {

/// A small image on a server, and folders that it is to arrive in.
class OrderedDownload : public testing::Test {
protected:
    OrderedDownload() { server.start(); }

    SxPtr<ZqFWriter> makeWriter(const std::string& name) const {
        const SxString folder = dir.prefix() + name + "/";
        ZqAppParams app;
        app.sizeZqf = zqf.size();
        app.write(folder);
        auto writer = SxPtr<ZqFWriter>::create(folder, "img.zqf");
        writer->setUnpaced();
        writer->start();
        return writer;
    }
    static void end(const SxPtr<ZqFWriter>& writer) {
        writer->stop();
        writer->wait();
    }

    TestRandom random{5};
    const std::string zqf = random.bytes(20'000);
    TempDir dir;
    ZqFileServer server{(dir.write("served/img.zqf", zqf), dir.path("served"))};
};

} // namespace

TEST_F(OrderedDownload, AWriterThatComesAtItsEndIsServed) {
    ZqOrderedDownload download(
        SxPtr<ZqRemoteImage>::create(SxPtr<ZqNetLink>::create(quickSettings()), server.getUrl(), zqf.size()));
    for (int i = 0; i < 200 && !HasFailure(); ++i) {
        for (const char* name : {"first", "second"})
            fs::create_directories(dir.path(name));
        const SxPtr<ZqFWriter> first = makeWriter("first"), second = makeWriter("second");
        if (!download.setWriter(first, 0)) {
            download.wait();
            download.start();
        }
        // The last bytes come together with the thread's end.
        while (first->getBytesHeld() == 0 && first->getWriteCursor() < zqf.size())
            continue;
        const int64 untilNs = SxClock::get().steadyNs() + i * 50 % 10'000;
        while (SxClock::get().steadyNs() < untilNs)
            continue;
        if (!download.setWriter(second, 0)) {
            download.wait();
            download.start();
        }
        EXPECT_TRUE(SxWait::pass(10'000, [&] { return dir.read("second/img.zqf").size() == zqf.size(); }))
            << i;
        end(first);
        end(second);
        for (const char* name : {"first", "second"})
            fs::remove_all(dir.path(name));
    }
    download.stop();
    download.wait();
}
