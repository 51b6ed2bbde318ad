#pragma once

#include "SxList.h"
#include "SxString.h"

/// What a user says of an application's statistics when it is run; nothing, as a rule.
struct ZqStatsWish {
    SxString url;              ///< consents to reports to this address; empty for what was said before
    SxList<SxString> headers;  ///< "NAME: VALUE", of each request; see ZqReportTarget
    SxList<SxString> sections; ///< that reports may have, by ZqReportSections; empty for the usual ones
    bool isRefused = false;    ///< takes the consent back
};
