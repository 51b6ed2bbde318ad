"""The client and its service, as the benchmarks against peers use them."""

import contextlib
import json
import os
import pty
import shutil
import signal
from pathlib import Path

import lab

APP = "TAVRIN-protected/app"
# The mode of a mount that the service serves though the kernel could: the drive gets a write layer.
FOR_SERVICE = "rtw"
LAYER = ("img.tix", "img.tmp")


class Product:
    """The client with a machine root of its own, and its service."""

    def __init__(self, programs, folder):
        self.client = programs / "bin/tavrin"
        self.reader = programs / "bench/support/reader"
        self.folder = folder
        folder.mkdir()
        self.env = dict(os.environ, WINEPREFIX=str(folder / "root"), XDG_STATE_HOME=str(folder / "state"))
        self.pid = self.served = None

    def tavrin(self, *words):
        return lab.run(self.client, *words, env=self.env)

    def status(self, image):
        return json.loads(self.tavrin("status", image, "--json"))

    def mount(self, image, mode="ro"):
        """Gives the folder of the application on the drive."""
        self.tavrin("mount", image, "--mode", mode)
        return self.find_drive(image)

    def find_drive(self, image):
        """The same of an image that is mounted already."""
        status = self.status(image)
        self.pid, self.served = status["servicePid"], status["served"]
        return Path(status["mountPath"]) / APP

    @contextlib.contextmanager
    def mounted(self, image, mode="ro"):
        try:
            yield self.mount(image, mode)
        finally:
            self.unmount(image, mode)

    def unmount(self, image, mode):
        self.tavrin("umount", image)
        if mode == FOR_SERVICE:  # with the layer there, the service would have to serve the next drive, too
            for name in LAYER:
                (image / name).unlink(missing_ok=True)

    @contextlib.contextmanager
    def fed(self, image, url):
        """Mounted while it arrives from that address."""
        errors = self.folder / "mount.log"
        words = [self.client, "mount", image, "--url", url, "--mode", "ro"]
        # What the client prints to a file or pipe comes at its end. Until it has told where the drive is, that may be
        # one that goes again.
        terminal, out = pty.openpty()
        with open(terminal, "rb", buffering=0) as told, open(errors, "wb") as log:
            with lab.program(*words, env=self.env, log=log, out=out) as process:
                os.close(out)
                try:
                    told.read(1)
                except OSError as error:  # the client has ended
                    process.wait()
                    raise RuntimeError(f"mount has ended: {errors.read_text(encoding='utf-8')}") from error
                yield self.find_drive(image)

    def memory(self, key="VmRSS"):
        """Bytes of the service now; with "VmHWM" at its highest."""
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) * 1024 for line in status if line.startswith(key))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the service, if there is one."""
        for process in Path("/proc").glob("[0-9]*"):
            try:
                words = (process / "cmdline").read_bytes().decode(errors="replace").split("\0")
            except OSError:
                continue  # it has ended
            if words[0].endswith("/zqdd") and str(self.folder / "root") in words:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(int(process.name), signal.SIGTERM)
                lab.wait_until(lambda: not process.exists(), "the service ends")
                # Whoever comes next has another machine root, and would never find this.
                shutil.rmtree(words[words.index("--folder") + 1], ignore_errors=True)
