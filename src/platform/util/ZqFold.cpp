#include "ZqFold.h"

#include <algorithm>
#include <clocale>
#include <cwctype>
#include <vector>

std::u16string zqUtf16(const SxString& text) {
    const SxArray<unsigned short> units = text.utf16();
    return {units.begin(), units.end() - 1};
}

SxString zqFromUtf16(std::u16string_view text) {
    std::vector<unsigned short> units(text.begin(), text.end());
    units.push_back(0);
    return SxString::fromUtf16(units.data());
}

std::u16string zqFold(std::u16string_view text) {
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::u16string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](char16_t unit) {
        // Nearly all there is, and far cheaper than asking the locale.
        if (unit < 0x80) return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - 0x20) : unit;
        const wint_t wide = unit;
        return static_cast<char16_t>(unicode ? towupper_l(wide, unicode) : towupper(wide));
    });
    return result;
}
