#pragma once

#include <tavrin/SxList.h>
#include <tavrin/ZqImageAccess.h>

/// The options of all verbs that download; Verb::network() adds them.
struct NetOptions {
    SxList<SxString> headers;
    std::optional<SxString> trustFile, proxy;

    /// The first of them that was given, as in "--header"; null where none was.
    const char* findGiven() const;
    /// What they say of the way to servers, and where they say nothing, `settings`.
    ZqAccessWish toWish(const ZqNetAccess& settings) const;
    /// Notes them in the image folder `image`, as far as they were given.
    void note(const SxString& image) const { ZqImageAccess::note(image, toWish({})); }
    /// The way to servers for a job on the image folder `image`, as they, its note and the user's settings
    /// say. Raises where it is none, or the settings are wrong.
    ZqNetAccess resolve(const SxString& image) const;
};
