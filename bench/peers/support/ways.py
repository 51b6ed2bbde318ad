"""What one would take instead of the client: each way is a `with` that gives the folder of the game, on the volume that
`url` has as `img.KIND`."""

import contextlib
import shutil
import urllib.request

import lab
import peers
from link import listing

NBDKIT, QEMU = ("nbdkit", "nbdfuse"), ("qemu-storage-daemon", "qemu-img")


@contextlib.contextmanager
def attached(file, kind, folder):
    with lab.loop(file, direct=False) as device, lab.volume(device, kind, folder / "volume") as top:
        yield top


@contextlib.contextmanager
def download(folder, url, kind):
    lab.run("curl", "--silent", "--fail", "--output", folder / "img", f"{url}img.{kind}")
    with attached(folder / "img", kind, folder) as top:
        yield top


@contextlib.contextmanager
def rclone(folder, url, kind):
    name = f"img.{kind}"
    shown = folder / "rclone"
    shown.mkdir()
    words = ["--vfs-cache-mode", "full", "--vfs-read-chunk-size", "256k", "--vfs-read-chunk-size-limit", "2M"]
    words += ["--buffer-size", "256k", "--vfs-read-ahead", "0", "--dir-cache-time", "1h", "--read-only"]
    words += ["--cache-dir", folder / "cache", "--config", "/dev/null", "--low-level-retries", "1"]
    with contextlib.ExitStack() as stack:
        log = stack.enter_context(open(folder / "rclone.log", "wb"))
        base = stack.enter_context(listing(url, name))
        words = ["rclone", "mount", ":http:", shown, "--http-url", base, *words]
        stack.enter_context(lab.program(*words, seconds=2, log=log))
        stack.callback(lab.unmount, shown)
        lab.wait_until(lambda: lab.mounted_at(shown), "rclone has mounted")
        yield stack.enter_context(attached(shown / name, kind, folder))


@contextlib.contextmanager
def nbdkit(folder, url, kind):
    words = ["--filter=cache", "curl", f"{url}img.{kind}", "cache-on-read=true", "cache-min-block-size=256k"]
    with open(folder / "nbdkit.log", "wb") as log, peers.nbdkit_file(folder, *words, log=log) as file:
        with attached(file, kind, folder) as top:
            yield top


@contextlib.contextmanager
def qemu(folder, url, kind):
    overlay = folder / "overlay.qcow2"
    with urllib.request.urlopen(urllib.request.Request(f"{url}img.{kind}", method="HEAD")) as head:
        lab.run("qemu-img", "create", "-q", "-f", "qcow2", overlay, head.headers["Content-Length"])
    blockdevs = [
        f"driver=http,node-name=h,url={url}img.{kind},readahead=262144,read-only=on",
        f"driver=qcow2,node-name=q,file.driver=file,file.filename={overlay},backing=h",
        "driver=copy-on-read,node-name=c,file=q",
    ]
    with open(folder / "qemu.log", "wb") as log, peers.qemu_file(folder, "c", *blockdevs, log=log) as file:
        with attached(file, kind, folder) as top:
            yield top


class Way:
    """`provide` gives the game's folder; None for the client, which starts the game itself."""

    def __init__(self, name, kind, served, needs, provide=None):
        self.name, self.kind, self.served, self.needs, self.provide = name, kind, served, needs, provide

    def missing(self):
        return [program for program in self.needs if not shutil.which(program)]
