#include "RequestSpace.h"

#include "BlockIdx.h"
#include "DriverLog.h"
#include "SxOs.h"

#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

constinit thread_local char* RequestSpace::own = nullptr;

void RequestSpace::lockMemory(void* at, std::size_t n) {
    if (::mlock(at, n) != 0 && ::geteuid() == 0)
        driverLog("can't lock the space of requests: " + SxOs::errorText(errno));
}

RequestSpace::RequestSpace() : space(MAX_REQUEST) {
    lockMemory(space.data(), space.size());
}

RequestSpace::~RequestSpace() {
    ::munlock(space.data(), space.size());
}
