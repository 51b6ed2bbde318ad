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

/// The failure itself, for its tags; an empty one where there is none.
inline SxException exceptionOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SxException& e) {
        return e;
    }
    return {};
}
