"""Keys that reach a game on a display of its own, as if somebody played."""

import ctypes
import time

X11, XTST = ctypes.CDLL("libX11.so.6"), ctypes.CDLL("libXtst.so.6")
DISPLAY, KEYSYM, FLAG = ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int
X11.XOpenDisplay.restype, X11.XOpenDisplay.argtypes = DISPLAY, [ctypes.c_char_p]
X11.XStringToKeysym.restype, X11.XStringToKeysym.argtypes = KEYSYM, [ctypes.c_char_p]
X11.XKeysymToKeycode.restype, X11.XKeysymToKeycode.argtypes = ctypes.c_ubyte, [DISPLAY, KEYSYM]
X11.XSync.argtypes = [DISPLAY, FLAG]
X11.XCloseDisplay.argtypes = [DISPLAY]
XTST.XTestFakeKeyEvent.argtypes = [DISPLAY, ctypes.c_uint, FLAG, ctypes.c_ulong]
AFTER_S = 0.05  # from one key to the next


class Keyboard:
    """A keyboard of the display `name` during a `with`."""

    def __init__(self, name):
        self.display = X11.XOpenDisplay(name.encode())
        if not self.display:
            raise RuntimeError(f"there is no display {name}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        X11.XCloseDisplay(self.display)

    def press(self, key, seconds):
        """Holds a key for so long. It is named as X names it: Right, space, a, Control_L."""
        code = X11.XKeysymToKeycode(self.display, X11.XStringToKeysym(key.encode()))
        if code == 0:
            raise RuntimeError(f"no key is called {key}")
        for is_down, pause_s in ((1, seconds), (0, AFTER_S)):
            XTST.XTestFakeKeyEvent(self.display, code, is_down, 0)
            X11.XSync(self.display, 0)
            time.sleep(pause_s)
