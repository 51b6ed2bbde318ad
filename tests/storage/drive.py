"""A drive that is written to: a copy of an image of its own, mounted by a service of its own, for the length of a
`with`. What programs use of it is a bind mount, since the service's folders are closed to others than root."""

import contextlib
import ctypes
import os
import random
import shutil
import signal
import subprocess
import threading

import lab
from product import Product

MODES = ["rw", "rtw"]
MIB = 1 << 20
# Files of the image that programs write over: in mode "rw" their blocks lie in the image itself, while those that the
# image doesn't include, its free room, lie in the write layer.
SLOT_FILES = ["buffered", "direct", "mapped"]
SLOT_FILE_SIZE = 16 * MIB
ROOM = "room"
ROOM_SIZE = 64 * MIB
FREE = 2 << 30  # bytes
MS_BIND = 4096
LIMIT_SECONDS = 300


def build(client, folder):
    """Builds the image that drives are copies of. Gives its folder."""
    source = folder / "source"
    source.mkdir()
    for name in SLOT_FILES:
        (source / name).write_bytes(random.Random(name).randbytes(SLOT_FILE_SIZE))
    (source / ROOM).write_bytes(random.Random(ROOM).randbytes(ROOM_SIZE))
    image = folder / "image"
    lab.run(client, "image", "build", source, image, "--fs", "ext4", "--free", FREE, "--quiet")
    shutil.rmtree(source)
    return image


def run(*words, env=None):
    """Like lab.run, for programs that start others: none of them is left, whatever ends the wait."""
    words = [str(word) for word in words]
    pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
    with subprocess.Popen(words, start_new_session=True, env=env, **pipes) as process:
        try:
            told, errors = process.communicate()
        except BaseException:
            with contextlib.suppress(ProcessLookupError):  # all have ended
                os.killpg(process.pid, signal.SIGKILL)
            raise
    if process.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: exit code {process.returncode}: {errors.strip()}")
    return told


class Drive(contextlib.ExitStack):
    """`folder` is the case's own and empty, `files` the part of the drive that programs use while it is mounted."""

    def __init__(self, client, template, folder, mode):
        super().__init__()
        self.mode, self.folder = mode, folder
        self.image, self.files = folder / "image", folder / "drive"
        self.product = Product(client.parent.parent, folder / "product")
        self.product.client = client
        self.too_long = False
        self.bound = self.mounted = False
        self.device = None
        shutil.copytree(template, self.image)
        self.files.mkdir()
        self.watch = threading.Timer(LIMIT_SECONDS, self.give_up)
        self.watch.daemon = True

    def __enter__(self):
        super().__enter__()
        self.enter_context(self.product)
        self.callback(self.leave)
        self.callback(self.watch.cancel)
        self.watch.start()
        return self

    def mount(self):
        self.product.tavrin("mount", self.image, "--mode", self.mode)
        self.mounted = True
        place = self.product.find_drive(self.image)
        with open("/proc/self/mountinfo", encoding="utf-8") as table:
            volume = self.product.status(self.image)["mountPath"]
            self.device = next(line.split(" - ")[1].split()[1] for line in table if line.split()[4] == volume)
        if lab.LIBC.mount(os.fsencode(place), os.fsencode(self.files), None, MS_BIND, None):
            raise OSError(ctypes.get_errno(), f"cannot bind {place}")
        self.bound = True
        return self.files

    def unbind(self):
        if self.bound:
            lab.unmount(self.files)
            self.bound = False

    def unmount(self):
        """Takes the drive away as users do, and fails where the client says that something went wrong."""
        self.unbind()
        failure = self.product.status(self.image)["failure"]
        if failure:
            raise RuntimeError(f"the drive says before it is unmounted: {failure}")
        told = self.product.tavrin("umount", self.image).strip()
        self.mounted = False
        if told != "Unmounted":  # such as that somebody still used it
            raise RuntimeError(f"the unmounting says: {told}")

    def remount(self):
        self.unmount()
        return self.mount()

    def kill(self):
        os.kill(self.product.pid, signal.SIGKILL)
        lab.wait_until(lambda: has_ended(self.product.pid), "the service that was killed ends")

    def bury(self):
        """Lets go of what a killed service served, so that the next one can sweep it away."""
        self.unbind()
        self.mounted = False

    def check_volume(self):
        """Has the file system checked while the kernel can't write to it; it must be mounted."""
        volume = self.product.status(self.image)["mountPath"]
        lab.run("mount", "-o", "remount,ro", volume)
        outcome = subprocess.run(["e2fsck", "-fn", self.device], capture_output=True, text=True, check=False)
        # e2fsck warns of the mounted file system, and gives 0 only where there was nothing to mend.
        if outcome.returncode != 0:
            raise RuntimeError(f"e2fsck: exit code {outcome.returncode}: {outcome.stdout} {outcome.stderr}")

    def give_up(self):
        """Frees whoever waits for the drive: without its service every call on it fails."""
        self.too_long = True
        lab.kill_programs()
        if self.product.pid is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.product.pid, signal.SIGKILL)

    def leave(self):
        self.unbind()
        if self.mounted:
            self.product.tavrin("umount", self.image)


def has_ended(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] in "ZX"
    except (FileNotFoundError, ProcessLookupError):
        return True
