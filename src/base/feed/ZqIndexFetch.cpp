#include "ZqIndexFetch.h"

#include "SxException.h"
#include "ZqImageRecords.h"
#include "ZqUrlText.h"

namespace {
constexpr const char* UNIT = "src/base/feed/ZqIndexFetch";
} // namespace

ZqIndexFetch::ZqIndexFetch(const SxString& folder_, const SxString& url_, const SxArray<SxString>& headers_)
    : folder(folder_),
      url(url_),
      headers(headers_) {
    setThreadName("index fetch");
}

void ZqIndexFetch::main() {
    const ZqStopTest stop = [this] { return stopRequested(); };
    try {
        const auto link = SxPtr<ZqNetLink>::create();
        ZqImageRecords records(link, folder, url, headers);
        bool isConfirmed = false;
        const ZqAppParams app = records.fetchApp(false, &isConfirmed, stop);
        app.requireKnownFormat();
        records.fetchRest(app, stop);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot fetch the order of '" + ZqUrlText::of(url) + "'", UNIT, __LINE__);
    }
}
