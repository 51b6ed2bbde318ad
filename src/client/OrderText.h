#pragma once

#include "Output.h"

#include <tavrin/SxSymbol.h>
#include <tavrin/ZqLeftTrace.h>
#include <tavrin/ZqOrderBasis.h>

#include <optional>
#include <vector>

/// What an order rests on, in one sentence.
SxString basisText(const ZqOrderBasis& order);
/// Adds the same as the object `order`, or null.
void appendOrder(SxParserKit::SxSymbol* result, const std::optional<ZqOrderBasis>& order);
/// Tells of traces that an order doesn't come from, a line each.
void tellLeft(const std::vector<ZqLeftTrace>& left, Output* out);
/// Adds them as the list `leftOut`, if there are any.
void appendLeft(SxParserKit::SxSymbol* result, const std::vector<ZqLeftTrace>& left);
