#pragma once

#include "SxSystemThread.h"
#include "ZqNetLink.h"

#include <atomic>
#include <functional>
#include <string>
#include <vector>

/// Limits that make a failing request fail within a test's patience.
ZqNetSettings quickSettings();

/// `img.zqf.zst` for the bytes of an `img.zqf`: with `md5` a frame that says so, one for each 204,800 bytes,
/// and the seek table.
struct PackedImage {
    explicit PackedImage(const std::string& zqf, bool withChecksums = true, const std::string& md5 = "");
    std::string bytes() const;

    std::string origin;
    std::vector<std::string> frames;
    std::string table; ///< skippable frame with header and footer
};

/// Little-endian bytes of a number.
std::string le32(uint64 value);

/// An HTTP server that says what it is told, however wrong, and closes the connection after each response.
class ScriptedServer : public SxSystemThread {
public:
    /// Gives the whole response, header and body, to a request: its header, and its body where it has one.
    using Answer = std::function<std::string(const std::string& request)>;
    /// An answer that never comes, over a connection that stays.
    static constexpr const char* SILENCE = "silence";
    /// In front of an answer that comes a byte every 10 ms.
    static constexpr const char* TRICKLE = "trickle:";

    explicit ScriptedServer(Answer answer_);
    ~ScriptedServer() override;

    std::string url(const std::string& path = "") const;
    /// The requests so far.
    std::vector<std::string> requests() const;

    /// A 206 response with bytes `first` to `last` of `file`, and further header lines.
    static std::string partial(const std::string& file, uint64 first, uint64 last,
                               const std::string& more = "");
    /// The response that a right server gives to the Range of `request`.
    static std::string ranged(const std::string& request, const std::string& file,
                              const std::string& more = "");

protected:
    void main() override;

private:
    void send(int client, const std::string& response) const;

    const Answer answer;
    int listener = -1;
    int port = 0;
    std::atomic<bool> ending{false};
    std::vector<int> silent; ///< connections
    mutable SxMutex mutex;
    std::vector<std::string> seen SX_GUARDED_BY(mutex);
};
