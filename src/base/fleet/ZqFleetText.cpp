#include "ZqFleetText.h"

#include "ZqReadable.h"

SxString ZqFleetText::duration(double ms) {
    return ZqReadable::duration(ZqReadable::whole(ms));
}

SxString ZqFleetText::number(double n) {
    return ZqReadable::count(ZqReadable::whole(n));
}

SxString ZqFleetText::speed(double megabits) {
    return SxString::sprintf("%.1f Mbit/s", megabits);
}

SxString ZqFleetText::percent(double part, double whole) {
    return whole > 0 ? SxString::sprintf("%.1f %%", 100 * part / whole) : SxString("-");
}

SxString ZqFleetText::percent(int64 part, int64 whole) {
    return percent(static_cast<double>(part), static_cast<double>(whole));
}
