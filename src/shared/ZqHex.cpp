#include "ZqHex.h"

#include "SxException.h"
#include "SxSymbol.h"

#include <charconv>

SxString zqHex(const std::string& bytes) {
    constexpr const char* DIGITS = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return SxString(text);
}

std::string zqBytesOfHex(const SxString& text) {
    const std::string& digits = text.str();
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        unsigned byte = 0;
        const char* end = digits.data() + std::min(i + 2, digits.size());
        const auto [stop, error] = std::from_chars(digits.data() + i, end, byte, 16);
        if (digits.size() % 2 != 0 || stop != end || error != std::errc()) {
            throw SxException("'" + SxParserKit::excerpt(text) + "' isn't bytes in hex digits",
                              "src/shared/ZqHex", __LINE__);
        }
        bytes += static_cast<char>(byte);
    }
    return bytes;
}
