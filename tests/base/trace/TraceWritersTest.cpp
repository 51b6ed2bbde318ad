#include "BaseTest.h"
#include "TraceMaking.h"
#include "ZqAppParams.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"

#include <csignal>
#include <functional>
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
        EXPECT_EQ(dir.snapshot("out").size(), 2U) << name << " left something else there";
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
        const SxString out = dir.path("out/"), sound = makeTrace(dir, "sound", at({{1, 1}, {4, 2}}), 1000);
        auto both = SxPtr<SxArray<ZqTrace>>::create();
        both->append(ZqTrace(sound));
        both->append(ZqTrace(path));
        const std::vector<std::function<void()>> readers = {
            [&] { ZqTraceRecords::requireMatch(path); },  [&] { ZqTrace(path).trim(out); },
            [&] { ZqTrace(path).dropTime(0, 9); },        [&] { ZqTrace(path).align(sound); },
            [&] { ZqTrace(sound).align(path); },          [&] { ZqTrace(path).append(sound, out, 0); },
            [&] { ZqTrace(sound).append(path, out, 0); }, [&] { (void)ZqTrace(path).traceToSequence(); },
            [&] { ZqTrace::merge(out, both); },           [&] { (void)ZqTrace(sound).compare(path); },
        };
        for (size_t i = 0; i < readers.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_THAT(failureOf(readers[i]), HasSubstr("tavrin trace mend TRACE"));
            EXPECT_EQ(dir.read("a/img.trc"), now);
        }
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

TEST(TraceWriters, WhatAPowerCutHasLeftIsToldAndMendedWhereThereIsSomething) {
    const TempDir dir;
    const SxString path = makeTrace(dir, "a", at({{1, 1}, {2, 2}, {3, 7}}), 1000);
    const std::string items = dir.read("a/img.trc"), record = dir.read("a/trace.json");
    const std::string holes(32, '\0');
    EXPECT_EQ(ZqTrace(path).mend(), 0);
    EXPECT_EQ(dir.read("a/img.trc"), items);
    for (const std::string& now : {items + holes, items.substr(0, 16) + holes + items.substr(16)}) {
        dir.write("a/trace.json", record);
        dir.write("a/img.trc", now);
        EXPECT_THAT(failureOf([&] { ZqTraceRecords::requireMatch(path); }),
                    HasSubstr("records of zeros, as a power cut leaves them"));
        EXPECT_EQ(ZqTrace(path).mend(), 2);
        EXPECT_EQ(dir.read("a/img.trc"), items);
        EXPECT_EQ(failureOf([&] { ZqTraceRecords::requireMatch(path); }), "");
        EXPECT_EQ(Params(path).duration, 6);
    }
    const auto fails = [&](const std::string& now, const std::string& why) {
        dir.write("a/img.trc", now);
        const TreeSnapshot before = dir.snapshot();
        EXPECT_THAT(failureOf([&] { ZqTrace(path).mend(); }), HasSubstr(why));
        EXPECT_EQ(dir.snapshot(), before);
    };
    fails("", "holds no whole record: there is nothing to mend");
    fails(items.substr(0, 15), "holds no whole record");
    fails(holes, "holds 2 records, all of zeros");
    dir.write("a/trace.json", record.substr(0, record.size() / 2));
    fails(items, "can't be mended: its build, start and method stand in trace.json alone");
}

TEST(TraceWriters, ASourceThatIsReplacedWhileItIsReadIsTold) {
    const std::string says = "img.trc' was changed or replaced while it was read";
    const ItemList former = at({{1, 1}, {2, 2}, {3, 3}, {4, 4}});
    // By another command, between the pieces; the new file is as long.
    {
        const TempDir dir;
        const SxString path = makeTrace(dir, "t", former);
        ZqTraceRecords::Reader reader(path, 2);
        ZqTraceItem item;
        ASSERT_TRUE(reader.next(&item) && reader.next(&item));
        SxFileIO::writeAtomic(path + "img.trc", SxString(dir.read("t/img.trc")));
        EXPECT_THAT(failureOf([&] { reader.next(&item); }), HasSubstr(says));
    }
    // A drive adds to what it records; that isn't read, and is no fault.
    for (const bool isRecorded : {true, false}) {
        const TempDir dir;
        const SxString path = makeTrace(dir, "t", former);
        ZqTraceRecords::Reader reader(path, 2);
        ZqTraceItem item;
        ASSERT_TRUE(reader.next(&item) && reader.next(&item));
        SxFileIO drive(path + "img.trc", "r+b");
        if (isRecorded) SxOs::get().lockRange(drive.getFd(), 0, 1, SxOs::Lock::Exclusive);
        drive.seek(0, SxFileIO::SeekEnd);
        drive.write(SxString(std::string(16, 'x')));
        int nMore = 0;
        const std::string failure = failureOf([&] {
            while (reader.next(&item))
                ++nMore;
        });
        EXPECT_EQ(failure.empty(), isRecorded) << failure;
        EXPECT_EQ(failure.find(says) == std::string::npos, isRecorded) << failure;
        EXPECT_EQ(nMore, isRecorded ? 2 : 0);
    }
    // While a command that has looked at it goes on to its result.
    const TempDir dir;
    const SxString path = makeTrace(dir, "watched/t", former), patch = dir.path("patch/"),
                   out = dir.path("watched/out/");
    ZqAppParams app;
    app.checksumMnt = "new build";
    app.write(patch);
    dir.write("patch/map.idx", std::string(8 * 8, '\0'));
    for (const std::function<void()>& command :
         {std::function<void()>([&] { ZqTrace::merge(out, asList({path})); }),
          std::function<void()>([&] { ZqTrace(path).mapToImage(patch, out); })}) {
        FaultOs os(dir.path("watched"));
        bool isReplaced = false;
        os.setHook([&](int64, FaultOs::Op op, const std::string& name) {
            if (isReplaced || op != FaultOs::Op::MakeDir || name.find("out") == std::string::npos) return;
            isReplaced = true;
            SxFileIO::writeAtomic(path + "img.trc", SxString(std::string(8 * 16, 'x')));
        });
        const std::string failure = failureOf(command);
        EXPECT_TRUE(isReplaced);
        EXPECT_THAT(failure, HasSubstr(says));
        EXPECT_FALSE(dir.exists("watched/out/img.trc"));
        fs::remove_all(dir.path("watched/out"));
        makeTrace(dir, "watched/t", former);
    }
}

TEST(TraceWriters, ARecordWithTimesThatNoItemCanHaveIsRefused) {
    using ZqTraceFormat::LEAST_MS, ZqTraceFormat::MOST_MS;
    const TempDir dir;
    const SxString good = makeTrace(dir, "good", at({{1, 1}, {2, 2}}), 1000);
    const SxString bad = makeTrace(dir, "bad", at({{2, 1}, {3, 2}}), 1000), out = dir.prefix() + "out/";
    const std::string sound = dir.read("bad/trace.json");
    const auto withTimes = [&](int64 time0, int64 duration) {
        dir.write("bad/trace.json", R"({"version": 2, "method": "monitoring", "checksums": {"mnt": "build"},)"
                                    R"("time0": )" +
                                        std::to_string(time0) + R"(, "duration": )" +
                                        std::to_string(duration) + "}");
    };
    for (const auto& [time0, duration] :
         {std::pair(LEAST_MS, MOST_MS - LEAST_MS), std::pair(MOST_MS, int64{0})}) {
        withTimes(time0, duration);
        EXPECT_EQ(failureOf([&] { Params(bad).write(bad); }), "");
    }
    constexpr int64 MOST = std::numeric_limits<int64>::max(), LEAST = std::numeric_limits<int64>::min();
    for (const auto& [time0, duration, name] : {std::tuple(MOST, int64{0}, "time0"),
                                                {LEAST, 0, "time0"},
                                                {MOST_MS + 1, 0, "time0"},
                                                {LEAST_MS - 1, 0, "time0"},
                                                {0, MOST, "duration"},
                                                {0, MOST_MS - LEAST_MS + 1, "duration"}}) {
        withTimes(time0, duration);
        const TreeSnapshot before = dir.snapshot();
        const std::pair<const char*, std::function<void()>> operations[] = {
            {"merge",
             [&] {
                 ZqTrace::merge(out, asList({good, bad}));
             }},
            {"append", [&] { ZqTrace(bad).append(good, out, 0); }},
            {"append to", [&] { ZqTrace(good).append(bad, out, 0); }},
            {"align", [&] { ZqTrace(good).align(bad); }},
            {"shift", [&] { ZqTrace(bad).shift(-1); }},
            {"keep", [&] { ZqTrace(bad).dropTime(0, 1); }},
            {"runs", [&] { ZqTrace(bad).traceToSequence(); }}};
        for (const auto& [operation, call] : operations) {
            EXPECT_THAT(failureOf(call), AllOf(HasSubstr("bad/trace.json"), HasSubstr(name),
                                               HasSubstr("is none that a trace can have")))
                << operation;
        }
        EXPECT_EQ(dir.snapshot(), before);
    }
    Params record(good);
    record.time0 = MOST;
    EXPECT_THAT(failureOf([&] { record.write(good); }), HasSubstr("time0"));
}
