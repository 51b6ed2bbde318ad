#include "ZqNetMailbox.h"

#include "SxException.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqNetMailbox";
}

ZqNetMailbox::ZqNetMailbox() : wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wakeFd < 0) throw SxException("Cannot start the network", UNIT, __LINE__);
}

ZqNetMailbox::~ZqNetMailbox() {
    ::close(wakeFd);
}

void ZqNetMailbox::post(const SxPtr<ZqTransfer>& transfer, What what) {
    {
        SxMutexBlock lock(&mutex);
        posted.push_back({transfer, what});
    }
    wake();
}

void ZqNetMailbox::wake() noexcept {
    // Where it fails, it has been woken often enough.
    (void)::eventfd_write(wakeFd, 1);
}

void ZqNetMailbox::end() noexcept {
    ending.store(true);
    wake();
}

std::vector<ZqNetMailbox::Letter> ZqNetMailbox::take() {
    std::vector<Letter> taken;
    SxMutexBlock lock(&mutex);
    taken.swap(posted);
    return taken;
}

void ZqNetMailbox::noteWoken() noexcept {
    eventfd_t n = 0;
    (void)::eventfd_read(wakeFd, &n);
}
