#include "NetOptions.h"
#include "App.h"
#include "ClientSettings.h"

#include <CLI/CLI.hpp>

const char* NetOptions::findGiven() const {
    if (!headers.isEmpty()) return "--header";
    if (trustFile) return "--cacert";
    return proxy ? "--proxy" : nullptr;
}

ZqAccessWish NetOptions::toWish(const ZqNetAccess& settings) const {
    ZqAccessWish wish;
    wish.trustFile = trustFile;
    wish.proxy = proxy;
    wish.settings = settings;
    return wish;
}

ZqNetAccess NetOptions::resolve(const SxString& image) const {
    const ZqNetAccess access = ZqImageAccess::of(image, toWish(ClientSettings::read().getAccess())).get();
    access.check();
    return access;
}

Verb& Verb::network(NetOptions* values, const char* help) {
    headers("--header", &values->headers, help);
    const auto takeFile = [values](const std::string& text) { values->trustFile = SxString(text); };
    const auto takeProxy = [values](const std::string& text) {
        if (ZqNetAccess::isProxyFault(SxString(text))) {
            throw CLI::ValidationError("--proxy takes " + std::string(ZqNetAccess::PROXY_TEXT) + ", not '" +
                                       ZqNetAccess::withoutPassword(SxString(text)).makeVisible().str() +
                                       "'");
        }
        values->proxy = SxString(text);
    };
    const auto add = [&](const char* name, const auto& take, const char* valueName, const char* text) {
        command->add_option_function<std::string>(name, take, text)
            ->type_name(valueName)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    };
    add("--cacert", takeFile, "FILE",
        "Trust the authorities of this file (PEM), and no others; noted in IMAGE, \"\" takes that back");
    add("--proxy", takeProxy, "URL",
        "Ask this proxy, or with none the server itself; noted in IMAGE, \"\" takes that back");
    return *this;
}
