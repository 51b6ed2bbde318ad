#include "ZqStatsConsent.h"

#include "SxException.h"
#include "ZqFileLock.h"
#include "ZqPrivateFile.h"
#include "ZqRecordFile.h"
#include "ZqReportSections.h"
#include "ZqSysEnv.h"
#include "ZqXdg.h"

#include <algorithm>
#include <functional>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqStatsConsent";
constexpr const char* SCHEMA = "zqstatistics-schema.json";
constexpr int64 VERSION = 2;

ZqStatsConsents::List read(const SxString& file) {
    try {
        const std::optional<SxString> text = ZqPrivateFile::read(file);
        return text ? ZqStatsConsents::parse(*text) : ZqStatsConsents::List();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

/// Changes the file, under its lock; `change` gives whether there is something to write.
void update(const std::function<bool(ZqStatsConsents::List*)>& change) {
    const SxString file = ZqStatsConsents::getFile();
    if (file.isEmpty())
        throw SxException("The user has no home folder, where a consent could be noted", UNIT, __LINE__);
    ZqPrivateFile::makeFolder(file);
    const ZqFileLock lock(file + ".lock", "Another client changes '" + file + "' at the moment",
                          "Cannot lock '" + file + "'", ZqPrivateFile::LOCK_MS);
    ZqStatsConsents::List consents = read(file);
    if (!change(&consents)) return;
    try {
        if (consents.isEmpty()) {
            ZqPrivateFile::remove(file);
        } else {
            ZqPrivateFile::write(file, ZqStatsConsents::toText(consents));
        }
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

auto findIn(ZqStatsConsents::List& consents, const SxString& guid) {
    return std::find_if(consents.begin(), consents.end(),
                        [&](const ZqStatsConsent& consent) { return consent.guid == guid; });
}

} // namespace

SxString ZqStatsConsents::getFile() {
    const std::string folder = zqXdgFolder("XDG_CONFIG_HOME", ".config");
    return folder.empty() ? SxString() : SxString(folder + "/tavrin/statistics.json");
}

std::optional<ZqStatsConsent> ZqStatsConsents::find(const SxString& guid) {
    const SxString file = getFile();
    if (file.isEmpty()) return std::nullopt;
    List consents = read(file);
    const auto found = findIn(consents, guid);
    return found == consents.end() ? std::nullopt : std::optional(*found);
}

void ZqStatsConsents::require(const ZqStatsConsent& consent) {
    const std::optional<ZqStatsConsent> current = find(consent.guid);
    if (!current || current->givenMs != consent.givenMs)
        throw SxException("The consent to reports was taken back", UNIT, __LINE__);
}

ZqStatsConsent ZqStatsConsents::give(const SxString& guid, const ZqReportTarget& target,
                                     const SxList<SxString>& wished) {
    const SxList<SxString> sections = ZqReportSections::of(wished);
    ZqStatsConsent consent{guid, target, sections, ZqSysEnv::getSysTime()};
    update([&](List* consents) {
        const auto former = findIn(*consents, guid);
        if (former == consents->end()) {
            consents->append(consent);
            return true;
        }
        const bool isSame = former->target.getUrl() == target.getUrl() && former->sections == sections;
        // A clock that was set back mustn't make two consents look like one.
        consent.givenMs = isSame ? former->givenMs : std::max(consent.givenMs, former->givenMs + 1);
        const bool isNew = consent != *former;
        *former = consent;
        return isNew;
    });
    return consent;
}

void ZqStatsConsents::takeBack(const SxString& guid) {
    if (!find(guid)) return;
    update([&](List* consents) {
        const auto former = findIn(*consents, guid);
        if (former == consents->end()) return false;
        consents->removeItem(former);
        return true;
    });
}

ZqStatsConsents::List ZqStatsConsents::parse(const SxString& text) {
    List consents;
    const SxSymbol root = ZqRecordFile::parse(text, "statistics.json", SCHEMA);
    for (const SxSymbol& object : root.getElem("consents").toList()) {
        ZqStatsConsent consent;
        consent.guid = object.getElem("guid").toString();
        consent.target =
            ZqReportTarget(object.getElem("url").toString(), object.getElem("headers").toStringList());
        consent.sections = ZqReportSections::of(object.getElem("sections").toStringList());
        consent.givenMs = object.getElem("given").toInt();
        if (findIn(consents, consent.guid) != consents.end()) {
            throw SxException("There are two consents for the application '" +
                                  SxParserKit::excerpt(consent.guid) + "'",
                              UNIT, __LINE__);
        }
        consents.append(consent);
    }
    return consents;
}

SxString ZqStatsConsents::toText(const List& consents) {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("version", VERSION);
    SxSymbol list = root.append("consents", SxParserAst::Array);
    for (const ZqStatsConsent& consent : consents) {
        SxSymbol object = list.append(SxParserAst::Object);
        object.append("guid", consent.guid);
        object.append("url", consent.target.getUrl());
        SxSymbol headers = object.append("headers", SxParserAst::Array);
        for (const SxString& header : consent.target.getHeaders())
            headers.append(header);
        SxSymbol sections = object.append("sections", SxParserAst::Array);
        for (const SxString& section : consent.sections)
            sections.append(section);
        object.append("given", consent.givenMs);
    }
    return root.toJson(4) + "\n";
}
