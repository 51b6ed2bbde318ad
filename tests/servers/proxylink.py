"""A link between client and server: it forwards TCP connections on the loopback interface, and goes wrong on demand."""

import contextlib
import socket
import struct
import threading
import time

PIECE = 16 << 10


class Pair:
    """One connection: the client's socket, and the one to the server."""

    def __init__(self, near, far):
        self.near, self.far = near, far
        self.silent = False
        self.n_bytes = 0  # towards the client

    def close(self, reset):
        for side in (self.near, self.far):
            with contextlib.suppress(OSError):
                if reset:
                    side.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                else:
                    side.shutdown(socket.SHUT_RDWR)
            if reset:
                with contextlib.suppress(OSError):
                    side.shutdown(socket.SHUT_RD)  # wakes whoever reads it
                side.close()


class ProxyLink:
    """Listens during a `with`. `rate` in bytes per second for all connections together, 0 for no limit; `cut_at`: each
    connection is reset once so many bytes have come through it; `delay` in seconds for each new connection."""

    def __init__(self, port, rate=0, cut_at=0, delay=0.0):
        self.target, self.rate, self.cut_at, self.delay = port, rate, cut_at, delay
        self.lock = threading.Condition()
        self.pairs = []  # under the lock, like what follows
        self.stalled = self.refuses = self.ended = False
        self.damages_in = 0  # bytes until one of them is changed; 0 for never
        self.sent_until = 0.0  # the time at which the rate permits the next piece
        self.n_bytes = 0  # towards the client

    def __enter__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()
        return self

    def __exit__(self, *_):
        with self.lock:
            self.ended = True
            pairs = list(self.pairs)
            self.lock.notify_all()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for pair in pairs:
            pair.close(reset=True)

    # -- what goes wrong

    def stall(self, stalled):
        """Nothing goes through, be it of old connections or of new ones, until it is called with false."""
        with self.lock:
            self.stalled = stalled
            self.lock.notify_all()

    def move(self):
        """What a change of address does: open connections stay open and are silent for ever, and new ones work."""
        with self.lock:
            for pair in self.pairs:
                pair.silent = True
            self.pairs.clear()

    def reset(self):
        with self.lock:
            pairs = list(self.pairs)
            self.pairs.clear()
        for pair in pairs:
            pair.close(reset=True)

    def refuse(self, refuses):
        """New connections are closed at once until it is called with false."""
        with self.lock:
            self.refuses = refuses

    def damage(self, n_bytes):
        """Changes one byte on its way to the client, once so many more have come."""
        with self.lock:
            self.damages_in = n_bytes

    # -- forwarding

    def accept(self):
        while True:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return  # the end
            threading.Thread(target=self.connect, args=(near,), daemon=True).start()

    def connect(self, near):
        time.sleep(self.delay)
        with self.lock:
            refuses = self.refuses or self.ended
        try:
            far = None if refuses else socket.create_connection(("127.0.0.1", self.target), 5)
        except OSError:
            far = None
        if far is None:
            near.close()
            return
        far.settimeout(None)
        near.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, PIECE)  # what waits here counts as moved
        pair = Pair(near, far)
        with self.lock:
            self.pairs.append(pair)
        threading.Thread(target=self.pump, args=(pair, near, far), daemon=True).start()
        self.pump(pair, far, near)

    def pump(self, pair, source, target):
        try:
            while data := source.recv(PIECE):
                self.wait(pair, len(data) if source is pair.far else 0)
                if pair.silent:
                    return  # nobody hears of its end either
                target.sendall(self.damaged(data) if source is pair.far else data)
                if self.cut_at and pair.n_bytes >= self.cut_at:
                    pair.close(reset=True)
                    return
            if not pair.silent:
                target.shutdown(socket.SHUT_WR)
        except OSError:
            if not pair.silent:
                pair.close(reset=False)

    def damaged(self, data):
        """Changes only a large piece, which hardly consists of head lines."""
        with self.lock:
            if not self.damages_in:
                return data
            self.damages_in = max(1, self.damages_in - len(data))
            if self.damages_in > 1 or len(data) < PIECE:
                return data
            self.damages_in = 0
        place = PIECE * 3 // 4
        return data[:place] + bytes([data[place] ^ 64]) + data[place + 1 :]

    def wait(self, pair, n_bytes):
        with self.lock:
            while self.stalled and not pair.silent and not self.ended:
                self.lock.wait()
            pair.n_bytes += n_bytes
            self.n_bytes += n_bytes
            if not self.rate or not n_bytes:
                return
            now = time.monotonic()
            self.sent_until = max(self.sent_until, now) + n_bytes / self.rate
            pause = self.sent_until - now
        time.sleep(pause)
