#include "DriveRun.h"

#include "ZqServiceFolder.h"

#include <csignal>
#include <fstream>
#include <random>
#include <unistd.h>

namespace {

bool knowsFileSystem(const string& name) {
    std::ifstream table("/proc/filesystems");
    string word;
    while (table >> word) {
        if (word == name) return true;
    }
    return false;
}

} // namespace

void DriveRun::SetUp() {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0) GTEST_SKIP() << "/dev/fuse can't be opened";
    ::close(fuse);
    for (const char* name : {"erofs", "ext4", "overlay"}) {
        if (!knowsFileSystem(name)) GTEST_SKIP() << "the kernel has no " << name;
    }
    if (::access("/dev/loop-control", R_OK | W_OK) != 0) GTEST_SKIP() << "there are no loop devices";
    const char* bin = std::getenv("TAVRIN_BIN");
    ASSERT_NE(bin, nullptr) << "TAVRIN_BIN must name the client";
    client = bin;
    ::setenv("TAVRIN_ZQDD", (fs::path(bin).parent_path() / "zqdd").c_str(), 1);
    ::setenv("TAVRIN_ZQDD_IDLE_MS", "500", 1);
    ::setenv("XDG_CONFIG_HOME", dir.path("config").c_str(), 1);
    ::setenv("XDG_STATE_HOME", dir.path("state").c_str(), 1);
    // Who runs the tests isn't to be told of their runs.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    useRoot("root");
    ZqMachineRoot::set(SxString(dir.path("root")));
    TestRandom random(3);
    source = dir.path("game");
    dir.write("game/start.cfg", "volume=3\n");
    dir.write("game/empty", "");
    dir.write("game/maps/one.map", random.bytes(5'000'001));
    for (int i = 0; i < 60; ++i)
        dir.write("game/textures/deep/" + std::to_string(i), random.bytes(random.between(1, 60'000)));
    dir.write("game/zeros", string(300'000, '\0'));
    dir.write("game/big.pak", random.bytes(16 << 20));
}

void DriveRun::TearDown() {
    if (client.empty()) return;
    for (const ZqDiskStatus& disk : ZqVolume::getDisks())
        run({"umount", disk.image.str(), "--hard"});
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    for (const string& root : roots) {
        ZqMachineRoot::set(SxString(root));
        EXPECT_TRUE(eventually([] { return processesOf(false).empty(); })) << "the service doesn't end";
        const fs::path folder = ZqServiceFolder::of(ZqMachineRoot::get().str());
        std::ifstream log(folder / "zqdd.log");
        for (string line; std::getline(log, line);)
            EXPECT_EQ(line.find("Sanitizer"), string::npos) << line;
        fs::remove_all(folder);
    }
    ZqMachineRoot::set(SxString());
}

void DriveRun::useRoot(const string& name) {
    const string root = dir.path(name);
    roots.insert(root);
    ::setenv("WINEPREFIX", root.c_str(), 1);
}

Outcome DriveRun::run(const std::vector<string>& words) const {
    SxList<SxString> arguments = {"-c",
                                  "timeout 60 \"$@\" >'" + dir.path("out") + "' 2>'" + dir.path("err") + "'",
                                  "bash", SxString(client)};
    for (const string& word : words)
        arguments << SxString(word);
    const int code = SxProcess("bash", arguments).run();
    return {code, dir.read("out"), dir.read("err")};
}

string DriveRun::done(const std::vector<string>& words) const {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.code, 0) << words[0] << ": " << outcome.err;
    return outcome.out;
}

string DriveRun::build(const string& name, const string& fileSystem, const std::vector<string>& more) {
    std::vector<string> words = {"image", "build", source, dir.path(name), "--fs", fileSystem, "--quiet"};
    words.insert(words.end(), more.begin(), more.end());
    done(words);
    return dir.path(name);
}

string DriveRun::mount(const string& image, const std::vector<string>& more) {
    std::vector<string> words = {"mount", image};
    words.insert(words.end(), more.begin(), more.end());
    done(words);
    const string at = statusOf(image).mountPath.str();
    if (at.empty()) throw std::runtime_error("there is no drive");
    return at + "/TAVRIN-protected/app";
}

ZqDiskStatus DriveRun::statusOf(const string& image) {
    ZqDiskStatus status;
    ZqVolume::findDisk(SxString(image), &status);
    return status;
}

bool DriveRun::eventually(const std::function<bool()>& ready) {
    return SxWait::pass(30'000, ready);
}

std::set<string> DriveRun::lettersOfDrives() const {
    std::set<string> letters;
    for (const auto& entry : fs::directory_iterator(dir.path("root/dosdevices")))
        letters.insert(entry.path().filename());
    letters.erase("c:");
    letters.erase("z:");
    return letters;
}

bool DriveRun::isRunning(int64 pid) {
    return ::kill(static_cast<pid_t>(pid), 0) == 0;
}

std::vector<pid_t> DriveRun::processesOf(bool helpers) {
    const string folder = ZqServiceFolder::of(ZqMachineRoot::get().str());
    std::vector<pid_t> found;
    for (const auto& process : fs::directory_iterator("/proc")) {
        const string name = process.path().filename();
        if (name.find_first_not_of("0123456789") != string::npos) continue;
        std::ifstream file(process.path() / "cmdline");
        string words; // stays empty for a process that has ended
        std::getline(file, words);
        if (words.find("zqdd") != string::npos && words.find(folder) != string::npos &&
            (words.find("helper") != string::npos) == helpers)
            found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

std::vector<string> DriveRun::leftovers() {
    const string folder = ZqServiceFolder::of(ZqMachineRoot::get().str());
    std::vector<string> found;
    std::ifstream table("/proc/self/mountinfo");
    for (string line; std::getline(table, line);) {
        if (line.find(folder) != string::npos) found.push_back(line);
    }
    for (const auto& device : fs::directory_iterator("/sys/block")) {
        std::ifstream file(device.path() / "loop/backing_file");
        string path;
        if (std::getline(file, path) && path.starts_with(folder)) found.push_back(device.path());
    }
    if (fs::exists(folder + ZqServiceFolder::MOUNTS)) {
        for (const auto& disk : fs::directory_iterator(folder + ZqServiceFolder::MOUNTS))
            found.push_back(disk.path());
    }
    return found;
}

Feeder::Feeder(const string& image_) : image(image_), bytes(TempDir::readFile(image + "/img.zqf")) {
    present = ZqAppParams(SxString(image + "/")).sizeMnt / 4096;
    fs::resize_file(image + "/img.zqf", present * 4096);
}

void Feeder::start() {
    stopping = false;
    thread = std::thread([this] {
        ZqMountMgr manager;
        std::mt19937_64 random(7);
        const SxString key(image);
        while (!stopping) {
            const SxArray<uint64> missing = manager.popUnderflowZqFBlocks(key, 32);
            std::vector<uint64> blocks(missing.begin(), missing.end());
            std::shuffle(blocks.begin(), blocks.end(), random);
            for (const uint64 zqfIdx : blocks) {
                if (zqfIdx < present) continue; // an image that isn't mounted gives zeros
                const string block = bytes.substr(zqfIdx * 4096, 4096);
                SxArray<char> data(4096);
                std::copy(block.begin(), block.end(), data.begin());
                manager.sendBlockToUFLayer(key, data, zqfIdx);
            }
            if (blocks.empty()) SxTime::msleep(1);
        }
    });
}

void Feeder::stop() {
    stopping = true;
    if (thread.joinable()) thread.join();
}

void Feeder::grow(uint64 nBlocks) {
    std::ofstream file(image + "/img.zqf", std::ios::binary | std::ios::app);
    const string more = bytes.substr(present * 4096, nBlocks * 4096);
    file.write(more.data(), static_cast<std::streamsize>(more.size()));
    file.close();
    present += (more.size() + 4095) / 4096;
    ZqMountMgr().setCursor(SxString(image), present);
}
