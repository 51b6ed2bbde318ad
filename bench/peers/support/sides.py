"""The sides of drive.py: whatever shows the volume of an image, ours and others. Each is mounted during a `with`, which
gives the folder of the application."""

import contextlib
import functools

import lab
import peers
from product import APP, FOR_SERVICE

KERNEL, SERVICE = "by kernel", "by service"  # ours, by who serves the drive
SHIPPED = "as shipped"  # ours, by whoever serves it where nothing else is asked for
OURS = (KERNEL, SERVICE, SHIPPED)
ALONE = "kernel alone"
DIRECT, NBDKIT, QEMU = "direct loop", "nbdkit", "qemu"
NO_LOOP = ("nbdkit, no loop", "qemu, no loop")


class Sides:
    """Of one image, and of the plain file `raw` with the same file system. What the others need goes into `folder`."""

    def __init__(self, product, kind, image, raw, folder):
        self.product, self.kind, self.image, self.raw, self.folder = product, kind, image, raw, folder
        self.all = {
            **{side: functools.partial(self.ours, side) for side in OURS},
            ALONE: self.kernel_alone,
            DIRECT: self.direct_loop,
            NBDKIT: self.nbdkit,
            QEMU: self.qemu,
            NO_LOOP[0]: functools.partial(self.nbdkit, through_loop=False),
            NO_LOOP[1]: functools.partial(self.qemu, through_loop=False),
        }

    def mounted(self, side):
        return self.all[side]()

    def stored(self, side):
        """The file that has its blocks."""
        return self.image / "img.zqf" if side in OURS else self.raw

    def mode_of(self, side):
        """That of a mount of ours."""
        return FOR_SERVICE if side == SERVICE and self.kind == "erofs" else "ro"

    def require(self, side):
        """Raises where the drive that the product found last is served by somebody else."""
        if side not in (f"by {self.product.served}", SHIPPED):
            hint = "; is --dir on a disk?" if side == KERNEL else ""
            raise RuntimeError(f"{self.image} should be served {side}, and is by the {self.product.served}{hint}")

    def find_shipped(self):
        with self.ours(SHIPPED):
            return f"by {self.product.served}"

    @contextlib.contextmanager
    def ours(self, side):
        with self.product.mounted(self.image, self.mode_of(side)) as app:
            self.require(side)
            yield app

    def attach(self, stack, file, direct=False, through_loop=False):
        if self.kind == "erofs" and not through_loop:
            return stack.enter_context(lab.volume(file, self.kind, self.folder / "volume")) / APP
        device = stack.enter_context(lab.loop(file, direct))
        return stack.enter_context(lab.volume(device, self.kind, self.folder / "volume")) / APP

    @contextlib.contextmanager
    def kernel_alone(self):
        with contextlib.ExitStack() as stack:
            yield self.attach(stack, self.raw)

    @contextlib.contextmanager
    def direct_loop(self):
        with contextlib.ExitStack() as stack:
            yield self.attach(stack, self.raw, direct=True, through_loop=True)

    @contextlib.contextmanager
    def nbdkit(self, through_loop=True):
        with peers.nbdkit_file(self.folder, "file", self.raw) as file, contextlib.ExitStack() as stack:
            yield self.attach(stack, file, through_loop=through_loop)

    @contextlib.contextmanager
    def qemu(self, through_loop=True):
        blockdev = f"driver=file,node-name=f,filename={self.raw},read-only=on"
        with peers.qemu_file(self.folder, "f", blockdev) as file, contextlib.ExitStack() as stack:
            yield self.attach(stack, file, direct=True, through_loop=through_loop)
