#pragma once

#include "SxException.h"

/// The address of an image folder, as users give it, and what is said where no image is there. Safe from any
/// thread.
class ZqImageAddress {
public:
    /// Raises where it isn't the address of a web server, but a path, say.
    static void require(const SxString& url);

    /// What something that came in the place of `app.json` is.
    enum Kind {
        Record,    ///< it is one; where it can't be used, that is for other reasons
        Listing,   ///< a page that lists the files of a folder
        Login,     ///< a page to log in to
        Page,      ///< another page for a browser
        OtherJson, ///< JSON of something else
        Other      ///< neither
    };
    static Kind kindOf(const SxString& text);

    /// That there is no image, since the server hasn't got its `app.json`, with the tags of `why`.
    static SxException absent(const SxString& url, const SxException& why);
    /// The same, since it gives something of that kind instead. `why`: what the reader of it says, which is
    /// all where it is a record.
    static SxException other(const SxString& url, Kind kind, const SxException& why);
};
