#include "SxException.h"
#include "SxFSAction.h"
#include "TempDir.h"
#include "ZqMachineRoot.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

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
    const TempDir dir;
    const fs::path root = dir.path();
};

} // namespace

TEST_F(MachineRootTest, PathsBelowALetter) {
    for (const char* name : {"mounted/Data/Config.INI", "mounted/Data/config.ini", "mounted/Data/Größe.txt"})
        dir.write(name, "x");
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
        {"E:", e + "/"},
        {"C:/program files//game", c + "/Program Files/Game"},
        {"X:/any", (root / "prefix/dosdevices/x:/any").string()},
        // Host paths.
        {"/data\\Config.INI", "/data\\Config.INI"},
        {"E:relative", "E:relative"},
        {"1:/Data", "1:/Data"},
    };
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(ZqMachineRoot::hostPath(path), expected) << path;

    fs::create_directory_symlink(root / "prefix/drive_c", root / "prefix/dosdevices/c:");
    EXPECT_EQ(ZqMachineRoot::hostPath("C:/PROGRAM FILES"),
              (root / "prefix/dosdevices/c:/Program Files").string());
}

TEST_F(MachineRootTest, PlaceOfTheRoot) {
    const struct {
        const char *winePrefix, *dataHome, *root;
    } cases[] = {
        {"/some/prefix/", "/some/data", "/some/prefix"},
        {"", "/some/data", "/some/data/tavrin/prefix"},
        {"", "data", "/home/someone/.local/share/tavrin/prefix"}, // a relative value doesn't count
    };
    const char* oldHome = std::getenv("HOME");
    const std::string home = oldHome ? oldHome : "";
    setenv("HOME", "/home/someone", 1);
    for (const auto& c : cases) {
        setenv("WINEPREFIX", c.winePrefix, 1);
        setenv("XDG_DATA_HOME", c.dataHome, 1);
        ZqMachineRoot::set("");
        EXPECT_EQ(ZqMachineRoot::get(), c.root);
    }
    for (const char* name : {"WINEPREFIX", "XDG_DATA_HOME"})
        unsetenv(name);
    setenv("HOME", home.c_str(), 1);
}

TEST_F(MachineRootTest, TheDrivesOfWineAreMadeOnFirstUse) {
    ZqMachineRoot::set((root / "fresh").string());
    SxFSAction::mkdir_p("C:/games/x");
    EXPECT_TRUE(dir.exists("fresh/drive_c/games/x"));
    EXPECT_EQ(fs::read_symlink(root / "fresh/dosdevices/c:"), "../drive_c");
    EXPECT_EQ(fs::read_symlink(root / "fresh/dosdevices/z:"), "/");
    EXPECT_THROW(SxFSAction::mkdir_p("Y:/games/x"), SxException);
    // One that Wine has set up keeps what its user has made of it.
    dir.write("wines/.update-timestamp", "1");
    ZqMachineRoot::set((root / "wines").string());
    SxFSAction::mkdir_p("C:/games");
    EXPECT_FALSE(dir.exists("wines/dosdevices/z:"));
    ZqMachineRoot::set((root / "fresh").string());
    // The letter itself is the folder that it leads to.
    EXPECT_EQ(SxFSAction::ls("C:/").getSize(), 1);
    EXPECT_FALSE(SxFileInfo("C:/").isLink());
}

TEST_F(MachineRootTest, PathsAsWindowsProgramsSeeThem) {
    fs::create_directories(root / "mounted/Data/near");
    fs::create_directory_symlink(root / "mounted/Data", root / "prefix/dosdevices/f:");
    fs::create_directory_symlink("nowhere", root / "prefix/dosdevices/g:");
    fs::create_directory_symlink(root / "prefix/drive_c/Program Files", root / "link");
    fs::create_directories(root / "other");
    std::vector<std::pair<std::string, std::string>> cases = {
        {"prefix/drive_c/Program Files/Game", "C:/Program Files/Game"},
        {"link/Game", "C:/Program Files/Game"},
        {"prefix/drive_c", "C:/"},
        {"mounted/Data/near", "F:/near"}, // nearer than E:
        {"mounted", "E:/"},
        {"other", (root / "other").string()}};
    for (int round = 0; round < 2; ++round) {
        for (const auto& [path, expected] : cases)
            EXPECT_EQ(ZqMachineRoot::windowsPath((root / path).string()), SxString(expected)) << path;
        if (round == 1) break;
        fs::create_directory_symlink("/", root / "prefix/dosdevices/z:");
        cases.back().second = "Z:" + cases.back().second;
    }
    EXPECT_THROW(ZqMachineRoot::windowsPath((root / "missing").string()), SxException);
}

TEST_F(MachineRootTest, NamesBelowAFolderIgnoreCase) {
    dir.write("other/Data/Saves/One", "");
    const std::string folder = (root / "other").string();
    EXPECT_EQ(ZqMachineRoot::hostPathBelow(folder, "data/SAVES/one"), folder + "/Data/Saves/One");
    EXPECT_EQ(ZqMachineRoot::hostPathBelow(folder, "data/New/one"), folder + "/Data/New/one");
}
