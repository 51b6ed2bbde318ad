#include "ZqWaitingReports.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqFileLock.h"
#include "ZqPrivateFile.h"
#include "ZqRecordFile.h"
#include "ZqXdg.h"

#include <algorithm>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqWaitingReports";
constexpr const char* SCHEMA = "zqreports-schema.json";
constexpr int64 VERSION = 2;

/// Empty where the user has no home folder.
SxString fileOf(const SxString& guid) {
    const std::string folder = zqXdgFolder("XDG_STATE_HOME", ".local/state");
    if (folder.empty()) return {};
    return SxString(folder) + "/tavrin/statistics/" + SxMd5::get(guid) + ".json";
}

ZqFileLock lockOf(const SxString& file) {
    if (file.isEmpty()) {
        throw SxException("There is no folder for reports that wait, since the user has no home folder", UNIT,
                          __LINE__);
    }
    ZqPrivateFile::makeFolder(file);
    return ZqFileLock(file + ".lock", "Another client changes '" + file + "' at the moment",
                      "Cannot lock '" + file + "'", ZqPrivateFile::LOCK_MS);
}

void putDocument(SxSymbol object, const char* key, const SxSymbol& document) {
    if (document.isValid()) object.appendCopy(key, document);
}

void checkSize(const SxSymbol& document) {
    if (!document.isValid()) return;
    if (static_cast<int64>(document.toJson().str().size()) <= ZqWaitingReports::MAX_DOCUMENT) return;
    throw SxException(SxString("The report has more than ") + ZqWaitingReports::MAX_DOCUMENT + " bytes", UNIT,
                      __LINE__);
}

/// What is done goes first. Those that have something to send, and those that haven't, are bounded each for
/// themselves. The run `own` that is under way doesn't count, so that none goes for it untried.
void dropOld(ZqWaitingReports::List* reports, const SxString& own) {
    const auto isDone = [](const ZqWaitingReports::Report& report) {
        return report.isEnded && report.isSent();
    };
    for (auto done = reports->begin(); done != reports->end();) {
        const auto at = done++;
        if (isDone(*at)) reports->removeItem(at);
    }
    for (const bool isSent : {false, true}) {
        const auto counts = [&](const ZqWaitingReports::Report& report) {
            return report.isSent() == isSent && (report.isEnded || !(report.id == own));
        };
        while (std::count_if(reports->begin(), reports->end(), counts) > ZqWaitingReports::MAX)
            reports->removeItem(std::find_if(reports->begin(), reports->end(), counts));
    }
}

auto findIn(ZqWaitingReports::List& reports, const SxString& id) {
    return std::find_if(reports.begin(), reports.end(),
                        [&](const ZqWaitingReports::Report& report) { return report.id == id; });
}

} // namespace

ZqWaitingReports::ZqWaitingReports(const ZqStatsConsent& consent_)
    : consent(consent_),
      file(fileOf(consent_.guid)) {
}

ZqWaitingReports::List ZqWaitingReports::read() const {
    try {
        const std::optional<SxString> text = ZqPrivateFile::read(file);
        if (!text) return {};
        const Content content = parse(*text);
        const bool isOurs = content.guid == consent.guid && content.givenMs == consent.givenMs;
        return isOurs ? content.reports : List();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

std::optional<ZqWaitingReports::Report> ZqWaitingReports::find(const SxString& id) const {
    List reports = read();
    const auto found = findIn(reports, id);
    return found == reports.end() ? std::nullopt : std::optional(*found);
}

void ZqWaitingReports::change(const SxString& id, const std::function<void(Report* report)>& change) const {
    update(id, [&](List* reports) {
        auto found = findIn(*reports, id);
        if (found == reports->end()) {
            reports->append(Report{id, {}, {}, {}, false});
            found = findIn(*reports, id);
        }
        change(&*found);
        checkSize(found->post);
        checkSize(found->patch);
    });
}

void ZqWaitingReports::remove(const SxString& id) const {
    update(id, [&](List* reports) {
        const auto found = findIn(*reports, id);
        if (found != reports->end()) reports->removeItem(found);
    });
}

void ZqWaitingReports::update(const SxString& own, const std::function<void(List* reports)>& change) const {
    const ZqFileLock lock = lockOf(file);
    // Whoever takes a consent back removes the file after that, under this lock. So it doesn't come again.
    ZqStatsConsents::require(consent);
    Content content{consent.guid, consent.givenMs, read()};
    change(&content.reports);
    dropOld(&content.reports, own);
    try {
        if (content.reports.isEmpty()) {
            ZqPrivateFile::remove(file);
        } else {
            ZqPrivateFile::write(file, toText(content));
        }
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

void ZqWaitingReports::forget(const SxString& guid) {
    const SxString file = fileOf(guid);
    if (file.isEmpty() || SxFSAction::isGone(file)) return;
    const ZqFileLock lock = lockOf(file);
    ZqPrivateFile::remove(file);
}

ZqWaitingReports::Content ZqWaitingReports::parse(const SxString& text) {
    const SxSymbol root = ZqRecordFile::parse(text, "reports", SCHEMA);
    Content content;
    content.guid = root.getElem("guid").toString();
    content.givenMs = root.getElem("given").toInt();
    for (const SxSymbol& object : root.getElem("reports").toList()) {
        Report report{object.getElem("id").toString(), object.getElem("token").toString(),
                      object.getElem("post", false), object.getElem("patch", false)};
        ZqRecordFile::get(object, "ended", &report.isEnded);
        if (findIn(content.reports, report.id) != content.reports.end())
            throw SxException("There are two reports of one run", UNIT, __LINE__);
        content.reports.append(report);
    }
    return content;
}

SxString ZqWaitingReports::toText(const Content& content) {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("version", VERSION);
    root.append("guid", content.guid);
    root.append("given", content.givenMs);
    SxSymbol list = root.append("reports", SxParserAst::Array);
    for (const Report& report : content.reports) {
        SxSymbol object = list.append(SxParserAst::Object);
        object.append("id", report.id);
        object.append("token", report.token);
        putDocument(object, "post", report.post);
        putDocument(object, "patch", report.patch);
        if (report.isEnded) object.append("ended", true);
    }
    return root.toJson() + "\n";
}
