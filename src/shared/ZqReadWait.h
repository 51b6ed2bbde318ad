#pragma once

#include "SxTypes.h"

/// What counts as a wait for data, for the service that measures it and the run that tells it.
namespace ZqReadWait {
/// A time in which at least one read was held without a break counts where it is longer; nanoseconds.
constexpr int64 LEAST_NS = 500'000'000;
} // namespace ZqReadWait
