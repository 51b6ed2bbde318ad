#include "NetLab.h"

#include "Loopback.h"
#include "ZqBlocks.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zstd.h>

ZqNetSettings quickSettings() {
    ZqNetSettings settings;
    settings.stallMs = 400;
    settings.firstBackOffMs = 10;
    settings.maxBackOffMs = 50;
    settings.nRangeTries = 3;
    settings.busyMs = 0;
    return settings;
}

std::string le32(uint64 value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

PackedImage::PackedImage(const std::string& zqf, bool withChecksums, const std::string& md5) {
    constexpr size_t FRAME = ZqBlocks::STRETCH;
    std::string entries;
    if (!md5.empty()) {
        origin = le32(0x184D2A50) + le32(36) + "md5=" + md5;
        entries = le32(origin.size()) + le32(0) + (withChecksums ? le32(0) : "");
    }
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
    for (size_t at = 0; at < zqf.size(); at += FRAME) {
        const size_t n = std::min(FRAME, zqf.size() - at);
        std::string frame(ZSTD_compressBound(n) + 64, '\0');
        frame.resize(ZSTD_compress2(context, frame.data(), frame.size(), zqf.data() + at, n));
        entries += le32(frame.size()) + le32(n);
        if (withChecksums) entries += frame.substr(frame.size() - 4);
        frames.push_back(frame);
    }
    ZSTD_freeCCtx(context);
    const std::string footer = le32(frames.size() + (md5.empty() ? 0 : 1)) +
                               std::string(1, withChecksums ? '\x80' : '\0') + le32(0x8F92EAB1);
    table = le32(0x184D2A5E) + le32(entries.size() + footer.size()) + entries + footer;
}

std::string PackedImage::bytes() const {
    std::string all = origin;
    for (const std::string& frame : frames)
        all += frame;
    return all + table;
}

namespace {

/// A whole request.
std::string receive(int client) {
    std::string request;
    char buffer[4096];
    size_t wanted = std::string::npos;
    while (request.size() < wanted) {
        const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<size_t>(n));
        const size_t head = request.find("\r\n\r\n");
        if (head == std::string::npos) continue;
        const size_t length = request.find("Content-Length: ");
        wanted = head + 4 + (length < head ? std::stoul(request.substr(length + 16)) : 0);
    }
    return request;
}

} // namespace

ScriptedServer::ScriptedServer(Answer answer_) : answer(std::move(answer_)) {
    listener = Loopback::listen(&port);
    start();
}

ScriptedServer::~ScriptedServer() {
    ending = true;
    wait();
    ::close(listener);
    for (const int client : silent)
        ::close(client);
}

std::string ScriptedServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
}

std::vector<std::string> ScriptedServer::requests() const {
    SxMutexBlock lock(&mutex);
    return seen;
}

void ScriptedServer::main() {
    while (!ending) {
        pollfd waiting = {listener, POLLIN, 0};
        if (::poll(&waiting, 1, 10) <= 0) continue;
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::string request = receive(client);
        if (request.empty()) { // whoever connected has gone before asking
            ::close(client);
            continue;
        }
        {
            SxMutexBlock lock(&mutex);
            seen.push_back(request);
        }
        const std::string response = answer(request);
        if (response == SILENCE) {
            silent.push_back(client);
            continue;
        }
        send(client, response);
        ::close(client);
    }
}

void ScriptedServer::send(int client, const std::string& response) const {
    const bool isSlow = response.starts_with(TRICKLE);
    size_t sent = isSlow ? std::string(TRICKLE).size() : 0;
    while (sent < response.size() && !(isSlow && ending)) {
        const size_t n = isSlow ? 1 : response.size() - sent;
        const ssize_t nSent = ::send(client, response.data() + sent, n, MSG_NOSIGNAL);
        if (nSent <= 0) break;
        sent += static_cast<size_t>(nSent);
        if (isSlow) ::poll(nullptr, 0, 10);
    }
}

std::string ScriptedServer::partial(const std::string& file, uint64 first, uint64 last,
                                    const std::string& more) {
    const std::string body = file.substr(first, last - first + 1);
    return "HTTP/1.1 206 Partial Content\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nContent-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/" + std::to_string(file.size()) + "\r\n" + more + "\r\n" + body;
}

std::string ScriptedServer::ranged(const std::string& request, const std::string& file,
                                   const std::string& more) {
    const size_t at = request.find("bytes=");
    if (at == std::string::npos) {
        return "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(file.size()) +
               "\r\n" + more + "\r\n" + file;
    }
    const std::string range = request.substr(at + 6, request.find('\r', at) - at - 6);
    if (range[0] == '-') {
        const uint64 n = std::min<uint64>(std::stoull(range.substr(1)), file.size());
        return partial(file, file.size() - n, file.size() - 1, more);
    }
    const std::string last = range.substr(range.find('-') + 1);
    const uint64 end = last.empty() ? file.size() : std::min<uint64>(std::stoull(last) + 1, file.size());
    return partial(file, std::stoull(range), end - 1, more);
}
