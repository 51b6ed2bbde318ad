#include "ZqDriveWire.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace ZqDriveWire {

namespace {

constexpr size_t HEAD = 8;

template<class T>
void put(std::string* out, T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out->push_back(static_cast<char>(static_cast<uint64>(value) >> (8 * i)));
}

uint64 get(const char* bytes, size_t n) {
    uint64 value = 0;
    for (size_t i = n; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

bool receiveAll(int fd, char* to, size_t n) {
    while (n > 0) {
        const ssize_t got = ::recv(fd, to, n, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

Writer& Writer::number(uint64 value) {
    put(&out, value);
    return *this;
}

Writer& Writer::flag(bool value) {
    out.push_back(value ? 1 : 0);
    return *this;
}

Writer& Writer::text(std::string_view value) {
    put(&out, static_cast<uint32>(value.size()));
    out += value;
    return *this;
}

Writer& Writer::bytes(std::string_view value) {
    out += value;
    return *this;
}

bool Reader::take(size_t n) {
    if (!good || n > body.size() - at) {
        good = false;
        return false;
    }
    at += n;
    return true;
}

uint64 Reader::number() {
    return take(8) ? get(body.data() + at - 8, 8) : 0;
}

bool Reader::flag() {
    return take(1) && body[at - 1] != 0;
}

SxString Reader::text() {
    if (!take(4)) return {};
    const size_t n = get(body.data() + at - 4, 4);
    if (!take(n)) return {};
    return SxString(std::string_view(body).substr(at - n, n));
}

std::string_view Reader::rest() {
    const size_t from = at;
    at = body.size();
    return std::string_view(body).substr(from);
}

bool send(int fd, unsigned kind, std::string_view body) {
    if (body.size() > MAX_BODY) return false;
    std::string head;
    put(&head, static_cast<uint32>(body.size()));
    put(&head, static_cast<unsigned short>(kind));
    put(&head, static_cast<unsigned short>(VERSION));
    iovec parts[2] = {{head.data(), head.size()}, {const_cast<char*>(body.data()), body.size()}};
    size_t left = head.size() + body.size();
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    while (left > 0) {
        const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        left -= static_cast<size_t>(sent);
        auto n = static_cast<size_t>(sent);
        for (iovec& part : parts) {
            const size_t step = std::min(n, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + step;
            part.iov_len -= step;
            n -= step;
        }
    }
    return true;
}

std::optional<Message> receive(int fd) {
    char head[HEAD];
    if (!receiveAll(fd, head, HEAD)) return std::nullopt;
    const uint64 length = get(head, 4);
    if (length > MAX_BODY) return std::nullopt;
    Message message;
    message.version = static_cast<unsigned>(get(head + 6, 2));
    message.kind = static_cast<unsigned>(get(head + 4, 2));
    message.body.resize(length);
    if (!receiveAll(fd, message.body.data(), length)) return std::nullopt;
    return message;
}

} // namespace ZqDriveWire
