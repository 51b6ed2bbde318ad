#include "StreamRun.h"
#include "ZqServiceFolder.h"

namespace {

/// Drives of a service in another mount namespace, from which nothing comes through to the test's.
class Elsewhere : public StreamRun {
protected:
    /// Starts the client there, with these words.
    std::unique_ptr<Client> startThere(const std::vector<string>& words) {
        std::vector<string> all = {"-m", "--propagation", "private", client};
        all.insert(all.end(), words.begin(), words.end());
        return std::make_unique<Client>("unshare", all, dir.path("there" + std::to_string(++nClients)));
    }
};

} // namespace

TEST_F(Elsewhere, ADriveIsToldOfAndNothingIsMountedBesideIt) {
    const string first = build("first", "erofs"), second = build("second", "ext4");
    const auto there = startThere({"mount", first, "--quiet"});
    ASSERT_EQ(there->end(), 0) << there->says();
    const int64 pid = statusOf(first).servicePid;
    EXPECT_THAT(done({"status", first}), HasSubstr("in another mount namespace, that of the drive service"));
    EXPECT_THAT(done({"status", first, "--json"}), HasSubstr("\"elsewhere\": true"));
    const int64 beginNs = SxClock::get().steadyNs();
    EXPECT_THAT(run({"mount", first}).err, HasSubstr("in another mount namespace, where this process can't"));
    const Outcome refused = run({"mount", second});
    EXPECT_LT(SxClock::get().steadyNs() - beginNs, 3'000'000'000)
        << "it waits to see whether the drive comes";
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("lives in another mount namespace, whose drives this process can't"));
    EXPECT_THAT(TempDir::readFile(ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log"),
                testing::Not(HasSubstr("image " + second)))
        << "it was mounted first";
    EXPECT_THAT(done({"umount", first}), HasSubstr("The drive was in another mount namespace"));
    // That service has nothing to serve now, and makes way for one whose drives this process sees.
    const string app = mount(second);
    EXPECT_NE(statusOf(second).servicePid, pid);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    EXPECT_THAT(done({"status", second, "--json"}), HasSubstr("\"elsewhere\": false"));
    done({"umount", second});
}

TEST_F(Elsewhere, ARunDoesntTakeOverWhatItCantSee) {
    server->setRate(6'000'000);
    hold();
    const auto first = startThere({"run", got, "--url", server->getUrl().str(), "--now"});
    ASSERT_TRUE(eventually([&] {
        return hasStarted() && dir.read("got/stream.json").find("application") != string::npos;
    })) << first->says();
    first->signal(SIGKILL);
    first->end();
    const auto next = start();
    EXPECT_EQ(next->end(), 1) << next->says();
    EXPECT_THAT(next->says(), HasSubstr("in another mount namespace, where this run can't see it"));
    release();
    done({"umount", got, "--force"});
}
