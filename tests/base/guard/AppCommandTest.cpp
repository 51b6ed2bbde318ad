#include "BaseTest.h"
#include "ZqAppCommand.h"
#include "ZqMachineRoot.h"

TEST(AppCommand, WhatCanNotExistHereIsRefused) {
    const TempDir dir;
    ZqMachineRoot::set(SxString(dir.path("root")));
    fs::create_directories(dir.path("root/drive_c/Games"));
    dir.write("plain", "no program");
    const auto refusal = [](const std::string& cmd) {
        return failureOf([&] { ZqAppCommand::requirePossible(SxString(cmd), "{{ZQDRIVE}}"); });
    };
    EXPECT_THAT(refusal(""), HasSubstr("is empty"));
    for (const std::string& cmd : {std::string("/usr/games/nosuch"), std::string("no-such-program"),
                                   dir.path("plain"), dir.path("root")}) {
        EXPECT_THAT(refusal(cmd), AllOf(HasSubstr("'" + cmd + "'"), HasSubstr("no such program"))) << cmd;
    }
    for (const char* cmd : {"/bin/sh", "sh", "{{ZQDRIVE}}/none", "--x={{ZQDRIVE}}", "none.exe"})
        EXPECT_EQ(refusal(cmd), "") << cmd;
    // Before Wine has made its prefix nobody can tell what will be in there.
    EXPECT_EQ(refusal("C:/Games/none.exe"), "");
    fs::create_directories(dir.path("root/drive_c/windows"));
    EXPECT_THAT(refusal("C:/Games/none.exe"), HasSubstr("no such program"));
    dir.write("root/drive_c/Games/Some.exe", "");
    EXPECT_EQ(refusal("C:\\games\\some.EXE"), "");
    ZqMachineRoot::set("");
}
