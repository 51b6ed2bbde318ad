#pragma once

#include "Builders.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqMachineRoot.h"
#include "ZqMountMgr.h"
#include "ZqVolume.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <thread>

namespace fs = std::filesystem;
using std::string;
using testing::HasSubstr;

struct Outcome {
    int code = -1;
    string out, err;
};

/// A test on a real drive: the client and the service as they are installed, in a machine root of its own.
/// Skips where the machine has no means for drives, and fails where anything is left of one at its end.
class DriveRun : public testing::Test {
protected:
    /// `base`: where all of the test's files lie.
    explicit DriveRun(const fs::path& base = fs::temp_directory_path()) : dir(base) {}
    void SetUp() override;
    void TearDown() override;

    /// Clients use this machine root from now on; the first is "root".
    void useRoot(const string& name);
    /// Builds an image of `source` with the client.
    string build(const string& name, const string& fileSystem, const std::vector<string>& more = {});
    /// Runs the client; kept from hanging by a limit of a minute.
    Outcome run(const std::vector<string>& words) const;
    /// The same, and expects success; gives standard output.
    string done(const std::vector<string>& words) const;
    /// Mounts with the client and gives the folder of the volume's application.
    string mount(const string& image, const std::vector<string>& more = {});

    static ZqDiskStatus statusOf(const string& image);
    /// Waits up to half a minute.
    static bool eventually(const std::function<bool()>& ready);
    /// Mount points and loop devices below the service's folder, and the folders of disks.
    static std::vector<string> leftovers();
    /// The letters of the first machine root, but for those that each one has.
    std::set<string> lettersOfDrives() const;
    static bool isRunning(int64 pid);
    /// Ids of the service, or of its helpers.
    static std::vector<pid_t> processesOf(bool helpers);

    TempDir dir;
    string source; ///< folder with the application's files
    string client;

private:
    std::set<string> roots; ///< that were used
};

/// Cuts an image down to what a mount needs and plays the server for the rest.
class Feeder {
public:
    explicit Feeder(const string& image);
    ~Feeder() { stop(); }

    uint64 nPresent() const { return present; }
    /// Answers missing blocks, in any order, until stop().
    void start();
    void stop();
    /// Puts the next blocks into the image's file and moves the drive's cursor there.
    void grow(uint64 nBlocks);

private:
    string image, bytes;            ///< of the whole `img.zqf`
    std::atomic<uint64> present{0}; ///< blocks
    std::atomic<bool> stopping{false};
    std::thread thread;
};
