#include "ZqImageAccess.h"

#include "SxFileInfo.h"
#include "ZqStreamRecord.h"

#include <cstdlib>
#include <initializer_list>

namespace {
const char* firstOf(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody here sets any
        if (value && *value) return name;
    }
    return nullptr;
}

/// What an image notes of an option.
SxString trustNote(const SxString& trustFile) {
    return trustFile.isEmpty() ? SxString() : SxFileInfo(trustFile).getAbsPath();
}

/// The first of the four that is there, and which it is.
ZqImageAccess::Source choose(const std::optional<SxString>& option, const SxString& noted,
                             const char* variable, const SxString& setting, SxString* value) {
    using Source = ZqImageAccess::Source;
    if (option && !option->isEmpty()) {
        *value = *option;
        return Source::Option;
    }
    if (!option && !noted.isEmpty()) {
        *value = noted;
        return Source::Note;
    }
    if (variable) return Source::Environment;
    *value = setting;
    return setting.isEmpty() ? Source::Default : Source::Settings;
}
} // namespace

ZqImageAccess::ZqImageAccess(const ZqStreamRecord& record, const ZqAccessWish& wish)
    : trustSource(choose(wish.trustFile, record.trustFile, trustVariable(), wish.settings.trustFile,
                         &access.trustFile)),
      proxySource(choose(wish.proxy, record.proxy, proxyVariable(), wish.settings.proxy, &access.proxy)) {
    if (proxySource == Source::Environment) access.spareProxy = wish.settings.proxy;
    // A note has no password; the settings may have it.
    if (proxySource == Source::Note && access.proxy == ZqNetAccess::withoutPassword(wish.settings.proxy))
        access.proxy = wish.settings.proxy;
}

ZqImageAccess ZqImageAccess::of(const SxString& image, const ZqAccessWish& wish) {
    ZqStreamRecord record;
    if (!image.isEmpty()) record.read(image);
    return {record, wish};
}

void ZqImageAccess::note(const SxString& image, const ZqAccessWish& wish) {
    ZqStreamRecord record;
    record.read(image);
    if (!note(&record, wish)) return;
    ZqStreamRecord::update(image, [&](ZqStreamRecord* now) { note(now, wish); });
}

bool ZqImageAccess::note(ZqStreamRecord* record, const ZqAccessWish& wish) {
    const SxString trustFile = wish.trustFile ? trustNote(*wish.trustFile) : record->trustFile;
    const SxString proxy = wish.proxy ? ZqNetAccess::withoutPassword(*wish.proxy) : record->proxy;
    if (trustFile == record->trustFile && proxy == record->proxy) return false;
    record->trustFile = trustFile;
    record->proxy = proxy;
    return true;
}

const char* ZqImageAccess::trustVariable() {
    return firstOf({"SSL_CERT_FILE", "SSL_CERT_DIR"});
}

const char* ZqImageAccess::proxyVariable() {
    return firstOf({"https_proxy", "HTTPS_PROXY", "http_proxy", "all_proxy", "ALL_PROXY"});
}
