#include "ClientTest.h"
#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqImageLock.h"
#include "ZqPreparationLock.h"

#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class RemoveVerb : public ClientTest {
protected:
    /// An image whose application has saved something; gives where.
    string makeSaved(const string& name) {
        const string image = makeImage(name);
        const ZqAppParams app((SxString(image) + "/"));
        const string saves = "prefix/drive_c/ProgramData/TAVRIN/" + app.guid.str();
        dir.write(saves + "/TAVRIN-protected/game", "saved");
        return dir.path(saves);
    }
    void expectRefused(const string& path, const string& why) {
        TreeSnapshot before = dir.snapshot();
        const Outcome refused =
            runScript("HOME='" + dir.path("home/me") + "' \"$@\" 2>&1", {"remove", path, "--yes"});
        EXPECT_EQ(refused.code, 1) << path;
        EXPECT_THAT(refused.out, testing::AllOf(HasSubstr(why), HasSubstr("nothing is removed"))) << path;
        TreeSnapshot after = dir.snapshot();
        for (TreeSnapshot* each : {&before, &after}) {
            each->erase("out");
            each->erase("err");
        }
        EXPECT_EQ(after, before) << path;
    }
};

} // namespace

TEST_F(RemoveVerb, AnImageGoesAndWhatWasSavedStaysUnlessItIsNamed) {
    const string saves = makeSaved("image");
    const Outcome info = run({"image", "info", dir.path("image"), "--json"});
    EXPECT_EQ(parseJson(info.out).getElem("saves").getElem("path").toString().str(), saves);
    EXPECT_THAT(run({"image", "info", dir.path("image")}).out, HasSubstr(saves));

    const Outcome unasked = runScript("\"$@\" </dev/null", {"remove", dir.path("image")});
    EXPECT_EQ(unasked.code, 2);
    EXPECT_THAT(unasked.err, HasSubstr("give --yes"));
    EXPECT_TRUE(fs::exists(dir.path("image/img.zqf")));

    const Outcome kept = run({"remove", dir.path("image"), "--yes"});
    EXPECT_EQ(kept.code, 0) << kept.err;
    EXPECT_THAT(kept.out, testing::AllOf(HasSubstr("saved stays: " + saves), HasSubstr("Removed.")));
    EXPECT_FALSE(fs::exists(dir.path("image")));
    EXPECT_TRUE(fs::exists(saves + "/TAVRIN-protected/game"));

    const string others = makeSaved("again");
    dir.write("again/notes.txt", "of the player");
    {
        const ZqPreparationLock mount{SxString(others)};
        const Outcome refused = run({"remove", dir.path("again"), "--yes", "--saves"});
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr("Another mount"));
        EXPECT_TRUE(fs::exists(others + "/TAVRIN-protected/game"));
        EXPECT_TRUE(fs::exists(dir.path("again/img.zqf")));
    }
    const Outcome all = run({"remove", dir.path("again"), "--yes", "--saves", "--json"});
    EXPECT_EQ(all.code, 0) << all.err;
    EXPECT_EQ(parseJson(all.out).getElem("left").toInt(), 1);
    EXPECT_EQ(parseJson(all.out).getElem("saves").toString().str(), others);
    EXPECT_FALSE(fs::exists(others));
    EXPECT_TRUE(fs::exists(dir.path("again/notes.txt")));
    EXPECT_FALSE(fs::exists(dir.path("again/app.json")));
}

TEST_F(RemoveVerb, AGuidThatLeadsElsewhereHasSavedNothing) {
    const string mine = "prefix/drive_c/users/me/letter",
                 others = "prefix/drive_c/ProgramData/TAVRIN/other/game";
    dir.write(mine, "mine");
    dir.write(others, "saved");
    for (const string guid : {"", ".", "..", "../../users", "..\\\\..\\\\users", "other/."}) {
        const string image = makeImage("image");
        const std::regex own(R"re("guid"\s*:\s*"[^"]*")re");
        dir.write("image/app.json",
                  std::regex_replace(dir.read("image/app.json"), own, R"("guid": ")" + guid + '"'));
        const Outcome info = run({"image", "info", image, "--json"});
        EXPECT_EQ(info.code, 0) << info.err;
        EXPECT_THAT(info.out, testing::Not(HasSubstr(dir.path("prefix")))) << guid;
        const Outcome removed = run({"remove", image, "--yes", "--saves"});
        EXPECT_EQ(removed.code, 0) << guid << removed.err;
        EXPECT_TRUE(fs::exists(dir.path(mine)) && fs::exists(dir.path(others))) << guid;
    }
}

TEST_F(RemoveVerb, WhatIsNoImageOfOnesOwnIsRefused) {
    const string image = makeImage("home/me/image");
    fs::create_symlink(image, dir.path("link"));
    dir.write("project/app.json", R"({"expo": {}})");
    dir.write("locked/app.json", R"({"expo": {}})");
    dir.write("locked/image.lock", "");
    fs::create_directories(dir.path("empty"));
    dir.write("template/app.json", dir.read("home/me/image/app.json"));
    dir.write("home/me/app.json", dir.read("home/me/image/app.json"));
    struct Case {
        string path, why;
    };
    for (const Case& each :
         {Case{"/", "the home folder"}, Case{dir.path("home/me"), "the home folder"},
          Case{dir.path("home/me/image/../.."), "or holds it"}, Case{dir.path("link"), "is a link"},
          Case{dir.path("link") + "//", "is a link"}, Case{dir.path("link") + "/./.", "is a link"},
          Case{dir.path("nosuch"), "isn't there"}, Case{image + "/app.json", "is no folder"},
          Case{dir.path("project"), "holds no image"}, Case{dir.path("locked"), "holds no image"},
          Case{dir.path("template"), "holds no image"}, Case{dir.path("empty"), "holds no image"}}) {
        expectRefused(each.path, each.why);
    }
    dir.write("home/me/image/app.json", "damaged");
    const Outcome unknown = run({"remove", image, "--yes", "--saves"});
    EXPECT_EQ(unknown.code, 1);
    EXPECT_THAT(unknown.err, HasSubstr("leave --saves away"));
    EXPECT_TRUE(fs::exists(image + "/img.zqf"));
    if (::geteuid() == 0 && ::chown(image.c_str(), 1234, 1234) == 0)
        expectRefused(image, "belongs to the user 1234");
}

TEST_F(RemoveVerb, AnImageInUseStaysAndACutRemovalGoesOn) {
    const SxString image(makeImage("image"));
    for (const ZqImageLock::Range range : {ZqImageLock::Shape, ZqImageLock::Growth, ZqImageLock::Drive}) {
        const auto lock = ZqImageLock::takeAnyState(
            image, range, range == ZqImageLock::Shape ? ZqImageLock::Shared : ZqImageLock::Exclusive,
            "a test");
        const Outcome refused = run({"remove", image.str(), "--yes"});
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr("(a test)"));
        EXPECT_TRUE(fs::exists(dir.path("image/img.zqf")));
    }
    // The record and the lock are what is left last.
    for (const char* name : {"img.zqf", "img.idx", "img.json"})
        fs::remove(dir.path("image/") + name);
    const TempDir copies;
    fs::copy(dir.path("image"), copies.path("rest"));
    // What a download leaves that was killed.
    dir.write("image/chunks/0.chunk", "");
    EXPECT_EQ(run({"remove", image.str(), "--yes"}).code, 0);
    EXPECT_FALSE(fs::exists(image.str()));
    fs::remove(copies.path("rest/app.json"));
    fs::create_directory(copies.path("rest/mine"));
    const Outcome rest = run({"remove", copies.path("rest"), "--yes"});
    EXPECT_EQ(rest.code, 0);
    EXPECT_THAT(rest.out, HasSubstr("1 file or folder that isn't the image's stays"));
    EXPECT_EQ(std::distance(fs::directory_iterator(copies.path("rest")), fs::directory_iterator()), 1);
}
