#pragma once

#include "ZqDesktop.h"

/// The primary screen of the display that DISPLAY names, as the RandR extension 1.3 tells it: the output that
/// the player calls primary, else the first one that shows something, else the whole of the display.
namespace ZqX11Screen {

/// Nothing where there is no display. By a connection of its own, so that who waits for a display that has
/// stopped answering holds nobody else up. Safe from any thread.
ZqDesktop::Size read();

} // namespace ZqX11Screen
