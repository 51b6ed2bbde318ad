#pragma once

#include "SxString.h"

#include <vector>

/// The operating system.
struct ZqSystemFacts {
    /// Its name and version, and those of its kernel: "Debian GNU/Linux 12 (bookworm) kernel 6.18.0".
    SxString name = "Unknown";
    std::vector<SxString> faults;

    /// Reads `etc/os-release`, else `usr/lib/os-release`, and `proc/sys/kernel/osrelease` below `root`. Never
    /// raises; `faults` says what can't be told. Safe from any thread.
    static ZqSystemFacts read(const SxString& root = "/");
    /// A value of os-release(5): a text of shell words, of which the last with that name counts. Empty where
    /// there is none.
    static std::string valueOf(std::string_view text, std::string_view name);
};
