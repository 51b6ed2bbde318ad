#include "ZqIndexFetch.h"

#include "SxException.h"
#include "ZqImageRecords.h"
#include "ZqUrlText.h"

namespace {
constexpr const char* UNIT = "src/base/feed/ZqIndexFetch";
} // namespace

ZqIndexFetch::ZqIndexFetch(const SxString& folder_, const SxString& url_, const SxArray<SxString>& headers_,
                           const ZqNetAccess& access_)
    : folder(folder_),
      url(url_),
      headers(headers_),
      access(access_) {
    setThreadName("index fetch");
}

SxString ZqIndexFetch::getName() const {
    return ZqUrlText::of(url);
}

void ZqIndexFetch::main() {
    try {
        ZqImageRecords records(SxPtr<ZqNetLink>::create(access), folder, url, headers);
        records.fetchIndex([this] { return stopRequested(); });
    } catch (const SxException& e) {
        throw SxException(e, "Cannot fetch the order of '" + getName() + "'", UNIT, __LINE__);
    }
}
