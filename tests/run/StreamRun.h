#pragma once

#include "DriveRun.h"
#include "ZqFileServer.h"
#include "ZqImageFeed.h"

#include <csignal>
#include <fstream>

/// A client that runs beside the test.
class Client {
public:
    Client(const string& client, const std::vector<string>& words, string out_)
        : out(std::move(out_)),
          process("bash", arguments(client, words)) {
        process.start();
    }
    ~Client() {
        process.kill();
        process.wait();
    }
    int64 getId() const { return process.getId(); }
    void signal(int number) { ::kill(process.getId(), number); }
    bool isRunning() { return process.isRunning(); }
    /// Its exit code; -1 where it doesn't end in time.
    int end(int64 ms = 30'000) {
        return SxWait::pass(ms, [&] { return !process.isRunning(); }) ? process.wait() : -1;
    }
    string says() const {
        std::ifstream file(out);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    SxList<SxString> arguments(const string& client, const std::vector<string>& words) const {
        SxList<SxString> list = {"-c", SxString("exec \"$@\" >'" + out + "' 2>&1"), "bash", SxString(client)};
        for (const string& word : words)
            list << SxString(word);
        return list;
    }

    const string out;
    SxProcess process;
};

/// An image on a server, and a folder that it is to arrive in.
class StreamRun : public DriveRun {
protected:
    void SetUp() override;
    void TearDown() override {
        release();
        resume();
        DriveRun::TearDown();
    }
    std::unique_ptr<Client> start(const std::vector<string>& more = {"--now"}) {
        std::vector<string> words = {"run", got, "--url", server->getUrl().str()};
        words.insert(words.end(), more.begin(), more.end());
        return std::make_unique<Client>(client, words, dir.path("said" + std::to_string(++nClients)));
    }
    ZqImageFeed::Settings feedSettings() const {
        ZqImageFeed::Settings settings;
        settings.image = SxString(got);
        settings.url = server->getUrl();
        return settings;
    }
    /// From now on the server has another version of the image.
    void offerOtherVersion() {
        string app = dir.read("served/app.json");
        const size_t at = app.find("\"mnt\": \"") + 8;
        app[at] = app[at] == '0' ? '1' : '0';
        dir.write("served/app.json", app);
        dir.write("served/img.zqf", string(5'000'000, 'x'));
    }
    /// The application ends only after release().
    void hold() { dir.write("played.hold", ""); }
    void release() { fs::remove(played + ".hold"); }
    void expectPlayed() {
        EXPECT_EQ(dir.read("played"), dir.read("right"));
        fs::remove(played);
        fs::remove(played + ".started");
    }
    /// The application reads little until resume().
    void pause() { dir.write("played.pause", ""); }
    void resume() { fs::remove(played + ".pause"); }
    bool hasPaused() const { return fs::exists(played + ".paused"); }
    bool hasStarted() const { return fs::exists(played + ".started"); }
    bool hasPlayed() const { return fs::exists(played); }
    bool isMounted() const { return !statusOf(got).image.isEmpty(); }
    void expectComplete() { EXPECT_TRUE(dir.read("got/img.zqf") == dir.read("served/img.zqf")); }

    string served, got = dir.path("got"), played = dir.path("played");
    std::unique_ptr<ZqFileServer> server;
    int nClients = 0;
};
