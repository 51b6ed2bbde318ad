#pragma once

#ifdef SX_DEBUG_MSG
#include "SxString.h"

#include <cstdio>
#endif

/// Takes any arguments and does nothing with them, so that they don't count as unused.
template<class... Args>
constexpr void SX_UNUSED(const Args&...) noexcept {
}

/// Debug trace. `producer` gives the text (SxString) and is not run unless the program is built with
/// SX_DEBUG_MSG; then the line goes to standard error.
template<class Producer>
void sxDbgMsg(const char* file, int line, const char* function, const Producer& producer) {
#ifdef SX_DEBUG_MSG
    const SxString text = producer();
    std::fprintf(stderr, "%s:%d:%s: %s\n", file, line, function, text.ascii());
#else
    SX_UNUSED(file, line, function, producer);
#endif
}
