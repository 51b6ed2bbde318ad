#include "ZqRegistry.h"

#include "SxException.h"

#include <array>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqRegistry";
/// In the order of RegValType.
constexpr std::array TYPE_TEXTS{"REG_SZ",        "REG_DWORD",    "REG_QWORD",
                                "REG_EXPAND_SZ", "REG_MULTI_SZ", "REG_BINARY"};

} // namespace

ZqRegistry::RegValType ZqRegistry::Item::string2Type(const SxString& text) {
    for (size_t i = 0; i < TYPE_TEXTS.size(); ++i) {
        if (text == TYPE_TEXTS[i]) return static_cast<RegValType>(i);
    }
    throw SxException("Unknown kind of registry value '" + text + "'", UNIT, __LINE__);
}

SxString ZqRegistry::Item::type2String(RegValType type) {
    const auto i = static_cast<size_t>(type);
    if (i >= TYPE_TEXTS.size()) {
        throw SxException("Unknown kind of registry value " + SxString(static_cast<int>(type)), UNIT,
                          __LINE__);
    }
    return TYPE_TEXTS[i];
}
