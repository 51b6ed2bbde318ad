#include "Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in addressOf(uint64_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

int Loopback::listen(int* port) {
    sockaddr_in address = addressOf(0);
    socklen_t size = sizeof address;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(fd, generic, size) != 0 || ::listen(fd, 64) != 0 || ::getsockname(fd, generic, &size) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot listen on loopback");
    }
    *port = ntohs(address.sin_port);
    return fd;
}

int Loopback::connect(uint64_t port) {
    const sockaddr_in address = addressOf(port);
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
}
