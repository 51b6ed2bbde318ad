#pragma once

#include "SxString.h"

#include <string>

/// Two lower-case hexadecimal digits for each byte.
SxString zqHex(const std::string& bytes);
/// The bytes of such digits, in either case. Raises where the text is anything else.
std::string zqBytesOfHex(const SxString& text);
