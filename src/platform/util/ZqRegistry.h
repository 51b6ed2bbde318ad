#pragma once

#include "SxString.h"

/// Entries of the registry of a desktop with one, such as that of a Wine prefix.
class ZqRegistry {
public:
    /// Kind of a value's data. The numbers are of this library; the texts are the usual ones.
    enum RegValType {
        RegSz = 0,       ///< "REG_SZ", text
        RegDword = 1,    ///< "REG_DWORD", 32-bit number as decimal text
        RegQword = 2,    ///< "REG_QWORD", 64-bit number as decimal text
        RegExpandSz = 3, ///< "REG_EXPAND_SZ", text with variables
        RegMultiSz = 4,  ///< "REG_MULTI_SZ", several texts
        RegBinary = 5    ///< "REG_BINARY", bytes in hex
    };

    /// One value of a key.
    struct Item {
        SxString key;   ///< with forward slashes, starting with HKLM, HKCU or HKCR
        SxString value; ///< the value's name; empty for the key's default value
        RegValType regType = RegSz;
        SxString data;

        bool operator==(const Item&) const = default;

        /// The kind with that text ("REG_DWORD"); raises on an unknown one.
        static RegValType string2Type(const SxString& text);
        static SxString type2String(RegValType type);
    };
};
