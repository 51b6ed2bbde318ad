#include "SxFSAction.h"
#include "SxFileIO.h"
#include "TempDir.h"
#include "ZqMachineRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// A variable of the environment for a scope.
class Variable {
public:
    Variable(const char* name_, const char* value) : name(name_) {
        if (const char* old = std::getenv(name)) saved = old;
        if (value) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~Variable() {
        if (saved.empty()) {
            unsetenv(name);
        } else {
            setenv(name, saved.c_str(), 1);
        }
    }

private:
    const char* name;
    std::string saved;
};

class MachineRootTest : public testing::Test {
public:
    MachineRootTest() {
        fs::create_directories(root / "prefix/dosdevices");
        fs::create_directories(root / "prefix/drive_c/Program Files/Game");
        fs::create_directories(root / "mounted/Data");
        fs::create_directory_symlink(root / "mounted", root / "prefix/dosdevices/e:");
        ZqMachineRoot::set((root / "prefix").string());
    }
    ~MachineRootTest() override { ZqMachineRoot::set(""); }

protected:
    void makeFile(const std::string& path) const { dir.write(path, "content of " + path); }

    const TempDir dir;
    const fs::path root = dir.path();
};

} // namespace

TEST_F(MachineRootTest, PathsBelowALetter) {
    makeFile("mounted/Data/Config.INI");
    makeFile("mounted/Data/config.ini");
    makeFile("mounted/Data/Größe.txt");
    makeFile("mounted/Data/a\\b");
    makeFile("secret");
    const std::string e = (root / "prefix/dosdevices/e:").string();
    const std::string c = (root / "prefix/drive_c").string();
    const std::pair<std::string, std::string> cases[] = {
        {"E:/Data/Config.INI", e + "/Data/Config.INI"},
        {"e:\\Data\\config.ini", e + "/Data/config.ini"},
        {"E:/DATA/CONFIG.ini", e + "/Data/Config.INI"},
        {"E:/data/GRÖSSE.TXT", e + "/Data/GRÖSSE.TXT"},
        {"E:/data/GRÖßE.TXT", e + "/Data/Größe.txt"},
        {"E:/data/New/Sub.dat", e + "/Data/New/Sub.dat"},
        {"E:/Data/../../../secret", e + "/secret"},
        {"E:\\..\\data\\.\\", e + "/Data"},
        {"E:/", e + "/"},
        {"E:", e + "/"},
        {"C:/program files//game", c + "/Program Files/Game"},
        {"X:/any", (root / "prefix/dosdevices/x:/any").string()},
        // Host paths.
        {"/data\\Config.INI", "/data\\Config.INI"},
        {"E:relative", "E:relative"},
        {"EE:/Data", "EE:/Data"},
        {"1:/Data", "1:/Data"},
        {"relative/../path", "relative/../path"},
    };
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(ZqMachineRoot::hostPath(path), expected) << path;

    fs::create_directory_symlink(root / "prefix/drive_c", root / "prefix/dosdevices/c:");
    EXPECT_EQ(ZqMachineRoot::hostPath("C:/PROGRAM FILES"),
              (root / "prefix/dosdevices/c:/Program Files").string());
}

TEST_F(MachineRootTest, FileOperationsGoThroughTheHook) {
    makeFile("mounted/Data/Config.INI");
    EXPECT_STREQ(SxFileIO::readUtf8("E:\\data\\config.ini").ascii(), "content of mounted/Data/Config.INI");
    SxFSAction::mkdir_p("E:/DATA/Save/Slot1");
    EXPECT_TRUE(fs::is_directory(root / "mounted/Data/Save/Slot1"));
    // The letter itself is the folder that it leads to.
    EXPECT_EQ(SxFSAction::ls("E:/").getSize(), 1);
    EXPECT_FALSE(SxFileInfo("E:/").isLink());
}

TEST_F(MachineRootTest, PlaceOfTheRoot) {
    ZqMachineRoot::set("");
    {
        const Variable prefix("WINEPREFIX", "/some/prefix/");
        EXPECT_STREQ(ZqMachineRoot::get().ascii(), "/some/prefix");
        ZqMachineRoot::set("");
    }
    const Variable noPrefix("WINEPREFIX", nullptr);
    {
        const Variable data("XDG_DATA_HOME", "/some/data");
        EXPECT_STREQ(ZqMachineRoot::get().ascii(), "/some/data/tavrin/prefix");
        ZqMachineRoot::set("");
    }
    // A relative value doesn't count.
    const Variable data("XDG_DATA_HOME", "data");
    const Variable home("HOME", "/home/someone");
    EXPECT_STREQ(ZqMachineRoot::get().ascii(), "/home/someone/.local/share/tavrin/prefix");
}

TEST_F(MachineRootTest, OnlyDriveCIsMadeOnFirstUse) {
    ZqMachineRoot::set((root / "fresh").string());
    SxFSAction::mkdir_p("C:/games/x");
    EXPECT_TRUE(dir.exists("fresh/drive_c/games/x"));
    EXPECT_EQ(fs::read_symlink(root / "fresh/dosdevices/c:"), "../drive_c");
    EXPECT_THROW(SxFSAction::mkdir_p("Z:/games/x"), SxException);
    EXPECT_FALSE(dir.exists("fresh/dosdevices/z:"));
}
