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
    /// The proxy where `proxy` is empty and the environment names none for an address; may be empty, too.
    SxString spareProxy;

    /// Raises where `trustFile` isn't a file with certificates, or `proxy` no address of one.
    void check() const;
    /// Whether `proxy` is neither DIRECT nor the address of a proxy.
    static bool isProxyFault(const SxString& proxy);
    /// The variable of the environment that names the proxy for a scheme, such as "https"; null for none.
    static const char* proxyVariable(const SxString& scheme);
    /// What holds for requests to `url`; empty for what the environment says.
    SxString proxyFor(const SxString& url) const;
    /// The address without its password, as images note it and texts show it.
    static SxString withoutPassword(const SxString& proxy);
};
