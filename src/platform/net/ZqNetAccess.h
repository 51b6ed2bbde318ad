#pragma once

#include "SxString.h"

/// How this machine gets to servers, as its user says: whose certificates count, and the proxy. A value type.
struct ZqNetAccess {
    /// In the place of a proxy: servers are asked directly.
    static constexpr const char* DIRECT = "none";
    /// What isProxyFault() lets pass, for texts.
    static constexpr const char* PROXY_TEXT =
        "none or an address such as http://proxy:3128 (http, https, socks4, socks4a, socks5 or socks5h)";

    SxString trustFile; ///< certificates of authorities (PEM); empty for what environment or system name
    SxString proxy;     ///< its address, which may hold a password; empty for what the environment names

    /// Raises where `trustFile` isn't a file with certificates, or `proxy` no address of one.
    void check() const;
    /// Whether `proxy` is neither DIRECT nor the address of a proxy.
    static bool isProxyFault(const SxString& proxy);
    /// The address without its password, as images note it and texts show it.
    static SxString withoutPassword(const SxString& proxy);
};
