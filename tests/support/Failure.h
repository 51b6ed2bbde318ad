#pragma once

#include "SxException.h"

#include <functional>
#include <string>

/// The messages of the failure, outermost first, or an empty text.
inline std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SxException& e) {
        return e.what();
    }
    return "";
}
