#pragma once

#include "ZqBlocks.h"
#include "ZqDriveReader.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

/// A drive of 512 blocks, made of pieces: the place in units of 32 bytes and the number of bytes, two bytes
/// each, and these bytes. All else is zeros.
class PiecesReader : public ZqDriveReader {
public:
    static constexpr uint64 N_RAW = 512;

    PiecesReader(const unsigned char* data, size_t size_)
        : ZqDriveReader("drive"),
          bytes(N_RAW * ZqBlocks::SIZE) {
        size = bytes.size();
        for (size_t at = 0; at + 4 <= size_;) {
            const size_t place = (data[at] | size_t{data[at + 1]} << 8) * 32;
            const size_t wanted = data[at + 2] | size_t{data[at + 3]} << 8;
            at += 4;
            const size_t n = std::min({wanted, size_ - at, bytes.size() - place});
            std::copy_n(data + at, n, bytes.begin() + static_cast<std::ptrdiff_t>(place));
            at += n;
        }
    }

    std::string_view getBytes() const { return {bytes.data(), bytes.size()}; }

protected:
    void fetch(uint64 offset, char* to, uint64 n) override {
        if (offset > bytes.size() || n > bytes.size() - offset) std::abort();
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), n, to);
    }

private:
    std::vector<char> bytes;
};
