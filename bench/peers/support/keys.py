"""Keys that reach a game on a display of its own, as if somebody played."""

import ctypes
import time

X11, XTST = ctypes.CDLL("libX11.so.6"), ctypes.CDLL("libXtst.so.6")
X11.XOpenDisplay.restype = ctypes.c_void_p
X11.XStringToKeysym.restype = ctypes.c_ulong
for function in (X11.XKeysymToKeycode, X11.XSync, X11.XCloseDisplay, XTST.XTestFakeKeyEvent):
    function.argtypes = None


class Keyboard:
    """A keyboard of the display `name` during a `with`."""

    def __init__(self, name):
        self.display = X11.XOpenDisplay(name.encode())
        if not self.display:
            raise RuntimeError(f"there is no display {name}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        X11.XCloseDisplay(ctypes.c_void_p(self.display))

    def press(self, key, seconds):
        """Holds a key for so long. It is named as X names it: Right, space, a, Control_L."""
        code = X11.XKeysymToKeycode(ctypes.c_void_p(self.display), ctypes.c_ulong(X11.XStringToKeysym(key.encode())))
        if code == 0:
            raise RuntimeError(f"no key is called {key}")
        for down in (1, 0):
            XTST.XTestFakeKeyEvent(ctypes.c_void_p(self.display), code, down, ctypes.c_ulong(0))
            X11.XSync(ctypes.c_void_p(self.display), 0)
            time.sleep(seconds if down else 0.05)
