#pragma once

#include "SxString.h"

/// Figures of a fleet as people read them, in tables and on the page. Safe from any thread.
namespace ZqFleetText {

/// Milliseconds, as ZqReadable::duration() has them.
SxString duration(double ms);
/// A number, as ZqReadable::count() has it.
SxString number(double n);
/// A speed, given in megabit per second, with its unit.
SxString speed(double megabits);
/// The share of a part, such as "4.8 %"; "-" of nothing.
SxString percent(double part, double whole);
SxString percent(int64 part, int64 whole);

} // namespace ZqFleetText
