#pragma once

#include "SxString.h"

/// A trace that an order doesn't come from.
struct ZqLeftTrace {
    SxString trace; ///< folder, as it was given
    SxString why;   ///< a clause, such as "is empty"
};
