#pragma once

#include "SxString.h"

/// What pages of HTML have in common: their frame and style, which serves light and dark surroundings, wide
/// and narrow screens. A page refers to nothing outside, and holds no script. Safe from any thread.
namespace ZqPage {

/// The whole page. `title` and `body` are HTML.
SxString document(const SxString& title, const SxString& body);
/// An entry of a `dl` of the class "tiles"; `value` and `more` are plain texts, of whatever origin.
SxString tile(const char* name, const SxString& value, const SxString& more = SxString());

} // namespace ZqPage
