#pragma once

#include "SxArray.h"
#include "ZqNetAccess.h"
#include "ZqTaskMon.h"

/// Job that fetches what makes an index folder from the folder of a published image: `app.json`, `img.json`
/// and the map, each checked. Blocks aren't fetched.
class ZqIndexFetch : public ZqTaskMon {
public:
    /// `folder_` exists and is empty. `headers_`: lines for each request.
    ZqIndexFetch(const SxString& folder_, const SxString& url_, const SxArray<SxString>& headers_,
                 const ZqNetAccess& access_ = {});

    /// The address as texts show it.
    SxString getName() const;

protected:
    void main() override;

private:
    const SxString folder, url;
    const SxArray<SxString> headers;
    const ZqNetAccess access;
};
