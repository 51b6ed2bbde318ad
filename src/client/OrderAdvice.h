#pragma once

#include "Output.h"

#include <tavrin/ZqAppParams.h>

/// Tells, of the image in `image` that no trace has given an order, what its players go through at a usual
/// speed, and which commands change that.
void tellWithoutOrder(const SxString& image, const ZqAppParams& app, Output* out);
