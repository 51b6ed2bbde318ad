#pragma once

#include "ZqReportTarget.h"

#include <optional>

/// A user's consent to reports of one application to one address. A value type.
struct ZqStatsConsent {
    SxString guid; ///< of the application
    ZqReportTarget target;
    SxList<SxString> sections; ///< that reports may have, at least one
    int64 givenMs = 0;         ///< when, in milliseconds since 1970 UTC; tells it from a former one

    bool operator==(const ZqStatsConsent&) const = default;
};

/// The consents of the user, in `$XDG_CONFIG_HOME/tavrin/statistics.json`: outside of images, which may be
/// copied to others. An application has one at the most, so that a later run knows without an option where
/// its report goes; another address replaces it. A file that is damaged, or that somebody else may have
/// written, raises and stays as it is. Safe from any thread and process.
class ZqStatsConsents {
public:
    using List = SxList<ZqStatsConsent>;

    /// The consent for an application, or none.
    static std::optional<ZqStatsConsent> find(const SxString& guid);
    /// Raises where that consent is no longer the one for its application.
    static void require(const ZqStatsConsent& consent);
    /// Notes a consent and gives it. With the address and sections of the one that is there, that stays, with
    /// other headers; else it is a new one.
    static ZqStatsConsent give(const SxString& guid, const ZqReportTarget& target,
                               const SxList<SxString>& wished);
    /// Nothing where there is none.
    static void takeBack(const SxString& guid);

    /// The file; empty where the user has no home folder.
    static SxString getFile();
    /// The file's text as consents; failures don't name the file.
    static List parse(const SxString& text);
    static SxString toText(const List& consents);
};
