#pragma once

#include "SxString.h"

#include <string>
#include <string_view>

/// The text in UTF-16; bytes that aren't UTF-8 become U+FFFD.
std::u16string zqUtf16(const SxString& text);
/// The UTF-16 text up to its first NUL.
SxString zqFromUtf16(std::u16string_view text);
/// The text with each unit in upper case by the rules of Unicode, whatever the locale of the program: equal
/// for two names that mean the same where case doesn't count. Safe from any thread.
std::u16string zqFold(std::u16string_view text);
