"""The other programs that show an image as a file, during a `with`; `log` is a file for what they print."""

import contextlib

import lab


@contextlib.contextmanager
def nbdkit_file(folder, *words, log=None):
    """What nbdkit serves with these words (filters, plugin, parameters), as the file that nbdfuse shows."""
    socket, file = folder / "nbd.socket", folder / "nbd"
    file.touch()
    with contextlib.ExitStack() as stack:
        stack.callback(socket.unlink, missing_ok=True)
        stack.enter_context(lab.program("nbdkit", "-f", "-r", "-U", socket, *words, log=log))
        lab.wait_until(socket.exists, "nbdkit listens")
        stack.enter_context(lab.program("nbdfuse", "-r", file, "--unix", socket, log=log))
        stack.callback(lab.unmount, file)
        lab.wait_until(lambda: lab.mounted_at(file) and file.stat().st_size > 0, "nbdfuse has mounted")
        yield file


@contextlib.contextmanager
def qemu_file(folder, node, *blockdevs, log=None):
    """A node of these block devices, as the file that qemu's daemon shows."""
    file = folder / "qemu"
    file.touch()
    export = f"type=fuse,id=e,node-name={node},mountpoint={file},writable=off"
    words = [word for blockdev in blockdevs for word in ("--blockdev", blockdev)]
    with contextlib.ExitStack() as stack:
        stack.callback(lab.unmount, file)  # a daemon that died has left it
        stack.enter_context(lab.program("qemu-storage-daemon", *words, "--export", export, log=log))
        lab.wait_until(lambda: lab.mounted_at(file), "qemu-storage-daemon has mounted")
        yield file
