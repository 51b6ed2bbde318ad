#pragma once

#include "ZqFileFacts.h"

#include <atomic>

/// What a response gives of the bytes that were asked for. It is taken wherever that can be told: a larger
/// part of the file is cut, a smaller one taken as far as it goes, and a total of "*" or a unit in capitals
/// is understood. A whole file is used for a range that begins in its first mebibyte, where the file's size
/// is known. Else the failure says what the server lacks. The network thread fills it in, whoever made the
/// request reads it.
class ZqRangeAnswer {
public:
    static constexpr uint64 UNKNOWN = ZqFileFacts::UNKNOWN;
    /// Tag: a request beyond the end of a file whose size wasn't known.
    static constexpr const char* AT_END = "AtEnd";

    /// Bytes `first_` to `end_` - 1 are asked for at `asked_`. With `isVouched_` whatever version comes is
    /// taken for the right one.
    ZqRangeAnswer(SxPtr<ZqFileFacts> facts_, uint64 first_, uint64 end_, SxString asked_, bool isVouched_)
        : facts(std::move(facts_)),
          asked(std::move(asked_)),
          first(first_),
          end(end_),
          isVouched(isVouched_) {}

    /// Raises where it isn't an answer to the request. On the network thread.
    void check(const ZqTransfer::Response& response);

    const SxPtr<ZqTransfer::Part>& getPart() const noexcept { return part; }
    /// Where its bytes end; UNKNOWN where the body's end tells that.
    uint64 getTakenEnd() const noexcept { return takenEnd; }
    /// Where the bytes that were asked for end, by what is known of the file now; UNKNOWN if nothing is.
    uint64 getWantedEnd() const noexcept { return wantedEnd; }
    /// See ZqFileFacts::learn().
    int64 getVersion() const noexcept { return version; }

private:
    [[noreturn]] void raiseNoSuchBytes(const ZqTransfer::Response& response);

    const SxPtr<ZqFileFacts> facts;
    const SxString asked;
    const uint64 first, end;
    const bool isVouched;
    const SxPtr<ZqTransfer::Part> part = SxPtr<ZqTransfer::Part>::create();
    std::atomic<uint64> takenEnd{UNKNOWN}, wantedEnd{UNKNOWN};
    std::atomic<int64> version{-1};
};
