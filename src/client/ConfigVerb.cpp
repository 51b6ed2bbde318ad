#include "App.h"
#include "ClientSettings.h"
#include "Verbs.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/SxSymbol.h>
#include <tavrin/ZqImageAccess.h>
#include <tavrin/ZqImageFolder.h>

#include <cstdlib>

namespace {
constexpr const char* UNIT = "src/client/ConfigVerb";

using SxParserKit::SxSymbol;
using Source = ZqImageAccess::Source;

/// Shows values one after the other, with where they come from.
class ConfigList {
public:
    explicit ConfigList(Output* out_) : out(out_) { root.setType(SxParserAst::Object); }

    void putFile(const SxString& file) {
        const bool isThere = !file.isEmpty() && !SxFSAction::isGone(file);
        root.append("file", file);
        root.append("fileThere", isThere);
        out->text("Settings: " + file.makeVisible() + (isThere ? "" : " (isn't there)"));
    }

    /// `shown` is the value for people.
    template<class T>
    void put(const char* key, const T& value, const SxString& shown, Source source,
             const char* variable = nullptr) {
        SxSymbol object = root.append(key, SxParserAst::Object);
        object.append("value", value);
        object.append("from", wordOf(source));
        if (source == Source::Environment) object.append("variable", variable);
        const SxString from =
            source == Source::Environment ? SxString("environment, ") + variable : SxString(wordOf(source));
        out->text(SxString::sprintf("  %-7s ", key) + shown + "  (" + from + ")");
    }

    /// A part of the way to servers; empty `value` where the system settles it.
    void putAccess(const char* key, const SxString& value, const char* byDefault, Source source,
                   const char* variable) {
        const SxString held = source == Source::Environment ? SxString(std::getenv(variable)) : value;
        if (source == Source::Default) return put(key, SxParserAst::Null, byDefault, source);
        const SxString shown = ZqNetAccess::withoutPassword(held);
        put(key, shown, shown.makeVisible(), source, variable);
    }

    void finish() {
        if (out->getMode().json) out->object(root);
    }

private:
    static const char* wordOf(Source source) {
        switch (source) {
        case Source::Note:
            return "note";
        case Source::Environment:
            return "environment";
        case Source::Settings:
            return "settings";
        default:
            return "default";
        }
    }

    Output* const out;
    SxSymbol root;
};

Source sourceOf(bool isSet) {
    return isSet ? Source::Settings : Source::Default;
}

int config(const SxString& image, Output& out) {
    if (!image.isEmpty() && !SxFSAction::test_d(image))
        throw SxException("Image folder '" + image + "' not found", UNIT, __LINE__);
    const ClientSettings settings = ClientSettings::read();
    ZqAccessWish wish;
    wish.settings = settings.getAccess();
    const ZqImageAccess access = ZqImageAccess::of(image, wish);
    ConfigList list(&out);
    list.putFile(ClientSettings::getFile());
    if (settings.hasRate()) {
        list.put("rate", settings.getRate(), SxString(settings.getRate()) + " bytes a second",
                 Source::Settings);
    } else {
        list.put("rate", SxParserAst::Null, "no limit", Source::Default);
    }
    list.putAccess("proxy", access.get().proxy, "none", access.getProxySource(),
                   ZqImageAccess::proxyVariable());
    list.putAccess("cacert", access.get().trustFile, "authorities of the system", access.getTrustSource(),
                   ZqImageAccess::trustVariable());
    const auto truth = [&](const char* key, bool value, bool isSet) {
        list.put(key, value, value ? "true" : "false", sourceOf(isSet));
    };
    truth("notify", settings.isNotifying(), settings.hasNotify());
    truth("verify", settings.isVerifying(), settings.hasVerify());
    list.put("traces", settings.getNTraces(), SxString(settings.getNTraces()),
             sourceOf(settings.hasNTraces()));
    list.finish();
    return ExitSuccess;
}
} // namespace

void registerConfigVerb(App* app) {
    auto image = SxPtr<SxString>::create();
    app->verb("config", "Show the user's settings, and where each value comes from", "tavrin config --json")
        .optionalArgument("IMAGE", image.getPtr(), "Image folder whose notes count, too")
        .action([image](Output& out) { return config(*image, out); });
}
