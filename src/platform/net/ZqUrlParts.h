#pragma once

#include <optional>
#include <string>

/// The parts of an address as libcurl takes it; each empty where the address has none. A value type.
struct ZqUrlParts {
    std::string scheme, host;
    std::string port; ///< that of the scheme where the address names none

    /// Nothing where that is no address, of whatever scheme.
    static std::optional<ZqUrlParts> of(const std::string& url);
};
