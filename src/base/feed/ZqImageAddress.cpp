#include "ZqImageAddress.h"

#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqNetLink.h"
#include "ZqUrlText.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace {

constexpr const char* UNIT = "src/base/feed/ZqImageAddress";
/// So much of a page is looked at.
constexpr size_t MOST = 65536;

SxString wanted() {
    return SxString("give the address of the folder that holds ") + ZqImageFiles::APP_JSON + ", " +
           ZqImageFiles::IMAGE_JSON + ", " + ZqImageFiles::IDX + " and " + ZqImageFiles::ZQF;
}

SxString begin(const SxString& url) {
    return "No image at this address, " + ZqUrlText::of(url) + ": ";
}

std::string lowered(const SxString& text) {
    std::string low = text.str().substr(0, MOST);
    std::transform(low.begin(), low.end(), low.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return low;
}

/// The name of a file of an image that the address ends in; empty for none.
SxString fileIn(const SxString& url) {
    std::string path = url.str().substr(0, url.str().find_first_of("?#"));
    while (path.ends_with("/"))
        path.pop_back();
    const SxString name = path.substr(path.rfind('/') + 1);
    for (const char* each : {ZqImageFiles::APP_JSON, ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX,
                             ZqImageFiles::ZQF, ZqImageFiles::PACKED, ZqImageFiles::IDX_PACKED}) {
        if (name == each) return name;
    }
    return {};
}

} // namespace

void ZqImageAddress::require(const SxString& url) {
    if (ZqUrlText::isAddress(url)) return;
    const SxString shown = "'" + ZqUrlText::of(url) + "' ";
    if (SxFSAction::test_d(url) && ZqImageFolder::holdsImage(url)) {
        throw SxException(shown +
                              "is no address but an image folder of this machine: play it with 'tavrin run " +
                              url.makeVisible() + "', or serve it with 'tavrin serve'",
                          UNIT, __LINE__);
    }
    throw SxException(shown +
                          "is no address of a web server, which begins with http:// or https://: " + wanted(),
                      UNIT, __LINE__);
}

ZqImageAddress::Kind ZqImageAddress::kindOf(const SxString& text) {
    const std::string low = lowered(text);
    const size_t first = low.find_first_not_of("\xef\xbb\xbf \t\r\n");
    if (first == std::string::npos) return Other;
    if (low[first] == '{') return low.find("\"checksums\"") != std::string::npos ? Record : OtherJson;
    if (low[first] == '[') return OtherJson;
    if (low[first] != '<') return Other;
    const auto has = [&](const char* part) { return low.find(part) != std::string::npos; };
    if (has("type=\"password\"") || has("type='password'") || has("type=password")) return Login;
    if (has("<title>index of ") || has("<h1>index of ") || has("directory listing")) return Listing;
    if (has("log in") || has("login") || has("sign in")) return Login;
    return Page;
}

SxException ZqImageAddress::absent(const SxString& url, const SxException& why) {
    const SxString file = fileIn(url);
    const SxString text = file.isEmpty() ? "the server has no app.json there; " + wanted()
                                         : "it is that of a file; leave '" + file + "' away, and " + wanted();
    return SxException(why, begin(url) + text, UNIT, __LINE__);
}

SxException ZqImageAddress::other(const SxString& url, Kind kind, const SxException& why) {
    const auto page = [&](const char* what) {
        // The reader's own words add nothing to that.
        return SxException(ZqNetLink::WRONG,
                           begin(url) + "the server answers with a web page instead of app.json, " + what +
                               wanted(),
                           UNIT, __LINE__);
    };
    switch (kind) {
    case Listing:
        return page("a listing of files; ");
    case Login:
        return page("one to log in to; log in with a browser where the network wants that, or give what the "
                    "server asks for with --header, and ");
    case Page:
        return page("one for browsers; ");
    case OtherJson:
        return SxException(why, begin(url) + "the app.json there is that of something else; " + wanted(),
                           UNIT, __LINE__);
    case Record:
        return why;
    case Other:
        break;
    }
    return SxException(why, begin(url) + "what the server gives as app.json is no JSON; " + wanted(), UNIT,
                       __LINE__);
}
