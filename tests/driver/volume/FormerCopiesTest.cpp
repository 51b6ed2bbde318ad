#include "FormerCopies.h"
#include "DriveImage.h"
#include "SxException.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

namespace {

constexpr const char* OPAQUE = "trusted.overlay.opaque";

/// A private side beside a volume, as an overlay leaves it.
class Side {
public:
    Side() {
        std::filesystem::create_directories(dir.path("volume/sub"));
        std::filesystem::create_directories(dir.path("g/own/sub"));
    }
    /// What a mount of this version does; `nBegun`: 0, or the last step that is carried out.
    std::string mount(const std::string& version, int nBegun = 0) const {
        FormerCopies copies(dir.path("g/own"), version);
        if (copies.isDue()) {
            copies.begin();
            if (nBegun == 1) return {};
            copies.move(dir.path("volume"), {}, {{"kept"}, {"sub", "kept"}});
            if (nBegun == 2) return {};
        }
        copies.finish();
        return copies.getMovedTo();
    }
    void removal(const std::string& name) const {
        ASSERT_EQ(::mknod(dir.path(name).c_str(), S_IFCHR, ::makedev(0, 0)), 0);
    }
    bool isRemoval(const std::string& name) const {
        struct stat info = {};
        return ::lstat(dir.path(name).c_str(), &info) == 0 && S_ISCHR(info.st_mode);
    }
    std::vector<std::string> former() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path("g"))) {
            const std::string name = entry.path().filename();
            if (name.starts_with("own-former-")) found.push_back("g/" + name + "/");
        }
        return found;
    }

    TempDir dir;
};

TEST(FormerCopies, OnlyWhatHidesSomethingMoves) {
    if (::geteuid() != 0) GTEST_SKIP() << "an overlay's marks are root's";
    Side side;
    side.mount("a");
    for (const char* name : {"kept", "both", "sub/kept", "sub/both"}) {
        side.dir.write("volume/" + std::string(name), "volume");
        side.dir.write("g/own/" + std::string(name), "private");
    }
    side.dir.write("g/own/only", "private");
    // A folder where the volume has a file, a file where it has a folder, links on either side.
    side.dir.write("volume/turned", "volume");
    side.dir.write("g/own/turned/inside", "private");
    side.dir.write("volume/back/inside", "volume");
    side.dir.write("g/own/back", "private");
    std::filesystem::create_directory_symlink(side.dir.path("volume"), side.dir.path("volume/link"));
    side.dir.write("g/own/link/both", "private");
    std::filesystem::create_directory_symlink(side.dir.path("volume"), side.dir.path("g/own/dangling"));
    // Marks, also in a folder that the volume lacks now.
    side.removal("g/own/gone");
    side.dir.write("g/own/dropped/save", "private");
    side.removal("g/own/dropped/gone");
    ASSERT_EQ(::setxattr(side.dir.path("g/own/sub").c_str(), OPAQUE, "y", 1, 0), 0);

    EXPECT_EQ(side.mount("a"), "") << "the same version";
    EXPECT_EQ(side.dir.read("g/own/both"), "private");
    const std::string movedTo = side.mount("b"), to = side.former().at(0);
    EXPECT_EQ(movedTo + "/", side.dir.path(to));
    for (const char* name : {"kept", "sub/kept", "only", "dropped/save"})
        EXPECT_EQ(side.dir.read("g/own/" + std::string(name)), "private") << name;
    EXPECT_TRUE(side.dir.exists("g/own/dangling"));
    for (const char* name : {"both", "sub/both", "turned", "back", "link", "gone", "dropped/gone"}) {
        EXPECT_FALSE(side.dir.exists("g/own/" + std::string(name))) << name;
        EXPECT_TRUE(side.dir.exists(to + name)) << name;
    }
    EXPECT_EQ(side.dir.read(to + "turned/inside"), "private");
    EXPECT_TRUE(side.isRemoval(to + "dropped/gone"));
    char value[8];
    EXPECT_LT(::getxattr(side.dir.path("g/own/sub").c_str(), OPAQUE, value, sizeof value), 0);
    EXPECT_EQ(::getxattr(side.dir.path(to + "sub").c_str(), OPAQUE, value, sizeof value), 1);
    EXPECT_EQ(side.dir.read("volume/both"), "volume");
}

TEST(FormerCopies, WhatWasCutOffIsGoneOnWithInTheSameFolder) {
    for (const int nBegun : {1, 2}) {
        SCOPED_TRACE(nBegun);
        Side side;
        side.mount("a");
        for (const char* name : {"one", "sub/two"}) {
            side.dir.write("volume/" + std::string(name), "volume");
            side.dir.write("g/own/" + std::string(name), "private");
        }
        side.mount("b", nBegun);
        if (nBegun == 2) side.dir.write("g/own/one", "put back");
        side.mount("b");
        ASSERT_EQ(side.former().size(), 1U);
        const std::string to = side.former().at(0);
        EXPECT_EQ(side.dir.read(to + "one"), "private");
        EXPECT_EQ(side.dir.read(to + "sub/two"), "private");
        if (nBegun == 2) {
            EXPECT_EQ(side.dir.read(to + "one.2"), "put back") << "nothing is replaced";
        }
        side.dir.write("g/own/one", "of b");
        EXPECT_EQ(side.mount("b"), "");
        EXPECT_EQ(side.dir.read("g/own/one"), "of b");
    }
}

TEST(FormerCopies, AVersionThatIsNotKnownMovesNothing) {
    Side side;
    side.dir.write("volume/one", "volume");
    side.dir.write("g/own/one", "private");
    EXPECT_EQ(side.mount(""), "");
    EXPECT_EQ(side.mount("a"), "") << "no note tells what it was made on";
    EXPECT_EQ(side.mount(""), "");
    EXPECT_EQ(side.dir.read("g/own/one"), "private");
    EXPECT_NE(side.mount("b"), "") << "the note outlives a mount without a version";
    // A note that somebody else has written leads nowhere else.
    for (const char* folder : {"..", "../volume", "own", ""}) {
        side.dir.write("g/own/one", "private");
        side.dir.write("g/.own.tavrin-version", std::string("version c\nmoving to ") + folder + "\n");
        const std::string to = side.mount("c");
        if (*folder) {
            EXPECT_TRUE(to.starts_with(side.dir.path("g/own-former-"))) << to;
        }
        EXPECT_EQ(side.dir.read("volume/one"), "volume");
    }
}

} // namespace
