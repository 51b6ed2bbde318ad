#include "MountTest.h"
#include "ZqRedirection.h"

namespace {

class Private : public Machine {
public:
    Private() {
        app.guid = "G1";
        dir.write("volume/TAVRIN-protected/save/a/slot", "from the drive");
        dir.write("volume/TAVRIN-protected/cfg.ini", "default");
        dir.write("secret/key", "precious");
    }
    std::string prepare(const SxList<SxString>& folders, const SxList<SxString>& files) {
        app.dirmap = folders;
        app.filemap = files;
        return failureOf([&] { ZqRedirection(app).prepare("E:"); });
    }

    static constexpr const char* SIDE = "root/drive_c/ProgramData/TAVRIN/G1/TAVRIN-protected/";
    std::string side(const std::string& below) const { return SIDE + below; }
};

} // namespace

TEST(Redirection, CopiesOnceAndKeeps) {
    Private machine;
    fs::create_directory(machine.dir.path("volume/TAVRIN-private"));
    ASSERT_EQ(machine.prepare({"save\\a/", "gone/deep"}, {"./cfg.ini", "new/empty.dat"}), "");
    EXPECT_EQ(ZqRedirection(machine.app).getNames(), "save/a,gone/deep,cfg.ini,new/empty.dat");
    EXPECT_EQ(machine.dir.read(machine.side("save/a/slot")), "from the drive");
    EXPECT_EQ(machine.dir.read(machine.side("cfg.ini")), "default");
    EXPECT_EQ(machine.dir.read(machine.side("new/empty.dat")), "");
    EXPECT_EQ(fs::status(machine.dir.path(machine.side("new/empty.dat"))).permissions(), fs::perms{0644});
    const fs::path own = fs::path(machine.dir.path(Private::SIDE)).parent_path().parent_path();
    EXPECT_EQ(fs::status(own).permissions(), fs::perms{0700});
    EXPECT_NE(fs::status(own.parent_path()).permissions(), fs::perms{0700}) << "other applications' too";
    EXPECT_TRUE(machine.dir.exists(machine.side("gone")));
    EXPECT_FALSE(machine.dir.exists(machine.side("gone/deep")));

    machine.dir.write(machine.side("save/a/slot"), "played");
    machine.dir.write("volume/TAVRIN-protected/cfg.ini", "of an update");
    const TreeSnapshot before = machine.dir.snapshot("root");
    ASSERT_EQ(machine.prepare({"save/a", "gone/deep"}, {"cfg.ini", "new/empty.dat"}), "");
    EXPECT_EQ(machine.dir.snapshot("root"), before);
}

TEST(Redirection, ACutOffCopyIsDoneAgain) {
    Private machine;
    machine.dir.write(machine.side("save.tavrin-new/a/half"), "ha");
    fs::create_symlink(machine.dir.path("secret/new"), machine.dir.path(machine.side("cfg.ini.tavrin-new")));
    ASSERT_EQ(machine.prepare({"save"}, {"cfg.ini"}), "");
    EXPECT_EQ(machine.dir.read(machine.side("save/a/slot")), "from the drive");
    EXPECT_FALSE(machine.dir.exists(machine.side("save/a/half")));
    EXPECT_FALSE(machine.dir.exists(machine.side("save.tavrin-new")));
    EXPECT_FALSE(machine.dir.exists("secret/new"));
}

TEST(Redirection, OneMountAtATimeFillsIt) {
    Private machine;
    std::vector<std::string> others;
    bool isFirst = true;
    {
        FaultOs os(machine.dir.path("root"));
        os.setHook([&](int64, FaultOs::Op op, const std::string& path) {
            if (op != FaultOs::Op::Rename || path.find("/save") == std::string::npos || !isFirst) return;
            isFirst = false;
            // Another version at the moment in which everything is copied.
            machine.dir.write("volume/TAVRIN-protected/save/a/slot", "of another version");
            others.push_back(machine.prepare({"save"}, {}));
        });
        ASSERT_EQ(machine.prepare({"save"}, {}), "");
        os.setHook({});
    }
    EXPECT_THAT(others, testing::ElementsAre("Another mount, perhaps of another version, fills "
                                             "'C:/ProgramData/TAVRIN/G1' at the moment"));
    EXPECT_EQ(machine.dir.read(machine.side("save/a/slot")), "from the drive");
    EXPECT_EQ(machine.prepare({"save", "more"}, {}), "") << "nobody holds it any longer";
}

TEST(Redirection, EntriesAreRelativeNames) {
    Private machine;
    const std::pair<std::string, const char*> entries[] = {
        {"", "names nothing"},         {"./.", "names nothing"},
        {"/etc", "is absolute"},       {"\\etc", "is absolute"},
        {"C:x", "has a drive letter"}, {"c:\\x", "has a drive letter"},
        {"..", "leads upward"},        {"a\\..\\..\\b", "leads upward"},
        {"a,b", "holds a comma"},      {std::string("a\0b", 3), "holds a NUL"}};
    for (const auto& [entry, fault] : entries) {
        const std::string words = "The entry '" + SxString(entry).makeVisible().str() + "' of ";
        EXPECT_EQ(machine.prepare({SxString(entry)}, {}), words + "dirmap in app.json " + fault);
        EXPECT_EQ(machine.prepare({}, {"good", SxString(entry)}), words + "filemap in app.json " + fault);
    }
    for (const std::string guid : {"", ".", "..", "a/b", "a\\b", "C:"}) {
        machine.app.guid = SxString(guid);
        EXPECT_EQ(machine.prepare({"save"}, {}), "The guid '" + guid + "' of app.json is no plain name");
        EXPECT_EQ(failureOf([&] { ZqRedirection unused((ZqAppParams())); }), "");
    }
    EXPECT_FALSE(machine.dir.exists("root/drive_c/ProgramData"));
}

TEST(Redirection, AFolderIsNoFileOnEitherSide) {
    for (const bool isPrivate : {false, true}) {
        Private machine;
        const std::string side = isPrivate ? "C:/ProgramData/TAVRIN/G1" : "E:";
        const std::string base = isPrivate ? machine.side("") : "volume/TAVRIN-protected/";
        machine.dir.write(base + "a/file", "");
        for (const auto& [folders, files, entry, words] :
             {std::tuple<SxList<SxString>, SxList<SxString>, std::string, std::string>{
                  {"a/file"}, {}, "a/file", "dirmap in app.json needs a folder"},
              {{}, {"a"}, "a", "filemap in app.json needs a file"}}) {
            const TreeSnapshot before = machine.dir.snapshot(base);
            EXPECT_THAT(machine.prepare(folders, files),
                        HasSubstr("The entry '" + entry + "' of " + words + ", but '" + side +
                                  "/TAVRIN-protected/" + entry + "' is none"));
            EXPECT_EQ(machine.dir.snapshot(base), before);
        }
    }
}

TEST(Redirection, LinksAreRefused) {
    const std::string target = "C:/ProgramData/TAVRIN/G1/TAVRIN-protected";
    const std::string drive = "volume/TAVRIN-protected/";
    const std::pair<std::string, std::string> cases[] = {{drive, "E:/TAVRIN-protected"},
                                                         {Private::SIDE, target}};
    for (const auto& [folder, shown] : cases) {
        for (const char* leadsTo : {"secret", "secret/not there", "volume/TAVRIN-protected/save"}) {
            for (const char* entry : {"out/key", "out"}) {
                Private machine;
                fs::create_directories(machine.dir.path(folder));
                fs::create_symlink(machine.dir.path(leadsTo), machine.dir.path(folder + "out"));
                const TreeSnapshot before = machine.dir.snapshot("secret");
                const std::string words = "Cannot create " + target + "/" + entry + ": '" + shown +
                                          "/out' is a link, which can't be redirected";
                EXPECT_EQ(machine.prepare({entry}, {}), words);
                EXPECT_EQ(machine.prepare({}, {entry}), words);
                EXPECT_EQ(machine.dir.snapshot("secret"), before);
                EXPECT_FALSE(fs::exists(machine.dir.path(machine.side("out/key.tavrin-new"))));
            }
        }
    }
    Private machine;
    fs::create_symlink(machine.dir.path("secret/key"), machine.dir.path(drive + "save/a/link"));
    EXPECT_EQ(machine.prepare({"save"}, {}), "");
    EXPECT_TRUE(fs::is_symlink(machine.dir.path(machine.side("save/a/link"))))
        << "not a copy of what is outside";

    fs::remove_all(machine.dir.path("volume/TAVRIN-protected"));
    EXPECT_EQ(machine.prepare({"x"}, {}), "No TAVRIN-private or TAVRIN-protected folder on drive E:");
    fs::create_directory_symlink(machine.dir.path("secret"), machine.dir.path("volume/TAVRIN-protected"));
    EXPECT_EQ(machine.prepare({}, {"key"}), "'E:/TAVRIN-protected' is a link, which can't be redirected");
}
