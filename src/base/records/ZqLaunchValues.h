#pragma once

#include "SxList.h"
#include "SxSymbol.h"

class ZqAppParams;

/// The values of `app.json` that say how an application is started. A mount through a launcher replaces them
/// there, so those that the image came with are kept in `stream.json`. A value type.
struct ZqLaunchValues {
    SxString cmd;
    SxList<SxString> args;
    SxString name;
    int64 delay = 0; ///< seconds

    bool operator==(const ZqLaunchValues&) const = default;
    static ZqLaunchValues of(const ZqAppParams& app);
    void applyTo(ZqAppParams* app) const;

    /// Those that the image in the folder came with: what is kept, unless `app` has others than a launcher
    /// has written, since it has come anew. Raises where `stream.json` can't be read.
    static ZqLaunchValues originalOf(const SxString& image, const ZqAppParams& app);
    /// Replaces the values in `app.json` of the image folder by these, and nothing else there; keeps in
    /// `stream.json` those that the image came with. Raises naming the file.
    void write(const SxString& image) const;

    /// Reads the object, or fills it.
    void read(const SxParserKit::SxSymbol& object);
    void put(SxParserKit::SxSymbol object) const;
};
