#include "DriveRun.h"
#include "Instrumented.h"

#include <cerrno>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// A memory group of the first or the second kind, as the machine has it.
class MemoryGroup {
public:
    explicit MemoryGroup(uint64 bytes) {
        const string root = "/sys/fs/cgroup/";
        const bool isFirst = fs::exists(root + "memory/memory.limit_in_bytes");
        folder = root + (isFirst ? "memory/" : "") + "tavrin-test-" + std::to_string(::getpid());
        std::error_code error;
        if (!fs::create_directory(folder, error)) return;
        limit = folder + (isFirst ? "/memory.limit_in_bytes" : "/memory.max");
        std::ofstream(limit) << bytes;
        std::ifstream(limit) >> set;
    }
    ~MemoryGroup() {
        SxWait::pass(10'000, [this] { return ::rmdir(folder.c_str()) == 0 || errno != EBUSY; });
    }
    MemoryGroup(const MemoryGroup&) = delete;
    MemoryGroup& operator=(const MemoryGroup&) = delete;
    bool isThere() const { return set > 0; }
    void lift() const { std::ofstream(limit) << (uint64{1} << 32); }
    /// A line for a shell, which enters the group by it.
    string entry() const { return "echo 0 >'" + folder + "/cgroup.procs'; "; }
    bool holds(int64 pid) const {
        std::ifstream processes(folder + "/cgroup.procs");
        for (int64 each = 0; processes >> each;) {
            if (each == pid) return true;
        }
        return false;
    }

private:
    string folder, limit;
    uint64 set = 0;
};

/// A drive's service has nothing from the program that mounted the drive.
class Starter : public DriveRun {
protected:
    /// Mounts with a client that a shell starts after these lines; gives the folder of the application.
    string mountBehind(const string& lines, const string& image) const {
        const SxString words = SxString(lines + "exec timeout 60 \"$0\" mount \"$1\" --mode rtw --quiet");
        EXPECT_EQ(SxProcess("bash", {"-c", words, SxString(client), SxString(image)}).run(), 0);
        return statusOf(image).mountPath.str() + "/TAVRIN-protected/app";
    }
    static string lineOf(const string& file, const string& begin) {
        std::ifstream in(file);
        for (string line; std::getline(in, line);) {
            if (line.starts_with(begin)) return line;
        }
        return {};
    }
};

} // namespace

TEST_F(Starter, ItsGroupsAndLimitsAreLeft) {
    const MemoryGroup group(256 << 20);
    const string image = build("image", "ext4");
    const string enter = group.isThere() ? group.entry() : string();
    mountBehind(enter + "renice -n 7 $$ >/dev/null; echo 300 >/proc/self/oom_score_adj; "
                        "ulimit -S -f 100000; ulimit -S -n 200; ulimit -S -v 200000000000; ",
                image);
    const int64 pid = statusOf(image).servicePid;
    const string proc = "/proc/" + std::to_string(pid) + "/";
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(pid)), 0);
    EXPECT_EQ(lineOf(proc + "oom_score_adj", ""), "0");
    for (const auto& [limit, low] : {std::pair{"Max file size", " 102400000 "},
                                     {"Max open files", " 200 "},
                                     {"Max address", " 204800000000000 "}})
        EXPECT_EQ(lineOf(proc + "limits", limit).find(low), string::npos) << limit;
    if (group.isThere()) {
        EXPECT_FALSE(group.holds(pid));
    }
    done({"umount", image});
}

TEST_F(Starter, ALittleMemoryForTheApplicationIsntItsDrives) {
    // In a group of both, the service would wait for ever for memory that its own drive's pages hold. With a
    // sanitizer the client alone needs more than it gets without one.
    const MemoryGroup group(IS_INSTRUMENTED ? 512 << 20 : 48 << 20);
    if (!group.isThere()) GTEST_SKIP() << "no memory group can be made";
    std::ofstream(source + "/room").close();
    fs::resize_file(source + "/room", 400'000'000);
    const string image = build("image", "ext4");
    TestRandom random(11);
    const string saved = random.bytes(24 << 20);
    dir.write("saved", saved);
    const string app = mountBehind(group.entry(), image);
    SxProcess writer("bash", {"-c",
                              SxString(group.entry() + "for i in 1 2 3 4 5 6 7 8; do "
                                                       "cat \"$0\" >\"$1/saved$i\" || exit 1; done"),
                              SxString(dir.path("saved")), SxString(app)});
    writer.start();
    EXPECT_TRUE(SxWait::pass(60'000, [&] { return !writer.isRunning(); })) << "it hangs";
    if (writer.isRunning()) {
        // No signal reaches a process that waits for memory.
        group.lift();
    }
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    const string again = mount(image, {"--mode", "ro"});
    for (int i = 1; i <= 8; ++i)
        EXPECT_TRUE(TempDir::readFile(again + "/saved" + std::to_string(i)) == saved) << i;
    done({"umount", image});
}
