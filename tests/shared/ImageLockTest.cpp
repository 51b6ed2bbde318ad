#include "BaseTest.h"
#include "Descriptors.h"
#include "SxTime.h"
#include "VirtualClock.h"
#include "ZqImageLock.h"
#include "ZqStreamRecord.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using Lock = ZqImageLock;

namespace {

/// A folder with something of an image in it, without which nobody may read it.
class ImageDir : public TempDir {
public:
    ImageDir() { write("app.json", "{}"); }

    SxPtr<Lock> take(const SxString& job, Lock::Mode mode, Lock::Range range = Lock::Shape) const {
        return Lock::take(path(), range, mode, job);
    }
    std::string tryTake(Lock::Mode mode, Lock::Range range = Lock::Shape) const {
        return failureOf([&] { take("attempt", mode, range); });
    }
    std::string usedBy(const std::string& holder) const {
        return "Image '" + path() + "' is in use by " + holder;
    }
    std::string usedBy(int64 process, const std::string& job) const {
        return usedBy("process " + std::to_string(process) + " (" + job + ")");
    }
};

/// Files that can't be written to, or whose lock file changes between its opening and the locking.
class OtherOs : public FaultOs {
public:
    explicit OtherOs(const TempDir& dir) : FaultOs(dir.path()) {}

    int writeError = 0;
    std::function<void()> aheadOfLock, behindMaking;

    int open(const std::string& path, unsigned flags, unsigned permissions) override {
        if (writeError && (flags & Write)) return -writeError;
        const int fd = FaultOs::open(path, flags, permissions);
        if (behindMaking && (flags & Create)) std::exchange(behindMaking, nullptr)();
        return fd;
    }
    int lockRange(int fd, int64 offset, int64 n, SxOs::Lock lock) override {
        if (aheadOfLock) std::exchange(aheadOfLock, nullptr)();
        return FaultOs::lockRange(fd, offset, n, lock);
    }
};

const int64 SELF = ::getpid();

/// Has a file open for some time.
class Reader : public SxSystemThread {
public:
    Reader(const std::string& file, int64 ms_) : ms(ms_), fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC)) {
        start();
    }
    ~Reader() override { wait(); }

protected:
    void main() override {
        SxTime::msleep(ms);
        ::close(fd);
    }

private:
    const int64 ms;
    const int fd;
};

} // namespace

TEST(ImageLock, SharedAndExclusive) {
    const std::tuple<Lock::Range, Lock::Mode, Lock::Range, Lock::Mode, bool> cases[] = {
        {Lock::Shape, Lock::Shared, Lock::Shape, Lock::Shared, false},
        {Lock::Shape, Lock::Shared, Lock::Shape, Lock::Exclusive, true},
        {Lock::Shape, Lock::Exclusive, Lock::Shape, Lock::Shared, true},
        {Lock::Growth, Lock::Exclusive, Lock::Growth, Lock::Exclusive, true},
        {Lock::Shape, Lock::Exclusive, Lock::Growth, Lock::Exclusive, false}};
    for (const auto& [heldRange, held, range, wanted, refused] : cases) {
        const ImageDir dir;
        // Another holder, whose slot comes first, isn't to be blamed.
        const auto other = dir.take("bystander", Lock::Shared, Lock::Drive);
        auto holder = dir.take("the holder", held, heldRange);
        const auto copy = std::exchange(holder, nullptr);
        EXPECT_EQ(dir.tryTake(wanted, range), refused ? dir.usedBy(SELF, "the holder") : "");
        copy->lower();
        EXPECT_EQ(dir.tryTake(Lock::Shared, heldRange), "");
        EXPECT_EQ(dir.tryTake(Lock::Exclusive, heldRange), dir.usedBy(SELF, "the holder"));
        EXPECT_THAT(dir.read("image.lock"), testing::Not(HasSubstr("exclusive")));
    }
    const TempDir dir;
    for (const std::string& path : {dir.path("none"), dir.path()}) {
        EXPECT_THAT(failureOf([&] { Lock::take(path, Lock::Shape, Lock::Shared, "x"); }),
                    HasSubstr("'" + path + "' "));
    }
    EXPECT_TRUE(fs::is_empty(dir.path())) << "a reader leaves nothing where nothing is to be read";
}

// As of a mount that notes writes while a download notes its progress.
TEST(ImageLock, ChangesOfARecordGoOneAfterTheOther) {
    const ImageDir dir;
    SxPtr<Lock> other = dir.take("other", Lock::Exclusive, Lock::Record);
    std::thread change(
        [&] { ZqStreamRecord::update(dir.path(), [](ZqStreamRecord* record) { record->nStarts = 5; }); });
    EXPECT_FALSE(SxWait::pass(200, [&] { return dir.exists("stream.json"); }));
    ZqStreamRecord record;
    record.isWritten = true;
    record.write(dir.path());
    other = nullptr;
    change.join();
    record.read(dir.path());
    EXPECT_TRUE(record.isWritten);
    EXPECT_EQ(record.nStarts, 5);
}

TEST(ImageLock, DiesWithItsProcess) {
    const ImageDir dir;
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const auto lock = dir.take("image optimize", Lock::Exclusive);
        if (::write(ready[1], "x", 1) != 1) ::_exit(1);
        for (;;)
            ::pause();
    }
    char word = 0;
    EXPECT_EQ(::read(ready[0], &word, 1), 1);
    EXPECT_EQ(dir.tryTake(Lock::Shared), dir.usedBy(child, "image optimize"));
    ::kill(child, SIGKILL);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(dir.tryTake(Lock::Exclusive), "");
}

TEST(ImageLock, MoreHoldersThanSlots) {
    const ImageDir dir;
    std::vector<SxPtr<Lock>> holders;
    for (int i = 0; i < 60; ++i)
        holders.push_back(dir.take("reader " + SxString(i), Lock::Shared));
    holders.front() = nullptr;
    EXPECT_EQ(dir.tryTake(Lock::Exclusive), dir.usedBy(SELF, "reader 1"));
    holders.push_back(dir.take("in the free slot " + SxString(std::string(1000, 'x')), Lock::Shared));
    EXPECT_THAT(dir.read("image.lock"), HasSubstr("(in the free slot"));
    EXPECT_EQ(dir.read("image.lock").size(), 48U * 256);
    const auto unrecorded = dir.take("no slot is left for me", Lock::Exclusive, Lock::Growth);
    EXPECT_EQ(dir.tryTake(Lock::Exclusive, Lock::Growth), dir.usedBy("another process"));
    holders.clear();
    EXPECT_EQ(dir.tryTake(Lock::Exclusive), "");
}

TEST(ImageLock, TheLockFileGoesOrIsReplaced) {
    const ImageDir dir;
    const std::string file = dir.path("image.lock");
    for (const bool replaced : {false, true}) {
        OtherOs os(dir);
        const auto change = [&] {
            fs::remove(file);
            if (replaced) dir.write("image.lock", "another");
        };
        // Behind the holder's back, and between the opening of the file and its locking.
        const auto first = dir.take("first", Lock::Exclusive);
        change();
        os.aheadOfLock = change;
        const auto second = dir.take("second", Lock::Exclusive);
        EXPECT_EQ(dir.tryTake(Lock::Shared), dir.usedBy(SELF, "second"));
    }
    fs::remove(file);
    dir.write("elsewhere", "precious");
    fs::create_symlink("elsewhere", file);
    EXPECT_THAT(dir.tryTake(Lock::Exclusive), HasSubstr("Cannot lock image '"));
    EXPECT_EQ(dir.read("elsewhere"), "precious");
    fs::remove(file);
    fs::permissions(dir.path("elsewhere"), fs::perms{0600});
    OtherOs os(dir);
    os.behindMaking = [&] {
        fs::remove(file);
        fs::create_symlink("elsewhere", file);
    };
    EXPECT_THAT(dir.tryTake(Lock::Exclusive), HasSubstr("Cannot lock image '"));
    EXPECT_EQ(fs::status(dir.path("elsewhere")).permissions(), fs::perms{0600});
}

TEST(ImageLock, AnUnfinishedImageIsRefused) {
    const std::string patch = "a patch; go on with: tavrin patch apply IMAGE --resume";
    const std::pair<const char*, std::string> cases[] = {
        {"optimize.lock", "an optimisation; go on with: tavrin image optimize IMAGE --resume"},
        {"patch.progress", patch},
        {"patching/img.lock", patch}};
    for (const auto& [marker, words] : cases) {
        const ImageDir dir;
        dir.write(marker, "");
        for (const Lock::Mode mode : {Lock::Shared, Lock::Exclusive}) {
            EXPECT_EQ(dir.tryTake(mode), "Image '" + dir.path() + "' is in the middle of " + words);
            Lock::takeAnyState(dir.path(), Lock::Shape, mode, "reader"); // also: the refused one left no lock
        }
        // Whoever is at it is named, and not how to go on.
        const auto job = Lock::takeAnyState(dir.path(), Lock::Shape, Lock::Exclusive, "image optimize");
        EXPECT_EQ(failureOf([&] { Lock::take(dir.path(), Lock::Growth, Lock::Exclusive, "run"); }),
                  dir.usedBy(SELF, "image optimize"));
    }
}

TEST(ImageLock, AFolderThatCannotBeWrittenTo) {
    for (const int error : {EACCES, EROFS}) {
        const ImageDir dir;
        OtherOs os(dir);
        os.writeError = error;
        dir.take("reader", Lock::Shared)->lower();
        EXPECT_EQ(dir.tryTake(Lock::Exclusive),
                  "Cannot lock image '" + dir.path() + "': " + SxOs::errorText(error).str());
        EXPECT_FALSE(dir.exists("image.lock"));
        // A lock file that others can write to counts for a reader that can't.
        os.writeError = 0;
        const mode_t mask = ::umask(077);
        auto writer = dir.take("writer", Lock::Exclusive);
        ::umask(mask);
        EXPECT_EQ(fs::status(dir.path("image.lock")).permissions(), fs::perms{0666});
        os.writeError = error;
        EXPECT_EQ(dir.tryTake(Lock::Shared), dir.usedBy(SELF, "writer"));
        writer = nullptr;
        const auto reader = dir.take("reader", Lock::Shared);
        os.writeError = 0;
        EXPECT_EQ(dir.tryTake(Lock::Exclusive), dir.usedBy("another process"));
    }
    const ImageDir dir;
    FaultOs os(dir.path());
    os.failNth(Op::Lock, 1, ENOLCK);
    EXPECT_THAT(dir.tryTake(Lock::Shared), HasSubstr("No locks available"));
}

// Of an image that its owner mounted, and who has it in common with a group.
TEST(ImageLock, WhoCantTellThatTheFileIsOpenGoesByTheKernelsNote) {
    const ImageDir dir;
    dir.write("img.zqf", "blocks");
    const VirtualClock clock;
    FaultOs os(dir.path());
    const auto tryBlind = [&](int error) {
        os.failNth(Op::Lock, 1, error, "img.zqf", true);
        return dir.tryTake(Lock::Exclusive);
    };
    const std::string refusal = "The kernel may still read 'img.zqf' of image '" + dir.path() +
                                "' for a drive, which only the owner of that file can see; give the command "
                                "as its owner, or as root with the capability CAP_LEASE";
    const auto note = [&] {
        const auto service = dir.take("drive service", Lock::Exclusive, Lock::Drive);
        Lock::noteKernel(dir.path());
    };
    for (const int error : {EACCES, EPERM, EOPNOTSUPP, EMFILE}) {
        SCOPED_TRACE(error);
        EXPECT_EQ(tryBlind(error), "");
        note();
        EXPECT_EQ(tryBlind(error), refusal);
        EXPECT_EQ(tryBlind(error), refusal) << "the note stays";
        os.failNth(Op::Lock, 1, 0, "nothing");
        EXPECT_EQ(dir.tryTake(Lock::Exclusive), "") << "who sees that nobody has it open drops the note";
        EXPECT_EQ(tryBlind(error), "");
    }
    // It holds for this very file, and until the next start of the machine.
    note();
    fs::rename(dir.path("img.zqf"), dir.path("former"));
    dir.write("img.zqf", "blocks");
    EXPECT_EQ(tryBlind(EACCES), "");
    fs::rename(dir.path("former"), dir.path("img.zqf"));
    EXPECT_EQ(tryBlind(EACCES), refusal);
    os.failNth(Op::Lock, 1, EACCES, "img.zqf");
    EXPECT_TRUE(Lock::isFileOpen(dir.path()));
    fs::remove(dir.path("image.lock"));
    EXPECT_THAT(failureOf([&] { Lock::noteKernel(dir.path()); }), HasSubstr("Cannot note in image '"));
}

// As the kernel has img.zqf open for a drive that was unmounted while a program used it.
TEST(ImageLock, TheShapeIsNobodysWhoseFileIsOpen) {
    const ImageDir dir;
    const std::string file = dir.write("img.zqf", "blocks");
    const int64 nBefore = countDescriptors();
    VirtualClock clock;
    const auto tryTimed = [&](Lock::Mode mode, Lock::Range range, const std::string& failure, int64 ms) {
        const int64 begin = clock.elapsedMs();
        EXPECT_EQ(dir.tryTake(mode, range), failure);
        EXPECT_GE(clock.elapsedMs() - begin, ms);
        EXPECT_LE(clock.elapsedMs() - begin, ms == 0 ? 0 : ms + 50);
    };
    const std::string refusal = "Image '" + dir.path() +
                                "' is still open in another program or in the kernel, as after an unmount "
                                "while files of the drive were in use; close what uses it, and unmount the "
                                "drive where it is still mounted";
    tryTimed(Lock::Exclusive, Lock::Shape, "", 0);
    {
        const Reader reader(file, 5000);
        tryTimed(Lock::Exclusive, Lock::Shape, refusal, 2000);
        EXPECT_TRUE(exceptionOf([&] { dir.take("attempt", Lock::Exclusive); }).hasTag(Lock::HELD));
        EXPECT_EQ(countDescriptors(), nBefore + 1) << "that of the reader";
        tryTimed(Lock::Shared, Lock::Shape, "", 0); // also: the refused one left no lock
        tryTimed(Lock::Exclusive, Lock::Growth, "", 0);
    }
    tryTimed(Lock::Exclusive, Lock::Shape, "", 0);
    {
        const Reader reader(file, 300);
        tryTimed(Lock::Exclusive, Lock::Shape, "", 300);
    }
    {
        // Whoever waits for a holder waits for that one as well.
        const Reader reader(file, 3000);
        const int64 begin = clock.elapsedMs();
        Lock::await(dir.path(), Lock::Shape, Lock::Exclusive, "content extract", 5000);
        EXPECT_GE(clock.elapsedMs() - begin, 3000);
    }
    // Where nobody can tell, and where there is no such file, the image is taken at once.
    FaultOs os(dir.path());
    const Reader reader(file, 5000);
    os.failNth(Op::Lock, 1, EACCES, "img.zqf");
    tryTimed(Lock::Exclusive, Lock::Shape, "", 0);
    EXPECT_EQ(os.getNFailed(), 1);
    fs::rename(file, dir.path("img.zqf.part1"));
    tryTimed(Lock::Exclusive, Lock::Shape, "", 0);
    EXPECT_EQ(countDescriptors(), nBefore + 1);
}
