#include "Descriptors.h"
#include "SxOs.h"
#include "TempDir.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// What a look says while `flags` have the file open.
int lookWhileOpen(const std::string& file, int flags) {
    const int fd = ::open(file.c_str(), flags | O_CLOEXEC);
    const int result = SxOs::get().isOpen(file);
    ::close(fd);
    return result;
}

/// The same while another process has it open.
int lookWhileAnotherHasIt(const std::string& file) {
    int ready[2];
    if (::pipe(ready) != 0) return -errno;
    const pid_t child = ::fork();
    if (child == 0) {
        const char word = ::open(file.c_str(), O_RDONLY) < 0 ? '-' : '+';
        if (::write(ready[1], &word, 1) != 1) ::_exit(1);
        for (;;)
            ::pause();
    }
    char word = 0;
    const bool isHeld = ::read(ready[0], &word, 1) == 1 && word == '+';
    const int result = isHeld ? SxOs::get().isOpen(file) : -ECHILD;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
    return result;
}

int lookWhileMapped(const std::string& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    void* memory = ::mmap(nullptr, 1, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    const int result = SxOs::get().isOpen(file);
    ::munmap(memory, 1);
    return result;
}

std::atomic<int> nBreaks{0};

} // namespace

TEST(Os, TellsWhetherAFileIsOpen) {
    const TempDir dir;
    const std::string file = dir.write("file", "bytes");
    fs::create_symlink("file", dir.path("link"));
    ASSERT_EQ(::mkfifo(dir.path("pipe").c_str(), 0600), 0);
    const int64 nBefore = countDescriptors();
    const auto look = [](const std::string& path) { return SxOs::get().isOpen(path); };
    const std::tuple<const char*, std::function<int()>, int> cases[] = {
        {"nobody", [&] { return look(file); }, 0},
        {"own reader", [&] { return lookWhileOpen(file, O_RDONLY); }, 1},
        {"own writer", [&] { return lookWhileOpen(file, O_WRONLY); }, 1},
        {"mapped", [&] { return lookWhileMapped(file); }, 1},
        {"another process", [&] { return lookWhileAnotherHasIt(file); }, 1},
        {"link", [&] { return look(dir.path("link")); }, -ELOOP},
        {"missing", [&] { return look(dir.path("none")); }, -ENOENT},
        {"pipe", [&] { return look(dir.path("pipe")); }, -EINVAL},
    };
    for (const auto& [name, action, expected] : cases) {
        EXPECT_EQ(action(), expected) << name;
        EXPECT_EQ(look(file), 0) << "after: " << name;
    }
    EXPECT_EQ(countDescriptors(), nBefore);
    if (::geteuid() != 0) return;
    fs::permissions(dir.path(), fs::perms{0755});
    fs::permissions(file, fs::perms{0644});
    ASSERT_EQ(::seteuid(65534), 0);
    const int ofOther = look(file);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(ofOther, -EACCES);
}

// Whoever opens the file in the middle of a look waits for its end, and the looking process lives on.
TEST(Os, ALookIsInNobodysWay) {
    const TempDir dir;
    const std::string file = dir.write("file", "bytes");
    // The middle of a look, as long as it takes until somebody opens the file.
    const int holder = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::fcntl(holder, F_SETSIG, SIGURG), 0);
    ASSERT_EQ(::fcntl(holder, F_SETLEASE, F_WRLCK), 0);
    std::thread ending([&] {
        while (::fcntl(holder, F_GETLEASE) == F_WRLCK)
            std::this_thread::yield();
        ::fcntl(holder, F_SETLEASE, F_UNLCK);
    });
    const int opened = SxOs::get().open(file, SxOs::Read, 0);
    EXPECT_GE(opened, 0) << SxOs::errorText(opened).str();
    ending.join();
    ::close(holder);
    ::close(opened);

    // Real ones, until some were met.
    const auto former = std::signal(SIGURG, [](int) { ++nBreaks; });
    std::atomic<bool> ends{false};
    std::atomic<int> failure{0};
    std::thread opener([&] {
        while (!ends) {
            const int fd = SxOs::get().open(file, SxOs::Read, 0);
            if (fd < 0) failure = fd;
            ::close(fd);
        }
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (nBreaks < 3 && failure == 0 && std::chrono::steady_clock::now() < end) {
        const int result = SxOs::get().isOpen(file);
        if (result != 0 && result != 1) failure = result;
    }
    ends = true;
    opener.join();
    std::signal(SIGURG, former);
    EXPECT_EQ(failure, 0) << SxOs::errorText(failure).str();
}
