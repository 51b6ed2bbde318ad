#pragma once

#include "SxString.h"

#include <string>
#include <string_view>

/// Data of a registry value as Windows programs see it.
struct ZqRegData {
    /// The numbers of the Windows interface.
    enum Type : uint32 { Text = 1, ExpandText = 2, Binary = 3, Dword = 4, MultiText = 7, Qword = 11 };

    uint32 type = Text;
    std::string bytes; ///< texts are UTF-16 little-endian with a NUL at the end

    bool operator==(const ZqRegData&) const = default;
};

/// The words of a registry file of Wine: names and values as text. What is read may be hostile: all readers
/// raise an SxException that says what is wrong with the text. Safe from any thread.
class ZqRegText {
public:
    /// Reads a text with escapes from `*pos`, just after its opening character, to `close`; `*pos` is then
    /// after that.
    static std::u16string readString(std::string_view text, size_t* pos, char close);
    /// Writes it, with those of `special` escaped besides the backslash.
    static void writeString(std::u16string_view text, std::string_view special, std::string* out);

    /// The path of a key, its parts separated by backslashes, in the line that begins its section.
    static std::u16string readKey(std::string_view line);

    /// Reads name, equals sign and data of a value: a line, with the lines that continue it.
    static std::u16string readValue(std::string_view lines, ZqRegData* data);
    /// The lines of a value, as Wine writes them.
    static std::string writeValue(std::u16string_view name, const ZqRegData& data);
    /// Whether another line belongs to the value that ends in `line`.
    static bool isContinued(std::string_view line);

    static std::string toBytes(std::u16string_view text);
    /// The UTF-16 units; an odd byte at the end is dropped.
    static std::u16string toUnits(std::string_view bytes);
};
