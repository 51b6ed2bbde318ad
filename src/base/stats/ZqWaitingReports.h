#pragma once

#include "SxSymbol.h"
#include "ZqStatsConsent.h"

#include <functional>
#include <optional>

/// The reports of an application's runs that wait to be sent, in `$XDG_STATE_HOME/tavrin/statistics/`: a file
/// for each application, named by the MD5 text of its guid, which may be any text. They belong to one
/// consent: under another one they aren't there. A file that is damaged, or that somebody else may have
/// written, raises and stays as it is. Safe from any thread and process.
class ZqWaitingReports {
public:
    /// Reports that wait for one consent, at the most; when there are more, the oldest go. The run under way
    /// counts once it has ended. The same number of
    /// runs is known whose first report the service has, and which may have another one to come.
    static constexpr int64 MAX = 20;
    /// Bytes of a document, so that a full file can still be read.
    static constexpr int64 MAX_DOCUMENT = 128 << 10;

    /// The two reports of one run.
    struct Report {
        SxString id;                       ///< of the run's record
        SxString token;                    ///< that the service has given; may be empty
        SxParserKit::SxSymbol post, patch; ///< documents; not valid where there is nothing to send
        bool isEnded = false;              ///< no other document will come
        bool isSent() const { return !post.isValid() && !patch.isValid(); }
    };
    using List = SxList<Report>;
    /// What the file holds.
    struct Content {
        SxString guid;
        int64 givenMs = 0; ///< of the consent
        List reports;      ///< the oldest first
    };

    explicit ZqWaitingReports(const ZqStatsConsent& consent_);

    List read() const;
    std::optional<Report> find(const SxString& id) const;
    /// Changes the report of that run, which is a new one where there is none; one that has ended and is sent
    /// goes. Raises where the consent was taken back, or a document is too large; nothing is written then.
    void change(const SxString& id, const std::function<void(Report* report)>& change) const;
    void remove(const SxString& id) const;
    /// Removes all reports of an application.
    static void forget(const SxString& guid);

    const SxString& getFile() const noexcept { return file; }
    /// The file's text; failures don't name the file.
    static Content parse(const SxString& text);
    static SxString toText(const Content& content);

private:
    void update(const SxString& own, const std::function<void(List* reports)>& change) const;

    ZqStatsConsent consent;
    SxString file;
};
