#include "ZqNetPool.h"

#include "SxException.h"

#include <curl/curl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqNetPool";
}

/// What libcurl calls.
struct ZqNetPool::Callbacks {
    static curl_socket_t onOpenSocket(void* user, curlsocktype /*purpose*/, curl_sockaddr* address) {
        const curl_socket_t fd =
            ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
        if (fd < 0) return CURL_SOCKET_BAD;
        // Nothing may be raised through libcurl.
        try {
            static_cast<ZqNetPool*>(user)->sockets.push_back(fd);
        } catch (const std::exception&) {
            ::close(fd);
            return CURL_SOCKET_BAD;
        }
        return fd;
    }

    static int onCloseSocket(void* user, curl_socket_t fd) {
        std::erase(static_cast<ZqNetPool*>(user)->sockets, fd);
        return ::close(fd);
    }

    static int onSocket(CURL* /*easy*/, curl_socket_t fd, int what, void* user, void* /*ofSocket*/) {
        auto& waiting = static_cast<ZqNetPool*>(user)->waiting;
        if (what == CURL_POLL_REMOVE) {
            waiting.erase(fd);
            return 0;
        }
        const int events =
            ((what & CURL_POLL_IN) != 0 ? POLLIN : 0) | ((what & CURL_POLL_OUT) != 0 ? POLLOUT : 0);
        try {
            waiting[fd] = static_cast<short>(events);
        } catch (const std::exception&) {
            // Ends what is under way in this pool.
            return -1;
        }
        return 0;
    }
};

void ZqNetPool::CloseMulti::operator()(CURLM* handle) const {
    curl_multi_cleanup(handle);
}

ZqNetPool::ZqNetPool() : multi(curl_multi_init()) {
    if (!multi) throw SxException("Cannot start libcurl", UNIT, __LINE__);
    curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, 16L);
    curl_multi_setopt(multi.get(), CURLMOPT_SOCKETFUNCTION, &Callbacks::onSocket);
    curl_multi_setopt(multi.get(), CURLMOPT_SOCKETDATA, this);
}

void ZqNetPool::add(CURL* easy) {
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &Callbacks::onOpenSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &Callbacks::onCloseSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
    const CURLMcode code = curl_multi_add_handle(multi.get(), easy);
    if (code != CURLM_OK) throw SxException(curl_multi_strerror(code), UNIT, __LINE__);
    ++nRequests;
}

void ZqNetPool::remove(CURL* easy) {
    curl_multi_remove_handle(multi.get(), easy);
    --nRequests;
}

void ZqNetPool::collect(std::vector<pollfd>* waited) const {
    for (const auto& [fd, events] : waiting) {
        // poll(2) would go on telling of the other side's end.
        if (events != 0) waited->push_back({fd, events, 0});
    }
}

int64 ZqNetPool::timeToWait() const {
    long ms = -1;
    curl_multi_timeout(multi.get(), &ms);
    return ms;
}

void ZqNetPool::perform(const std::vector<pollfd>& waited) {
    int nRunning = 0;
    for (const pollfd& each : waited) {
        // What was done for one socket may have closed another.
        if (each.revents == 0 || !waiting.contains(each.fd)) continue;
        int ready = 0;
        if ((each.revents & (POLLIN | POLLHUP)) != 0) ready |= CURL_CSELECT_IN;
        if ((each.revents & POLLOUT) != 0) ready |= CURL_CSELECT_OUT;
        if ((each.revents & (POLLERR | POLLNVAL)) != 0) ready |= CURL_CSELECT_ERR;
        curl_multi_socket_action(multi.get(), each.fd, ready, &nRunning);
    }
    if (timeToWait() == 0) curl_multi_socket_action(multi.get(), CURL_SOCKET_TIMEOUT, 0, &nRunning);
}

CURL* ZqNetPool::takeEnded(int* result) {
    int nLeft = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi.get(), &nLeft)) {
        if (message->msg != CURLMSG_DONE) continue;
        *result = message->data.result;
        return message->easy_handle;
    }
    return nullptr;
}

/// libcurl tells the socket only of requests that have ended; but it tells the port, also on a connection
/// that was kept.
int ZqNetPool::socketOf(CURL* easy) const {
    long port = 0;
    if (curl_easy_getinfo(easy, CURLINFO_LOCAL_PORT, &port) != CURLE_OK || port == 0) return CURL_SOCKET_BAD;
    for (const curl_socket_t fd : sockets) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) continue;
        const in_port_t own = address.ss_family == AF_INET6
                                  ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                  : reinterpret_cast<const sockaddr_in&>(address).sin_port;
        if (ntohs(own) == port) return fd;
    }
    return CURL_SOCKET_BAD;
}

int64 ZqNetPool::countReceived(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (socket < 0 || ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return -1;
    return static_cast<int64>(info.tcpi_bytes_received);
}

bool ZqNetPool::isMixed(const std::string& host, long version) {
    return versions.try_emplace(host, version).first->second != version;
}
