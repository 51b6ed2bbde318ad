#include "DriveRun.h"

#include <fstream>
#include <sys/stat.h>

namespace {

void write(const string& path, const string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// A game with one redirected file, whose folder the game writes into.
class NewVersion : public DriveRun {
protected:
    void SetUp() override {
        DriveRun::SetUp();
        for (const char* heavy : {"textures", "big.pak", "maps"})
            fs::remove_all(source + "/" + heavy);
        dir.write("game/data/levels", "levels 1");
        dir.write("game/data/old", "old 1");
        dir.write("game/maps/one", "one 1");
    }
    string buildAs(const string& name) {
        dir.write("template.json", R"({"version": 2, "zqfVersion": 1, "guid": "G1", "app": {"cmd": ""},
            "disk": {"mountMode": "ro"}, "underflow": {"suspendDrive": false, "suspendProc": false,
            "minOnDemand": 1, "maxOnDemand": 2}, "filemap": [{"from": "app/data/set.cfg"}, {"from": "app/start.cfg"}]})");
        return build(name, "erofs", {"--app", dir.path("template.json")});
    }
    /// The dated folders, the oldest first.
    std::vector<string> former() const {
        std::vector<string> found;
        for (const auto& entry : fs::directory_iterator(dir.path("root/drive_c/ProgramData/TAVRIN/G1"))) {
            if (entry.path().filename().string().starts_with("TAVRIN-protected-former-"))
                found.push_back(entry.path().string() + "/app");
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    using Contents = std::map<string, string>;
    static Contents contentsOf(const string& folder) {
        Contents found;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const string name = fs::relative(entry.path(), folder);
            if (entry.is_regular_file() && name != "zeros") found[name] = TempDir::readFile(entry.path());
        }
        return found;
    }
};

} // namespace

TEST_F(NewVersion, showsWhatItBringsAndKeepsWhatTheGameWrote) {
    const string first = buildAs("first");
    dir.write("game/data/levels", "levels 2");
    dir.write("game/data/old", "old 2");
    dir.write("game/maps/one", "one 2");
    dir.write("game/maps/two", "two 2");
    const string second = buildAs("second");

    const string app = mount(first);
    write(app + "/start.cfg", "played");
    write(app + "/data/levels", "changed by the game");
    write(app + "/data/own.sav", "a save");
    fs::remove(app + "/data/old");
    fs::remove_all(app + "/maps");
    fs::create_directory(app + "/maps");
    write(app + "/maps/mine", "mine");
    const Contents played = contentsOf(app);
    done({"umount", first});
    EXPECT_EQ(contentsOf(mount(first)), played) << "the same version";
    done({"umount", first});
    EXPECT_THAT(former(), testing::IsEmpty());

    const Contents patched = {{"start.cfg", "played"},    {"data/levels", "levels 2"}, {"data/old", "old 2"},
                              {"data/own.sav", "a save"}, {"data/set.cfg", ""},        {"empty", ""},
                              {"maps/mine", "mine"},      {"maps/one", "one 2"},       {"maps/two", "two 2"}};
    const string next = mount(second);
    EXPECT_EQ(contentsOf(next), patched);
    ASSERT_EQ(former().size(), 1U);
    EXPECT_EQ(contentsOf(former()[0]), (Contents{{"data/levels", "changed by the game"}}));
    write(next + "/data/levels", "changed again");
    done({"umount", second});
    EXPECT_EQ(TempDir::readFile(mount(second) + "/data/levels"), "changed again") << "once a version";
    done({"umount", second});
    EXPECT_EQ(former().size(), 1U);

    // Back to the one before: that is another version, too.
    EXPECT_EQ(TempDir::readFile(mount(first) + "/data/levels"), "levels 1");
    done({"umount", first});
    EXPECT_EQ(former().size(), 2U);
}

TEST_F(NewVersion, aRedirectedNameThatTheGameRemovedComesBack) {
    const string image = buildAs("image");
    string app = mount(image);
    fs::remove(app + "/start.cfg");
    fs::remove_all(app + "/data");
    done({"umount", image});
    app = mount(image);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    EXPECT_EQ(TempDir::readFile(app + "/data/set.cfg"), "");
    done({"umount", image});
}
