#pragma once

#include "SxString.h"
#include "ZqBlocks.h"

#include <optional>
#include <string>
#include <string_view>

/// Messages between the control library and the drive service, over a Unix stream socket.
///
/// A message is a head of 8 bytes, then its body: body length (uint32), kind (uint16), version (uint16), all
/// little-endian. The kind of a request is a Call; the answer has the kind 0 for success, with results as
/// body, or that of a failure, with a text that says why. Numbers in a body are little-endian, a flag is one
/// byte, a text is its length in bytes (uint32) and UTF-8.
namespace ZqDriveWire {

/// A message of another version is read, too: the head, and the calls of isOfAllVersions(), stay what they
/// are in every version, so that the drives of a service of another version can be seen and taken away. All
/// else gets a failure with a sentence. So with such a service a client only does this: `umount` reverts the
/// registry and ejects, `status` asks after each image that has a folder. New fields of a state come last.
constexpr unsigned VERSION = 4;
/// Of a body; holds the largest part of a delivery and its head.
constexpr uint32 MAX_BODY = (1 << 20) + ZqBlocks::SIZE;
/// Most bytes of a delivery in one message; longer ones are sent in parts.
constexpr uint64 DELIVERY_PART = 1 << 20;
/// Most block indices in one answer.
constexpr uint64 MAX_INDICES = 65536;

constexpr unsigned SUCCESS = 0;
constexpr unsigned FAILURE = 1;
/// A failure, too: another client has the image mounted already.
constexpr unsigned ALREADY_MOUNTED = 2;

enum class Call : unsigned short {
    Mount,
    Eject,
    Dismount,
    State,      ///< of one image
    Disks,      ///< the states of all
    TraceEvent, ///< asks and clears
    SetCursor,
    SetQACursor,
    Suspend,
    Resume,
    FailOnUnderflow,
    PopMissing,
    RequestData,
    Deliver,
    MonitorOn,
    MonitorOff,
    FlushLayer,
    SetCacheSize,
    StoreDisks,
    LoadDisks,
    Reset,
    Ping,
    Version,
    GuardOn,
    GuardOff,
    GuardImageType,
    GuardLogging,
    GuardReparse,
    Label,
    Ready,    ///< the mount of an image is complete
    Leftover, ///< asks and clears: was a drive of the image left by a killed service
    Progress, ///< of what programs wrote, on its way to the disk
    Retire,   ///< a service without disks ends now
    Replaced, ///< looks whether another image stands in the place of a mounted one
    End       ///< number of calls
};

/// Writes a body.
class Writer {
public:
    Writer& number(uint64 value);
    Writer& flag(bool value);
    Writer& text(std::string_view value);
    Writer& bytes(std::string_view value);
    const std::string& body() const noexcept { return out; }

private:
    std::string out;
};

/// Reads a body; never beyond its end. What is missing reads as zero or empty, and ok() is false then.
class Reader {
public:
    Reader() = default;
    explicit Reader(std::string body_) : body(std::move(body_)) {}

    uint64 number();
    bool flag();
    SxString text();
    /// The rest of the body.
    std::string_view rest();
    /// Whether all that was read so far was there.
    bool hasAll() const noexcept { return good; }
    /// The same, and nothing is left.
    bool ok() const noexcept { return good && at == body.size(); }

private:
    bool take(size_t n);

    std::string body;
    size_t at = 0;
    bool good = true;
};

/// Whether a call is understood by every version.
constexpr bool isOfAllVersions(Call call) {
    // The progress is among them, since an eject may take any time, and by that alone a client knows that one
    // goes on.
    return call == Call::Ping || call == Call::State || call == Call::Eject || call == Call::Progress;
}

struct Message {
    unsigned kind = 0, version = VERSION;
    std::string body;
};

/// Sends one message; false where the other side has gone.
bool send(int fd, unsigned kind, std::string_view body);
/// Receives one message; none where the other side has gone or sends nonsense. Waits without a limit.
std::optional<Message> receive(int fd);

} // namespace ZqDriveWire
