#include "ZqReportSections.h"

#include "SxException.h"

namespace {
constexpr const char* UNIT = "src/base/ZqReportSections";
}

const SxList<SxString>& ZqReportSections::all() {
    static const SxList<SxString> names = {ENV, APPS, HOST, RUN, DOWNLOAD, ON_DEMAND, TRACE, PREPARATION};
    return names;
}

const SxList<SxString>& ZqReportSections::usual() {
    static const SxList<SxString> names = {RUN, DOWNLOAD, ON_DEMAND, TRACE, PREPARATION};
    return names;
}

SxList<SxString> ZqReportSections::of(const SxList<SxString>& wished) {
    if (wished.isEmpty()) return usual();
    for (const SxString& name : wished) {
        if (!all().contains(name)) {
            throw SxException("There is no section '" + name.makeVisible() + "'; there are " +
                                  SxString::join(all(), ", "),
                              UNIT, __LINE__);
        }
    }
    SxList<SxString> names;
    for (const SxString& name : all()) {
        if (wished.contains(name)) names.append(name);
    }
    return names;
}
