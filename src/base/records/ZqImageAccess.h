#pragma once

#include "ZqNetAccess.h"

#include <optional>

class ZqStreamRecord;

/// What a command says of the way to servers.
struct ZqAccessWish {
    /// Options: they hold before all else, and the image notes them. An empty text takes the note back.
    std::optional<SxString> trustFile, proxy;
    /// Of the user's settings: where neither an option, nor the image, nor the environment says anything.
    ZqNetAccess settings;
};

/// The way to the servers of an image. Of each part the first that is there holds: option, note in the image
/// (`stream.json`), environment, the user's settings. A value type.
class ZqImageAccess {
public:
    enum class Source { Option, Note, Environment, Settings, Default };

    ZqImageAccess() = default;
    /// `record`: of the image, as it is noted now.
    ZqImageAccess(const ZqStreamRecord& record, const ZqAccessWish& wish);
    /// The same with the record of the image folder `image`, which may be absent, or empty for no image.
    /// Raises where the record can't be read.
    static ZqImageAccess of(const SxString& image, const ZqAccessWish& wish);
    /// Notes the options of `wish` in the image folder `image`, where the note doesn't say the same. Raises
    /// as ZqStreamRecord::update() does.
    static void note(const SxString& image, const ZqAccessWish& wish);
    /// The same in `record`. Gives whether that has changed.
    static bool note(ZqStreamRecord* record, const ZqAccessWish& wish);

    /// For requests. What the environment says isn't part of it, since each request asks that itself.
    const ZqNetAccess& get() const { return access; }
    Source getTrustSource() const { return trustSource; }
    Source getProxySource() const { return proxySource; }
    /// The variable of the environment that holds for a part, with its value; null where none does.
    static const char* trustVariable();
    static const char* proxyVariable();

private:
    ZqNetAccess access;
    Source trustSource = Source::Default, proxySource = Source::Default;
};
