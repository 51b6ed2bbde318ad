#pragma once

#include "ScriptedDesktop.h"
#include "ScriptedDriver.h"
#include "ScriptedNetio.h"
#include "SxEventBus.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqImageProgress.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <mutex>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr uint64 BLOCK = 4096;
constexpr uint64 STRETCH = 204800;
constexpr uint64 PER_STRETCH = STRETCH / BLOCK;

/// The byte of `img.zqf` at `offset`.
inline char byteAt(uint64 offset) {
    return static_cast<char>((offset * 2654435761U >> 11) ^ offset);
}

/// An application's run over a scripted drive service, desktop and network, on the virtual clock, with a
/// client's callback that plays a script.
class UnderflowRun {
public:
    static constexpr ZqDesktop::Handle GAME = 77;
    /// Five stretches and three blocks.
    static constexpr uint64 SIZE = 5 * STRETCH + 3 * BLOCK;

    explicit UnderflowRun(uint64 size = SIZE) {
        app.sizeZqf = size;
        app.underflowDelay = 0;
        for (const char* folder : {"image", "volume", "root/dosdevices"})
            std::filesystem::create_directories(dir.path(folder));
        ZqMachineRoot::set(dir.path("root"));
        ZqLog::setSink([this](const SxString&, const SxString& text) {
            const std::lock_guard lock(logMutex);
            lines.push_back(text.str());
        });
        SxEventBus::getGlobalObj().subscribe(SX_APP_ERROR, &events);
        driver.mounted = true;
        driver.image = image.str();
        driver.returnAfter = 100;
        desktop.windows[GAME] = {"The Game", "game", 0, false};
        desktop.foreground = GAME;
        net.fetch = [](uint64 offset, uint64 length, char* data) { return fill(offset, length, data); };
    }
    ~UnderflowRun() {
        stop();
        mgr = {};
        ZqLog::setSink({});
        ZqMachineRoot::set("");
    }

    /// Makes the manager, with the client's callback or with none.
    void make(bool withCallback = true) {
        progress = SxPtr<ZqImageProgress>::create(image, app);
        mgr = SxPtr<ZqCoreUnderflowMgr>::create(image, SxPtr<ZqCoreAppGuard>(), progress, app,
                                                withCallback ? &UnderflowRun::call : nullptr,
                                                withCallback ? this : nullptr);
    }
    void start(bool withCallback = true) {
        make(withCallback);
        launch();
    }
    /// Starts what make() made; returns when it sleeps, so that the script may be changed.
    void launch() {
        mgr->start();
        sleep(1);
    }
    /// Brings a started run through its first underflow, with the game's window found.
    void begin() {
        readBlock(0);
        ASSERT_TRUE(await([this] { return isAnswered(); }, 1000));
        sleep(20);
        requests.clear();
        driver.notes.clear();
        clearLog();
    }
    void stop() {
        if (!mgr) return;
        mgr->stop();
        mgr->wait();
    }

    /// A reader asks for a block that isn't there.
    void readBlock(uint64 zqfIdx) { driver.queue.push_back(zqfIdx); }
    bool isAnswered() const { return driver.queue.empty(); }
    int64 nowMs() { return driver.clock().elapsedMs(); }
    static void sleep(int64 ms) { SxTime::msleep(ms); }
    static bool await(const std::function<bool()>& state, int64 limitMs) {
        return SxWait::pass(limitMs, state, 1);
    }
    /// Whether all that was delivered are the image's bytes.
    bool isDeliveryRight() const {
        return std::all_of(driver.delivered.begin(), driver.delivered.end(), [](const auto& block) {
            std::string wanted(block.second.size(), '\0');
            fill(block.first * BLOCK, wanted.size(), wanted.data());
            return block.second == wanted;
        });
    }
    static int fill(uint64 offset, uint64 length, char* data) {
        for (uint64 i = 0; i < length; ++i)
            data[i] = byteAt(offset + i);
        return 0;
    }
    std::string reference() const {
        std::string bytes(app.sizeZqf, '\0');
        fill(0, bytes.size(), bytes.data());
        return bytes;
    }

    /// What was asked of the network last.
    std::string lastNote() {
        const std::lock_guard lock(net.notesMutex);
        return net.notes.back();
    }
    std::vector<std::string> log() {
        const std::lock_guard lock(logMutex);
        return lines;
    }
    int64 nLogged(const std::string& part) {
        const std::vector<std::string> all = log();
        return std::count_if(all.begin(), all.end(),
                             [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }
    void clearLog() {
        const std::lock_guard lock(logMutex);
        lines.clear();
    }
    /// The text of the next APP_ERROR, or an empty one.
    std::string failure() {
        SxEvent event;
        return events.tryPop(&event) ? event.getData().getText(1).str() : "";
    }

    const TempDir dir;
    const SxString image = dir.path("image");
    ScriptedDriver driver{dir.path("volume")};
    ScriptedDesktop desktop;
    ScriptedNetio net;
    ZqAppParams app;
    SxPtr<ZqImageProgress> progress;
    SxPtr<ZqCoreUnderflowMgr> mgr;
    /// What the callback does; the image's bytes without it.
    std::function<int(uint64 offset, uint64 length, char* data)> script;
    std::vector<std::pair<uint64, uint64>> requests; ///< offset and length

private:
    static int call(uint64 offset, uint64 length, char** data, void* self) {
        auto* run = static_cast<UnderflowRun*>(self);
        run->requests.emplace_back(offset, length);
        return run->script ? run->script(offset, length, *data) : fill(offset, length, *data);
    }

    SxEventListener events;
    std::mutex logMutex;
    std::vector<std::string> lines;
};
