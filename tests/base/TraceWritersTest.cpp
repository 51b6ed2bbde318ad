#include "BaseTest.h"
#include "TraceMaking.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"

#include <csignal>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

// Who may write a trace, and what a writer that was cut off leaves.

TEST(TraceWriters, WhatADriveRecordsIntoIsNotTouched) {
    const TempDir dir;
    const SxString live = makeTrace(dir, "live", at({{1, 1}, {2, 2}, {1, 3}}));
    const SxString other = makeTrace(dir, "other", at({{2, 0}}));
    SxFileIO recorder(live + "img.trc", "r+b");
    ASSERT_EQ(SxOs::get().lockRange(recorder.getFd(), 0, 1, SxOs::Lock::Exclusive), 0);
    fs::create_directory_symlink(dir.path("live"), dir.path("link"));
    const TreeSnapshot before = dir.snapshot();
    for (const SxString& path : {live, SxString(dir.path("link/")), SxString(dir.path("other/../live/"))}) {
        const std::function<void()> actions[] = {
            [&] { ZqTrace(path).dropTime(2, 2); },
            [&] { ZqTrace(path).shift(1); },
            [&] { ZqTrace(path).align(other); },
            [&] { ZqTrace(other).trim(path); },
            [&] { ZqTrace(other).append(other, path, 0); },
            [&] { ZqTrace::merge(path, asList({other})); },
            [&] { ZqTrace::write(SxPtr<SxArray<uint64>>::create(), path, "build"); }};
        for (const auto& action : actions) {
            EXPECT_THAT(failureOf(action),
                        HasSubstr("A mounted drive records into the trace '" + path.str() + "'"));
        }
    }
    EXPECT_EQ(dir.snapshot(), before);
    recorder.close();
    EXPECT_EQ(failureOf([&] { ZqTrace(live).shift(1); }), "");
}

TEST(TraceWriters, OneWriterAtATimeAndNoneAfterAKill) {
    const TempDir dir;
    const SxString one = makeTrace(dir, "one", at({{1, 1}, {2, 2}})),
                   two = makeTrace(dir, "two", at({{3, 1}})), out = makeTrace(dir, "out", at({{9, 1}}));
    const std::pair<const char*, std::function<void()>> writers[] = {
        {"merge",
         [&] {
             ZqTrace::merge(out, asList({one, two}));
         }},
        {"trim", [&] { ZqTrace(one).trim(out); }},
        {"append", [&] { ZqTrace(one).append(two, out, 0); }},
        {"keep", [&] { ZqTrace(out).dropTime(0, 100); }},
        {"shift", [&] { ZqTrace(out).shift(1); }},
        {"align", [&] { ZqTrace(out).align(out); }},
        {"mend", [&] { ZqTrace(out).mend(); }},
        {"write", [&] { ZqTrace::write(SxPtr<ZqTrace::Items>::create(), out, Params::Set, "build"); }}};
    const TreeSnapshot before = dir.snapshot();
    // Another process has the folder, until it is killed.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const ZqTraceLock lock(out);
        if (::write(ready[1], "x", 1) == 1) ::pause();
        ::_exit(0);
    }
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    for (const auto& [name, write] : writers)
        EXPECT_THAT(failureOf(write), HasSubstr("Another command writes the trace '" + out.str())) << name;
    EXPECT_TRUE(ZqTraceLock::isHeld(out));
    ::kill(child, SIGKILL);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    for (const int fd : ready)
        ::close(fd);
    EXPECT_FALSE(ZqTraceLock::isHeld(out));
    EXPECT_TRUE(dir.exists("out/trace.lock"));
    for (const auto& [name, write] : writers) {
        EXPECT_EQ(failureOf(write), "") << name;
        EXPECT_EQ(dir.snapshot("out").size(), 2U) << name << " left something behind";
    }
    EXPECT_EQ(dir.snapshot().size(), before.size());
}

TEST(TraceWriters, ACutBetweenTheFilesIsFoundAndMended) {
    const TempDir dir;
    const SxString path = makeTrace(dir, "a", at({{1, 1}, {2, 2}, {3, 7}}), 1000);
    ZqTraceRecords::requireMatch(path); // a recorder's own states neither
    ZqTrace(path).trim(path);
    const Params whole(path);
    const std::string items = dir.read("a/img.trc");
    std::string other = items;
    other[0] = 9; // of the same size
    for (const std::string& now : {items.substr(0, 32), other, items + "rest"}) {
        dir.write("a/img.trc", now);
        EXPECT_THAT(failureOf([&] { ZqTraceRecords::requireMatch(path); }),
                    HasSubstr("tavrin trace mend TRACE"));
        ZqTrace(path).mend();
        EXPECT_EQ(failureOf([&] { ZqTraceRecords::requireMatch(path); }), "");
        Params mended(path);
        EXPECT_EQ(mended.size, static_cast<int64>(now.size()));
        EXPECT_EQ(mended.duration, now.size() == 32 ? 1 : 6);
        std::tie(mended.size, mended.duration, mended.checksumTrc) =
            std::tie(whole.size, whole.duration, whole.checksumTrc);
        EXPECT_EQ(mended, whole) << "something else was changed";
    }
}
