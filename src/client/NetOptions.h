#pragma once

#include <tavrin/SxList.h>
#include <tavrin/ZqImageAccess.h>

/// The options of all verbs that download; Verb::network() adds them.
struct NetOptions {
    SxList<SxString> headers;
    std::optional<SxString> trustFile, proxy;

    /// The first of them that was given, as in "--header"; null where none was.
    const char* findGiven() const;
    /// What they and the user's settings say of the way to servers.
    ZqAccessWish toWish() const;
    /// The way to servers for a job on the image folder `image`, which may have noted one. Raises where it is
    /// none.
    ZqNetAccess resolve(const SxString& image) const;
};
