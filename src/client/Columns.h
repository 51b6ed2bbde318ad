#pragma once

#include <tavrin/SxString.h>

/// The columns that `text` takes on a terminal: two for each wide character, none for a mark that is drawn
/// onto the one before it.
int64 columnsOf(const SxString& text);

/// `text` in at most `width` columns. Of a longer one the parts at its end go that commas divide; where the
/// first is too long itself, its last words do, and "..." stands for them.
SxString shortenTo(const SxString& text, int64 width);
