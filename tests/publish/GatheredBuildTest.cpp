#include "BuildTest.h"
#include "ZqAppParams.h"

TEST(ImageBuild, WhatWasGatheredGoesOnlyWhereThatIsAskedFor) {
    struct Case {
        const char* name;
        std::function<void(const TempDir&)> change; ///< of what stands around the image
        std::vector<std::string> says;              ///< empty: nothing is refused
        std::vector<std::string> kept, lost;        ///< where it may discard
    };
    const std::vector<std::string> traces = {"traces/1/img.trc"}, layer = {"img.tix", "img.tmp"};
    const std::vector<std::string> all = {"traces/1/img.trc", "img.tix", "img.tmp"};
    const auto setApp = [](const TempDir& dir, const std::function<void(ZqAppParams*)>& set) {
        ZqAppParams app(SxString(dir.path("image/")));
        set(&app);
        app.write(SxString(dir.path("image/")));
    };
    const Case cases[] = {
        {"the same disk", [](const TempDir&) {}, {}, all, {}},
        {"the same disk, its record changed",
         [&](const TempDir& dir) { setApp(dir, [](ZqAppParams* app) { app->cmd = "x"; }); },
         {},
         all,
         {}},
        {"another disk",
         [](const TempDir& dir) { dir.write("source/a", "b"); },
         {"/image/traces) and what drives have written (img.tix)", "--discard"},
         {},
         all},
        {"another disk, traces alone",
         [](const TempDir& dir) {
             dir.write("source/a", "b");
             fs::remove(dir.path("image/img.tix"));
         },
         {"/image/traces), which"},
         {},
         traces},
        {"another disk, a layer without a record",
         [](const TempDir& dir) {
             dir.write("source/a", "b");
             dir.write("image/img.tix", "");
             fs::remove_all(dir.path("image/traces"));
         },
         {},
         {},
         layer},
        {"an unknown disk",
         [&](const TempDir& dir) { setApp(dir, [](ZqAppParams* app) { app->checksumMnt = SxString(); }); },
         {"another build"},
         {},
         all},
        {"no record",
         [](const TempDir& dir) { dir.write("image/app.json", "{"); },
         {"another build"},
         {},
         all},
        // The layer then has only those writes that had no place in img.zqf.
        {"written in place",
         [](const TempDir& dir) { dir.write("image/img.zqf", dir.read("image/img.zqf") + "x"); },
         {"what drives have written (img.tix)"},
         traces,
         layer},
        {"written in place, without a layer",
         // Whatever its record says: a mount may have been told another mode.
         [](const TempDir& dir) {
             fs::remove(dir.path("image/img.tix"));
             dir.write("image/img.zqf", dir.read("image/img.zqf") + "x");
         },
         {"what drives have written (img.zqf, which no longer has its digest)"},
         traces,
         {}},
    };
    for (const Case& over : cases) {
        SCOPED_TRACE(over.name);
        const TempDir dir;
        dir.write("source/a", "a");
        ASSERT_EQ(build(dir), "");
        for (const std::string& name : all)
            dir.write("image/" + name, "gathered");
        over.change(dir);
        const TreeSnapshot before = contentOf(dir, "image");
        const std::string failure = build(dir);
        EXPECT_EQ(failure.empty(), over.says.empty()) << failure;
        for (const std::string& part : over.says)
            EXPECT_THAT(failure, HasSubstr(part));
        if (!failure.empty()) {
            EXPECT_EQ(contentOf(dir, "image"), before);
        }
        ZqImageBuild::Options what;
        what.mayDiscard = true;
        ASSERT_EQ(build(dir, what), "");
        for (const std::string& name : over.kept)
            EXPECT_EQ(dir.exists("image/" + name) ? dir.read("image/" + name) : "", "gathered") << name;
        for (const std::string& name : over.lost)
            EXPECT_FALSE(dir.exists("image/" + name)) << name;
    }
}
