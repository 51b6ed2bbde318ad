"""What tests of the client in Python share."""

import os
import tempfile


def enter(test_class):
    """Has all tests of the class work in a folder of their own, with settings, state and machine root of their own, and
    without the proxies and authorities of this machine."""
    home = tempfile.TemporaryDirectory()
    test_class.addClassCleanup(home.cleanup)
    os.chdir(home.name)
    test_class.addClassCleanup(os.chdir, "/")
    for name in [name for name in os.environ if name.lower().endswith("_proxy") or name.startswith("SSL_CERT")]:
        del os.environ[name]
    for name, folder in (("XDG_CONFIG_HOME", "config"), ("XDG_STATE_HOME", "state"), ("WINEPREFIX", "root")):
        os.environ[name] = f"{home.name}/{folder}"
