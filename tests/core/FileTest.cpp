#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "TempDir.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(FileInfo, PathsGoWhereTheSystemGoes) {
    const TempDir dir;
    fs::create_directories(dir.path("a/b/c"));
    fs::create_directory_symlink("a/b/c", dir.path("link"));
    const std::string base = dir.path();
    const std::pair<std::string, std::string> cases[] = {
        {base + "/link/../x", base + "/a/b/x"}, {base + "/a/./b//../x/", base + "/a/x"},
        {base + "/none/../x", base + "/x"},     {"/../..", "/"},
        {"E:\\x\\..\\y/z", "E:/y/z"},           {"E:/../..", "E:/"},
    };
    for (const auto& [path, expected] : cases) {
        EXPECT_EQ(SxFileInfo(path).getAbsPath(), expected.c_str()) << path;
    }
    EXPECT_EQ(SxFileInfo("/").getPath(), "/");
    EXPECT_EQ(SxFileInfo("E:/").getPath(), "E:/");
    EXPECT_EQ(SxFileInfo("/a/b/").getName(), "b");
    EXPECT_THROW(SxFileInfo(base + "/a").getRelPath(base + "/a/b"), SxException);
    EXPECT_THROW(SxFileInfo(SxString(std::string("a\0b", 3))).isFile(), SxException);
}

TEST(FSAction, FindTakesInSubFoldersAndRefusesLoops) {
    const TempDir dir;
    for (const char* name : {"b.item", "a/x.item", "a/.hidden.item", "a/d.item/y.txt", "a.txt"})
        dir.write(name, "1");
    fs::create_directory_symlink("a", dir.path("to-a"));
    fs::create_symlink("none", dir.path("dangling.item"));
    std::string names;
    for (const SxFileInfo& info : SxFSAction::find(dir.prefix() + "*.item", false))
        names += info.getRelPath(dir.path()).str() + " ";
    EXPECT_EQ(names, "a/.hidden.item a/d.item a/x.item b.item dangling.item ");
    for (const char* target : {"..", ".", "loop"}) {
        fs::create_symlink(target, dir.path("a/loop"));
        EXPECT_THROW(SxFSAction::find(dir.prefix() + "*", false), SxException) << target;
        fs::remove(dir.path("a/loop"));
    }
}

TEST(FSAction, CopiesAndRemovals) {
    const TempDir dir;
    dir.write("tree/sub/file", "bytes");
    fs::permissions(dir.path("tree/sub/file"), fs::perms(06750));
    fs::create_symlink("sub/file", dir.path("tree/link"));
    SxFSAction::cp(dir.path("tree"), dir.path("copy"));
    EXPECT_EQ(dir.snapshot("copy"), dir.snapshot("tree"));
    EXPECT_EQ(fs::status(dir.path("copy/sub/file")).permissions(), fs::perms(0750));
    // A file that is copied onto itself, by whatever name, keeps its bytes.
    fs::create_hard_link(dir.path("tree/sub/file"), dir.path("other"));
    for (const char* same : {"tree/sub/file", "tree/link", "other"}) {
        EXPECT_THROW(SxFSAction::cp(dir.path("tree/sub/file"), dir.path(same)), SxException) << same;
    }
    EXPECT_EQ(dir.read("tree/sub/file"), "bytes");
    fs::create_directory_symlink(dir.path("tree"), dir.path("copy/out"));
    SxFSAction::rm_r(dir.path("copy"));
    EXPECT_TRUE(dir.exists("tree/sub/file") && !dir.exists("copy"));
    EXPECT_THROW(SxFSAction::rm_r(dir.path("copy")), SxException);
}

TEST(FileIO, ReadsStopAtTheEnd) {
    const TempDir dir;
    SxFileIO file(dir.write("f", "one\ntwo\n\nfour!"), "rb");
    EXPECT_EQ(SxString::join(file.readLines(2), "|"), "one|two");
    EXPECT_EQ(SxString::join(file.readLines(0), "|"), "|four!");
    file.seek(-5, SxFileIO::SeekEnd);
    EXPECT_EQ(SxString::join(file.readLines(0), "|"), "four!");
    SxArray<uint64> words;
    file.seek(0);
    file.read(&words, 100);
    EXPECT_EQ(words.getSize(), 1); // never more than whole elements of what is left
    EXPECT_THROW(file.seek(-1), SxException);
}

TEST(FSAction, NoLinkIsFollowedToWhatItLeadsTo) {
    const TempDir dir;
    dir.write("kept/file", "bytes");
    fs::create_directory_symlink("kept", dir.path("link"));
    SxFSAction::rm_r(dir.path("link/"));
    EXPECT_FALSE(dir.exists("link"));
    EXPECT_THROW(SxFSAction::rm_r("/"), SxException);
    // A new file takes the place of a link, and of another name of a file.
    fs::create_symlink("kept/file", dir.path("soft"));
    fs::create_hard_link(dir.path("kept/file"), dir.path("hard"));
    for (const char* name : {"soft", "hard"}) {
        SxFileIO file;
        file.create(dir.path(name));
        file.write(SxString("new"));
        EXPECT_EQ(dir.read(name), "new");
    }
    EXPECT_EQ(dir.read("kept/file"), "bytes");
}

TEST(FileIO, WhatIsNoPlainFileIsRefusedAtOnce) {
    const TempDir dir;
    ASSERT_EQ(mkfifo(dir.path("pipe").c_str(), 0600), 0);
    for (const std::string& path : {dir.path("pipe"), dir.path(), std::string("/dev/null")}) {
        for (const char* mode : {"rb", "r+b", "wb"}) {
            EXPECT_THROW(SxFileIO(path, mode), SxException) << path << " " << mode;
        }
    }
}

TEST(FileIO, AtomicWritersOfOneFileDontMeet) {
    const TempDir dir;
    const std::string file = dir.path("file");
    constexpr int N_WRITERS = 3, N_ROUNDS = 40, N_BYTES = 300'000;
    SxFileIO::writeAtomic(file, SxString(std::string(N_BYTES, 'x')));
    std::vector<pid_t> children;
    for (int writer = 0; writer < N_WRITERS; ++writer) {
        const pid_t child = ::fork();
        if (child == 0) {
            int code = 0;
            try {
                const SxString half(std::string(N_BYTES / 2, static_cast<char>('a' + writer)));
                for (int round = 0; round < N_ROUNDS; ++round) {
                    SxFileIO::writeAtomic(file, [&](SxFileIO* out) {
                        out->write(half);
                        out->write(half);
                    });
                }
            } catch (const SxException&) {
                code = 1;
            }
            ::_exit(code);
        }
        children.push_back(child);
    }
    for (size_t nEnded = 0; nEnded < children.size();) {
        const std::string text = dir.read("file");
        ASSERT_EQ(text.size(), size_t{N_BYTES}) << "a file was renamed that another one still writes";
        EXPECT_EQ(text, std::string(N_BYTES, text[0]));
        int status = 0;
        while (nEnded < children.size() &&
               ::waitpid(children[nEnded], &status, WNOHANG) == children[nEnded]) {
            EXPECT_EQ(status, 0) << "a writer failed";
            ++nEnded;
        }
    }
    EXPECT_EQ(dir.snapshot().size(), 1U);
}

TEST(FileIO, WhatAKilledWriterLeftGoesWithTheNext) {
    const TempDir dir;
    const std::string file = dir.path("file");
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            SxFileIO::writeAtomic(file, [](SxFileIO* out) {
                out->write(SxString("half"));
                ::kill(::getpid(), SIGKILL);
            });
        } catch (const SxException&) {
        }
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(dir.snapshot().size(), 1U);
    // Others' files that only look alike, and one that is being written, stay.
    for (const char* name :
         {"file.tmp", "file.0123456.tmp", "file.0123456z.tmp", "other.01234567.tmp", "file.01234567.tmp2"})
        dir.write(name, "x");
    SxFileIO::writeAtomic(file, [&](SxFileIO* out) {
        SxFileIO::writeAtomic(file, SxString("inner"));
        out->write(SxString("outer"));
    });
    EXPECT_EQ(dir.read("file"), "outer");
    EXPECT_EQ(dir.snapshot().size(), 6U);
}
