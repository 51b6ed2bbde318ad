"""Where one trial takes place: a folder, and the servers that run in the foreground for as long as it lasts."""

import contextlib
import os
import shutil
import socket

import lab


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


def listens(port):
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
        return True
    return False


class Site:
    """What the client is told: the address of the folder above the images, what is put behind that of an image, and
    environment. `during(trial)` is called when the game has begun; `moved()` gives the bytes that went to the client,
    where somebody counts them."""

    def __init__(self, url, query="", env=None, during=None, moved=None):
        self.url, self.query, self.env, self.during, self.moved = url, query, env or {}, during, moved


class Ground(contextlib.ExitStack):
    """`www` holds the images in folders of their form."""

    def __init__(self, folder, www, authority):
        super().__init__()
        self.top, self.www, self.authority = folder, www, authority
        self.n_folders = 0

    def folder(self, name, owner=None):
        self.n_folders += 1
        folder = self.top / f"{self.n_folders}-{name}"
        folder.mkdir()
        if owner:
            shutil.chown(folder, owner)
        return folder

    def start(self, port, folder, *words, env=None):
        """A server that is there when it listens. Gives its process."""
        log = self.enter_context(open(folder / "output.log", "ab"))
        process = self.enter_context(lab.program(*words, log=log, env=dict(os.environ, **env or {}), cwd=folder))

        def ready():
            if process.poll() is not None:
                raise RuntimeError(f"{words[0]} has ended with {process.returncode}; see {folder}/output.log")
            return listens(port)

        lab.wait_until(ready, f"{words[0]} listens")
        return process

    def trusting(self):
        """Environment of a client that trusts the servers' certificates."""
        return {"SSL_CERT_FILE": str(self.authority.ca)}

    def mirror(self, seconds):
        """A copy of the images, its files changed so much later."""
        copy = self.top / f"mirror{seconds}"
        shutil.copytree(self.www, copy)
        move_times(copy, seconds)
        return copy


def move_times(folder, seconds):
    for file in folder.rglob("*"):
        if file.is_file():
            status = file.stat()
            os.utime(file, (status.st_atime, status.st_mtime + seconds))
