#include "CacheTrust.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/mount.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// An image may begin with files whose first block is a hole, which tells nothing.
constexpr int MAX_ENTRIES = 1000, MAX_READS = 16;

class Descriptor {
public:
    explicit Descriptor(int fd_) : fd(fd_) {}
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd; }

private:
    const int fd;
};

std::string pathOf(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

/// Gives a descriptor of the root of a mount that has no place; it goes with its last descriptor.
int mountUnseen(int metadata) {
    const Descriptor empty(::memfd_create("empty", MFD_CLOEXEC));
    const Descriptor context(static_cast<int>(::syscall(SYS_fsopen, "erofs", FSOPEN_CLOEXEC)));
    const auto configure = [&](int command, const char* key, const char* value) {
        return ::syscall(SYS_fsconfig, context.get(), command, key, value, 0) == 0;
    };
    const std::string source = pathOf(metadata), blocks = pathOf(empty.get());
    const bool isMade = configure(FSCONFIG_SET_STRING, "source", source.c_str()) &&
                        configure(FSCONFIG_SET_STRING, "device", blocks.c_str()) &&
                        configure(FSCONFIG_SET_FLAG, "ro", nullptr) &&
                        configure(FSCONFIG_CMD_CREATE, nullptr, nullptr);
    if (!isMade) return -1;
    return static_cast<int>(
        ::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC,
                  MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC));
}

} // namespace

bool CacheTrust::isEarned(int metadata) {
    const Descriptor root(mountUnseen(metadata));
    if (root.get() < 0) return false;
    namespace fs = std::filesystem;
    int nEntries = 0, nReads = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(pathOf(root.get()), error), end; !error && entry != end;
         entry.increment(error)) {
        if (++nEntries > MAX_ENTRIES || nReads == MAX_READS) return false;
        if (!fs::is_regular_file(entry->symlink_status(error)) || entry->file_size(error) == 0) continue;
        const Descriptor file(::open(entry->path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        char byte = 0;
        if (::pread(file.get(), &byte, 1, 0) < 0) return errno == EIO;
        ++nReads;
    }
    return false;
}
