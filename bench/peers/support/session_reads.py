"""Sessions of games, each recorded once for drive.py: the game's image in the order of that session, and what it
reads."""

import bisect
import shutil
from pathlib import Path

from game import screen
from product import APP
from recorder import Player, Recordings
from sessions import GAMES
from stored import digests_below
from traces import BLOCK, read_files, read_units

MAX_READ = 256  # blocks


def find_game(name, session_name):
    """The game, with that session alone."""
    game = next(game for game in GAMES if game.name == name)
    return game._replace(sessions=[session for session in game.sessions if session.name == session_name])


def missing(game):
    return [source for source, _ in game.files if not Path(source).exists()]


def make(game, product, options, folder, image, raw):
    """Plays the game's session, and makes `image` in its order, with the plain file in the folder `raw`. Gives the
    digests of the files, the lines of what the session has read, and all files in the order of the plain file."""
    recordings = Recordings(game, folder / "recordings")
    recordings.prepare(product)
    work = folder / "work"
    work.mkdir()
    with screen() as display:
        options.display = display
        (recording,) = recordings.of.values()
        Player(recordings, recordings.image, product, options, work).record(recording)
    words = ["--order", recording.trace, "--raw", raw, "--quiet"]
    product.tavrin("image", "build", recordings.source, image, *words)
    digests = digests_below(recordings.source)
    files = files_of(image)
    reads = [f"{offset} {n_bytes} {name}" for name, offset, n_bytes in reads_of(recording.trace, files)]
    shutil.rmtree(recordings.folder)
    return digests, reads, [name for *_, name in files]


def files_of(image):
    """The application's files in the order of their blocks, each of which EROFS has in one piece: the first RAW block
    and their number, the file's bytes and its name."""
    rows = read_files(image)
    return [(first, n, size, path.removeprefix(APP + "/")) for first, n, size, path in rows if path.startswith(APP)]


def reads_of(trace, files):
    """The requests of a trace as reads of files: name, offset and bytes. Neighbours of one request are one read."""
    firsts = [first for first, *_ in files]
    reads, last = [], None
    for block, time in read_units(trace):
        place = bisect.bisect_right(firsts, block) - 1
        if place < 0 or block >= firsts[place] + files[place][1]:
            continue  # the file system's own
        first, _, size, name = files[place]
        offset = (block - first) * BLOCK
        n_bytes = min(BLOCK, size - offset)
        if last == (place, block - 1, time) and reads[-1][2] < MAX_READ * BLOCK:
            reads[-1][2] += n_bytes
        else:
            reads.append([name, offset, n_bytes])
        last = (place, block, time)
    return reads
