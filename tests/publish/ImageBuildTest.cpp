#include "BuildTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "SxProcess.h"
#include "ZqAppParams.h"
#include "ZqDriveFiles.h"
#include "ZqImage.h"
#include "ZqImageCheck.h"
#include "ZqImageParams.h"
#include "ZqImageRaw.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t BLOCK = 4096;
const std::string APP = "TAVRIN-protected/app/";

std::string writeRaw(const TempDir& dir, const std::string& image, const std::string& to) {
    ZqImageRaw job(dir.path(image), dir.path(to));
    return failureOf(job);
}

/// A folder with what file systems treat differently: sizes around a block, holes, many names, links, modes.
std::map<std::string, std::string> sourceFiles() {
    TestRandom random;
    std::map<std::string, std::string> files = {{"empty", ""},
                                                {"one", "1"},
                                                {"block", random.bytes(BLOCK)},
                                                {"block+1", random.bytes(BLOCK + 1)},
                                                {"zeros", std::string(50 * BLOCK, '\0')},
                                                {"bin/run", "#!/bin/sh\n"},
                                                {"save/slot 1", random.bytes(3 * BLOCK + 5)},
                                                {"save/deep/slot 2", random.bytes(200000)},
                                                {"settings.ini", random.bytes(BLOCK)},
                                                {"\u00e4 name/with \"quotes\" \\ and blanks", "x"},
                                                {"content", random.bytes(3'000'000)}};
    std::string gaps = random.bytes(20 * BLOCK);
    gaps.replace(3 * BLOCK, 9 * BLOCK, 9 * BLOCK, '\0');
    files["gaps"] = gaps;
    for (int i = 0; i < 300; ++i)
        files["many/a file with a rather long name, number " + std::to_string(i)] = std::to_string(i);
    return files;
}

void makeSource(const TempDir& dir, const std::string& name, bool reversed = false) {
    const auto files = sourceFiles();
    const auto write = [&](const auto& file) { dir.write(name + "/" + file.first, file.second); };
    if (reversed) {
        std::for_each(files.rbegin(), files.rend(), write);
    } else {
        std::for_each(files.begin(), files.end(), write);
    }
    fs::permissions(dir.path(name + "/bin/run"), fs::perms{0700});
    fs::permissions(dir.path(name + "/one"), fs::perms{0600});
    fs::create_directory(dir.path(name + "/void"));
    fs::create_symlink("../one", dir.path(name + "/bin/link"));
    fs::create_symlink("nowhere", dir.path(name + "/dangling"));
    fs::create_symlink(std::string(100, 'x'), dir.path(name + "/long link"));
    fs::create_hard_link(dir.path(name + "/block"), dir.path(name + "/second name"));
}

int shell(const std::string& command) {
    return SxProcess("/bin/sh", {"-c", SxString("PATH=$PATH:/usr/sbin:/sbin; " + command)}, SxProcess::Silent)
        .run();
}

class Build : public testing::TestWithParam<ZqDriveMaker::FileSystem> {
protected:
    ZqImageBuild::Options options() const {
        ZqImageBuild::Options what;
        what.fileSystem = GetParam();
        return what;
    }

    /// Reads the drive without mounting it: writes its files below `to`.
    void extract(const std::string& raw, const std::string& to) const {
        const std::string from = "'" + dir.path(raw) + "'", target = "'" + dir.path(to) + "'";
        fs::create_directory(dir.path(to));
        switch (GetParam()) {
        case ZqDriveMaker::Erofs:
            ASSERT_EQ(shell("fsck.erofs --preserve-perms --extract=" + target + " --overwrite " + from), 0);
            break;
        case ZqDriveMaker::Ext4:
            ASSERT_EQ(shell("e2fsck -fn " + from), 0);
            ASSERT_EQ(shell("debugfs -R \"rdump / " + dir.path(to) + "\" " + from), 0);
            fs::remove_all(dir.path(to + "/lost+found"));
            break;
        default:
            ASSERT_EQ(shell("unsquashfs -f -d " + target + " " + from), 0);
        }
    }

    const TempDir dir;
};

/// All of the RAW image that lies below ZqF block `end`; the rest is no zeros but rubbish.
std::string rawOfPrefix(const TempDir& dir, uint64 end) {
    const std::string zqf = dir.read("image/img.zqf");
    const SxArray<uint64> map = ZqImage(SxString(dir.path("image/"))).getMap();
    std::string raw;
    for (const uint64 zqfIdx : map) {
        if (zqfIdx == ZqImage::NO_ENTRY)
            raw += std::string(BLOCK, '\0');
        else
            raw += zqfIdx < end ? zqf.substr(zqfIdx * BLOCK, BLOCK) : std::string(BLOCK, '\xEE');
    }
    return raw;
}

TEST_P(Build, TheDriveHoldsTheFolder) {
    makeSource(dir, "source");
    ZqImageBuild::Options what = options();
    what.rawDir = dir.path("kept");
    ASSERT_EQ(build(dir, what), "");
    EXPECT_EQ(contentOf(dir, "image").size(), GetParam() == ZqDriveMaker::Squashfs ? 4U : 5U);
    EXPECT_EQ(dir.snapshot("kept").size(), 1U);
    ASSERT_EQ(writeRaw(dir, "image", "raw"), "");
    const std::string raw = dir.read("raw/img.raw");
    EXPECT_TRUE(raw == dir.read("kept/img.raw"));

    ASSERT_NO_FATAL_FAILURE(extract("raw/img.raw", "drive"));
    EXPECT_EQ(dir.snapshot("drive/" + APP), dir.snapshot("source"));
    EXPECT_EQ(dir.snapshot("drive").size(), dir.snapshot("source").size() + 3);
    EXPECT_NE(dir.read("drive/gxprefetch.info"), "");
    const std::pair<std::string, unsigned> modes[] = {{"one", 0644}, {"bin/run", 0755}, {"bin", 0755}};
    for (const auto& [name, mode] : modes)
        EXPECT_EQ(static_cast<unsigned>(fs::status(dir.path("drive/" + APP + name)).permissions()), mode)
            << name;

    const ZqAppParams app(SxString(dir.path("image/")));
    const ZqImageParams image(SxString(dir.path("image/")));
    EXPECT_EQ(app.checksumMnt, SxMd5::get(SxString(raw)));
    EXPECT_EQ(static_cast<uint64>(image.sizeRaw), raw.size());
    EXPECT_EQ(image.filesystem, "none");
    EXPECT_EQ(image.volume, ZqDriveMaker::typeToString(GetParam()));
    EXPECT_THAT(image.guid.str(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-3[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    uint64 nUsed = 0;
    for (size_t at = 0; at < raw.size(); at += BLOCK)
        nUsed += raw.compare(at, BLOCK, std::string(BLOCK, '\0')) != 0;
    EXPECT_EQ(app.sizeZqf, nUsed * BLOCK) << "zeros are included, or other blocks aren't";
    ZqImageCheck check(dir.path("image"));
    EXPECT_EQ(failureOf(check), "");
    EXPECT_TRUE(check.getFaults().isEmpty());
    EXPECT_FALSE(check.isPartial());
}

TEST_P(Build, TheFirstBlockTellsTheVolumeOfAnOlderImage) {
    makeSource(dir, "source");
    ASSERT_EQ(build(dir, options()), "");
    const auto volume = [&] {
        return ZqDriveFiles::volumeOf(dir.path("image"), ZqImageInfo(dir.path("image")));
    };
    ZqImageParams record(SxString(dir.path("image/")));
    record.volume = SxString();
    record.write();
    EXPECT_EQ(volume(), ZqDriveMaker::typeToString(GetParam()));
    fs::resize_file(dir.path("image/img.zqf"), BLOCK - 1);
    EXPECT_EQ(volume(), "");
    fs::remove(dir.path("image/img.zqf"));
    EXPECT_EQ(volume(), "");
    record.volume = "noted";
    record.write();
    EXPECT_EQ(volume(), "noted");
    // Whatever stands there.
    record.volume = SxString();
    record.write();
    dir.write("image/img.zqf", std::string(BLOCK, '\x55'));
    EXPECT_EQ(volume(), "");
}

TEST_P(Build, LinksThatLeadOutGiveWayToWhatTheyLeadTo) {
    const auto link = [&](const std::string& to, const std::string& at) {
        fs::create_symlink(to, dir.path(at));
    };
    // The same tree by links and by hand.
    for (const std::string tree : {"source/", "expected/"}) {
        dir.write(tree + "own", "own");
        link("own", tree + "inside");
        link("nowhere", tree + "dangling");
        fs::permissions(dir.write(tree + "bin/run", "#!/bin/sh\n"), fs::perms{0755});
    }
    for (const std::string shared : {"shared/", "expected/data/"}) {
        dir.write(shared + "level 1/map", std::string(2 * BLOCK + 1, 'm'));
        link("level 1/map", shared + "first");
        link("../first", shared + "level 1/again");
    }
    dir.write("beside/sound", "s");
    link(dir.path("beside"), "shared/level 1/sounds");
    dir.write("expected/data/level 1/sounds/sound", "s");
    link("../shared", "source/data");
    link(dir.path("beside/sound"), "source/one sound");
    dir.write("expected/one sound", "s");
    link(dir.path("source/own"), "source/absolute");
    dir.write("expected/absolute", "own");

    ZqImageBuild::Options what = options();
    what.followsLinks = true;
    ASSERT_EQ(build(dir, what), "");
    ASSERT_EQ(writeRaw(dir, "image", "raw"), "");
    ASSERT_NO_FATAL_FAILURE(extract("raw/img.raw", "drive"));
    EXPECT_EQ(dir.snapshot("drive/" + APP), dir.snapshot("expected"));
    ASSERT_EQ(build(dir, options(), "expected", "plain"), "");
    EXPECT_TRUE(dir.read("plain/img.zqf") == dir.read("image/img.zqf"));
}

TEST_P(Build, OwnersTimesAndPlaceDontCount) {
    makeSource(dir, "source");
    makeSource(dir, "elsewhere/other", true);
    for (const auto& entry : fs::recursive_directory_iterator(dir.path("elsewhere/other"))) {
        if (!entry.is_symlink())
            fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::hours(99));
        // Only root can give files away.
        if (::geteuid() == 0) {
            EXPECT_EQ(::lchown(entry.path().c_str(), 1234, 567), 0);
        }
    }
    ASSERT_EQ(build(dir, options()), "");
    ASSERT_EQ(build(dir, options(), "elsewhere/other", "again"), "");
    EXPECT_EQ(contentOf(dir, "again"), contentOf(dir, "image"));

    dir.write("source/one", "2");
    ASSERT_EQ(build(dir, options()), "");
    EXPECT_FALSE(dir.read("again/img.json") == dir.read("image/img.json"))
        << "another drive has the same guid";
}

TEST_P(Build, ThePrefixServesAMount) {
    makeSource(dir, "source");
    ZqAppParams record;
    record.dirmap = {"app/save", "app/not there"};
    record.filemap = {"app\\settings.ini"};
    record.write(SxString(dir.path()) + "/");
    ZqImageBuild::Options what = options();
    what.appTemplate = dir.path("app.json");
    ASSERT_EQ(build(dir, what), "");
    const ZqAppParams app(SxString(dir.path("image/")));
    ASSERT_GT(app.sizeMnt, 200000U);
    EXPECT_LT(app.sizeMnt, 900000U) << "content that no mount reads";

    dir.write("prefix.raw", rawOfPrefix(dir, app.sizeMnt / BLOCK));
    const std::vector<std::string> needed = {"gxprefetch.info", APP + "settings.ini", APP + "save/slot 1",
                                             APP + "save/deep/slot 2"};
    ASSERT_EQ(writeRaw(dir, "image", "."), "");
    ASSERT_NO_FATAL_FAILURE(extract("img.raw", "drive"));
    if (GetParam() == ZqDriveMaker::Squashfs) {
        // It stops at content that can't be unpacked.
        ASSERT_EQ(shell("unsquashfs -f -d '" + dir.path("early") + "' '" + dir.path("prefix.raw") +
                        "' gxprefetch.info '" + APP + "settings.ini' '" + APP + "save'"),
                  0);
    } else {
        ASSERT_NO_FATAL_FAILURE(extract("prefix.raw", "early"));
        const TreeSnapshot all = dir.snapshot("drive"), early = dir.snapshot("early");
        ASSERT_EQ(early.size(), all.size());
        for (const auto& [path, mark] : all) {
            ASSERT_TRUE(early.contains(path)) << path;
            EXPECT_EQ(early.at(path).size, mark.size) << path;
        }
    }
    for (const std::string& path : needed)
        EXPECT_TRUE(dir.read("early/" + path) == dir.read("drive/" + path)) << path;
}

INSTANTIATE_TEST_SUITE_P(Publish, Build,
                         testing::Values(ZqDriveMaker::Erofs, ZqDriveMaker::Ext4, ZqDriveMaker::Squashfs),
                         [](const auto& instance) {
                             return ZqDriveMaker::typeToString(instance.param).str();
                         });

/// A small folder beside an old image.
void makeSmall(const TempDir& dir) {
    dir.write("source/a", "a");
    dir.write("source/b/c", std::string(2 * BLOCK, 'c'));
    for (const std::string name : {"app.json", "img.json", "img.idx", "img.zqf", "img.idx.md5"})
        dir.write("watched/image/" + name, "old");
}

} // namespace

TEST(ImageBuild, TemplateAndOptionsMakeTheRecord) {
    const TempDir dir;
    dir.write("source/bin/game", "x");
    ZqAppParams record;
    record.guid = "identity";
    record.cmd = "old";
    record.args = {"old"};
    record.window = "Window";
    record.access = {"Steam"};
    record.mountMode = ZqDriveKinds::ReadTWLayer;
    record.sizeZqf = record.sizeMnt = 1;
    record.write(SxString(dir.path()) + "/");
    fs::rename(dir.path("app.json"), dir.path("template"));

    ZqImageBuild::Options what;
    what.appTemplate = dir.path("template");
    what.cmd = "./bin//game";
    what.args = {"-x", "y z"};
    what.name = "game";
    ASSERT_EQ(build(dir, what), "");
    const ZqAppParams app(SxString(dir.path("image/")));
    EXPECT_EQ(app.guid, "identity");
    EXPECT_EQ(app.cmd, "{{ZQDRIVE}}/TAVRIN-protected/app/bin/game");
    EXPECT_EQ(app.args, what.args);
    EXPECT_EQ(app.name, "game");
    EXPECT_EQ(app.window, "Window");
    EXPECT_EQ(app.access, record.access);
    EXPECT_EQ(app.mountMode, ZqDriveKinds::ReadTWLayer);
    EXPECT_GT(app.sizeMnt, 1U);

    const std::pair<std::string, std::string> commands[] = {
        {"", ""}, {"wine", "wine"}, {"/bin/sh", "/bin/sh"}, {"{{ZQDRIVE}}/x/y", "{{ZQDRIVE}}/x/y"}};
    for (const auto& [given, expected] : commands) {
        ZqImageBuild::Options plain;
        plain.cmd = given;
        ASSERT_EQ(build(dir, plain), "");
        const ZqAppParams made(SxString(dir.path("image/")));
        EXPECT_EQ(made.cmd.str(), expected);
        EXPECT_EQ(made.guid, ZqImageParams(SxString(dir.path("image/"))).guid);
    }
}

TEST(ImageBuild, AWritableDriveHasRoomAndInodesForFiles) {
    const TempDir dir;
    makeSmall(dir);
    for (int i = 0; i < 3000; ++i)
        dir.write("source/many/" + std::to_string(i), "x");
    const auto number = [](const std::string& raw, size_t at) {
        uint32_t value = 0;
        std::memcpy(&value, raw.data() + at, sizeof value);
        return uint64{value};
    };
    constexpr uint64 MIB = 1 << 20;
    for (const uint64 asked : {uint64{0}, MIB, 100 * MIB, 1500 * MIB + 1}) {
        SCOPED_TRACE(asked);
        ZqImageBuild::Options what;
        what.fileSystem = ZqDriveMaker::Ext4;
        what.freeBytes = asked;
        what.rawDir = dir.path("kept");
        ASSERT_EQ(build(dir, what), "");
        std::ifstream file(dir.path("kept/img.raw"), std::ios::binary);
        std::string super(2048, '\0');
        ASSERT_TRUE(file.read(super.data(), 2048));
        const uint64 nFree = number(super, 1024 + 12) * BLOCK, nInodes = number(super, 1024 + 16);
        EXPECT_GE(nFree, std::max(asked, 16 * MIB));
        EXPECT_LT(nFree, std::max(asked, 16 * MIB) * 11 / 10 + 40 * MIB);
        EXPECT_GE(nInodes, std::max<uint64>(65536, asked / 16384));
        EXPECT_EQ(shell("e2fsck -fn '" + dir.path("kept/img.raw") + "'"), 0);
    }
}

TEST(ImageBuild, SocketsArePassedOver) {
    const TempDir dir;
    dir.write("source/a", "a");
    ASSERT_EQ(::mkfifo(dir.path("source/pipe").c_str(), 0600), 0);
    ZqImageBuild job(dir.path("image"), dir.path("source"), {});
    EXPECT_EQ(failureOf(job), "");
    EXPECT_EQ(job.getNSkipped(), 1);
    EXPECT_EQ(job.getNFiles(), 1);
}

TEST(ImageBuild, FailuresNameTheCauseAndChangeNothing) {
    using Options = ZqImageBuild::Options;
    struct Case {
        const char* name;
        std::function<void(const TempDir&, Options*)> prepare;
        std::vector<std::string> says;
    };
    const auto link = [](const char* name, const char* to) {
        return [=](const TempDir& dir, Options*) {
            fs::create_directory_symlink(to, dir.path(std::string("source/") + name));
        };
    };
    const auto followed = [](const char* to) {
        return [=](const TempDir& dir, Options* what) {
            dir.write("out/one/file", "1");
            fs::create_directory_symlink("../two", dir.path("out/one/two"));
            fs::create_directory(dir.path("out/two"));
            fs::create_directory_symlink(dir.path("out/one"), dir.path("out/two/one"));
            const std::string target = *to == '/' ? to : dir.path(to);
            fs::create_directory_symlink(target, dir.path("source/b/link"));
            what->followsLinks = true;
        };
    };
    const auto tool = [](const std::string& script) {
        return [=](const TempDir& dir, Options*) {
            fs::permissions(dir.write("bin/mkfs.erofs", "#!/bin/sh\n" + script + "\n"), fs::perms{0755});
        };
    };
    const Case cases[] = {
        {"no folder",
         [](const TempDir& dir, Options*) { fs::remove_all(dir.path("source")); },
         {"/source/' is not a folder"}},
        {"absolute link", link("b/link", "/usr"), {"symbolic link", "source/b/link' leads out", "to '/usr'"}},
        {"link that climbs", link("b/link", "../../source/a"), {"leads out of the folder"}},
        {"link by way of a link",
         [](const TempDir& dir, Options*) {
             dir.write("source/d/e/f", "");
             fs::create_directory_symlink("d/e", dir.path("source/way"));
             fs::create_directory_symlink("way/../../../watched", dir.path("source/x y"));
         },
         {"leads out of the folder"}},
        {"several links that lead out",
         [](const TempDir& dir, Options*) {
             fs::create_directory_symlink("/usr", dir.path("source/x"));
             fs::create_directory_symlink("../../none", dir.path("source/b/y"));
             fs::create_directory_symlink("../a", dir.path("source/b/inside"));
         },
         {"2 symbolic links lead out of the folder '", "--follow-links", "/source/b/y' to '../../none': '",
          "/source/x' to '/usr'"}},
        {"more of them than are named",
         [](const TempDir& dir, Options*) {
             for (int i = 0; i < 1002; ++i)
                 fs::create_symlink("/usr", dir.path("source/x" + std::to_string(i)));
         },
         {"1002 symbolic links lead out of the folder '", "' to '/usr', and 2 others"}},
        {"nothing to follow",
         followed("none"),
         {"source/b/link' to '", "can't be followed: there is nothing"}},
        {"nothing to follow, twice",
         [](const TempDir& dir, Options* what) {
             for (const char* name : {"x", "b/y"})
                 fs::create_symlink("/none", dir.path(std::string("source/") + name));
             what->followsLinks = true;
         },
         {"2 symbolic links in the folder '", "can't be followed", "/source/b/y' to '/none'",
          "/source/x' to"}},
        {"a device to follow", followed("/dev/null"), {"to '/dev/null' can't be followed: that is a device"}},
        {"a folder above", followed(""), {"source/b/link' to '", "it leads to a folder that holds the link"}},
        {"the root", followed("/"), {"to '/' can't be followed: it leads to a folder that holds the link"}},
        {"a circle of two", followed("out/one"), {"/out/two/one' to '", "it leads to a folder that holds"}},
        {"into the image", followed("watched/image/app.json"), {"lie in each other"}},
        {"link loop", link("b/link", "link"), {"source/b/link' leads back into itself"}},
        {"nothing in the folder",
         [](const TempDir& dir, Options*) {
             fs::remove_all(dir.path("source"));
             fs::create_directories(dir.path("source/only/folders"));
         },
         {"/source/' holds no file"}},
        {"no such template",
         [](const TempDir&, Options* what) { what->appTemplate = "/none/t.json"; },
         {"Failed to read file /none/t.json"}},
        {"no such command",
         [](const TempDir&, Options* what) { what->cmd = "b/game"; },
         {"The command 'b/game' is no file of the folder"}},
        {"rw",
         [](const TempDir& dir, Options* what) {
             ZqAppParams record;
             record.mountMode = ZqDriveKinds::ReadWrite;
             record.write(SxString(dir.path()) + "/");
             what->appTemplate = dir.path("app.json");
         },
         {"'rw' needs the file system ext4"}},
        {"room on a drive that isn't written to",
         [](const TempDir&, Options* what) { what->freeBytes = 1; },
         {"needs the file system ext4; nothing is written to erofs"}},
        {"more room than the file system has blocks",
         [](const TempDir&, Options* what) {
             what->fileSystem = ZqDriveMaker::Ext4;
             what->freeBytes = (uint64{1} << 42) + 1;
         },
         {"at most 4398046511104 bytes"}},
        {"raw in the image",
         [](const TempDir& dir, Options* what) { what->rawDir = dir.path("watched/image/raw"); },
         {"lie in each other"}},
        {"tool missing",
         [](const TempDir&, Options*) { ::setenv("PATH", "/none", 1); },
         {"'mkfs.erofs' isn't installed", "erofs-utils"}},
        {"tool fails",
         tool("echo out of luck >&2; exit 3"),
         {"Cannot make a drive of the folder", "'mkfs.erofs' failed with exit code 3: out of luck"}},
        {"tool makes nothing", tool("exit 0"), {"img.raw"}},
        {"tool makes something else",
         tool("for a; do b=$c; c=$a; done; yes | head -c 9000 >$b"),
         {"holds no EROFS"}},
    };
    const std::string path = std::getenv("PATH");
    for (const Case& failing : cases) {
        SCOPED_TRACE(failing.name);
        const TempDir dir;
        makeSmall(dir);
        ::setenv("PATH", (dir.path("bin") + ":" + path).c_str(), 1);
        ZqImageBuild::Options what;
        what.rawDir = dir.path("watched/raw");
        failing.prepare(dir, &what);
        const TreeSnapshot before = contentOf(dir);
        const std::string failure = build(dir, what, "source", "watched/image");
        ::setenv("PATH", path.c_str(), 1);
        for (const std::string& part : failing.says)
            EXPECT_THAT(failure, HasSubstr(part));
        EXPECT_EQ(contentOf(dir), before);
    }
}

TEST(ImageBuild, TheUmaskSaysWhoMayReadIt) {
    for (const mode_t mask : {mode_t{0022}, mode_t{0077}}) {
        const TempDir dir;
        dir.write("source/a", "a");
        const mode_t old = ::umask(mask);
        const std::string failure = build(dir);
        if (failure.empty()) ZqImage(SxString(dir.path("image/"))).split(BLOCK, false, nullptr);
        const auto modeOf = [&](const std::string& name) {
            return static_cast<unsigned>(fs::status(dir.path("image/" + name)).permissions());
        };
        EXPECT_EQ(failure, "");
        for (const std::string name : {"img.idx", "img.json", "app.json", "img.zqf.part1", "img.zqf.info"})
            EXPECT_EQ(modeOf(name), 0644U & ~mask) << name;
        ZqImage(SxString(dir.path("image/"))).join(nullptr);
        EXPECT_EQ(modeOf("img.zqf"), 0644U & ~mask);
        // A player's file stays his own.
        fs::permissions(dir.path("image/img.zqf"), fs::perms{0600});
        ZqImage(SxString(dir.path("image/"))).split(BLOCK, true, nullptr);
        EXPECT_EQ(modeOf("img.zqf.part1.zstd"), 0600U);
        ::umask(old);
    }
}

TEST(ImageBuild, WithoutSecondNamesFilesAreCopied) {
    const TempDir dir;
    makeSmall(dir);
    ASSERT_EQ(build(dir), "");
    fs::create_directory(dir.path("copied"));
    FaultOs os(dir.path("copied"));
    os.failNth(Op::Link, 1, EPERM, "", true);
    ASSERT_EQ(build(dir, {}, "source", "copied"), "");
    EXPECT_GT(os.getNFailed(), 0);
    EXPECT_EQ(contentOf(dir, "copied"), contentOf(dir, "image"));
}

TEST(ImageBuild, AskedToStopItEndsTheTool) {
    const TempDir dir;
    makeSmall(dir);
    const std::string path = std::getenv("PATH");
    fs::permissions(dir.write("bin/mkfs.erofs", "#!/bin/sh\n>'" + dir.path("begun") + "'\nexec sleep 1000\n"),
                    fs::perms{0755});
    ::setenv("PATH", (dir.path("bin") + ":" + path).c_str(), 1);
    const TreeSnapshot before = contentOf(dir);
    ZqImageBuild job(dir.path("watched/image"), dir.path("source"), {});
    job.start();
    while (!dir.exists("begun") && job.isRunning())
        ::usleep(1000);
    job.stop();
    job.wait();
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(job.hasException() && job.getException().hasTag(SxException::STOPPED));
    EXPECT_EQ(contentOf(dir), before);
}
