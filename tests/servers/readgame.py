"""A game for the trials: some files, and a program on their drive that reads them in an order of its own and compares
each with the digest that it had when it was made."""

import hashlib
import json
import random

N_FILES = 96
LARGEST = 480 << 10
PROGRAM = "player.py"
PYTHON = "/usr/bin/python3"

# It is read from the drive like the rest. The files come in random order, so most lie far beyond what has arrived.
# TAVRIN_PLAYED names a file that is begun with the game and holds its result at the end; TAVRIN_PACE is the time in
# seconds that the whole game takes at least.
PLAYER = '''
import hashlib, json, os, sys, time
top = os.path.dirname(os.path.abspath(__file__))
with open(os.path.join(top, "digests.json")) as file:
    digests = json.load(file)
told, pace = os.environ["TAVRIN_PLAYED"], float(os.environ["TAVRIN_PACE"])
open(told, "w").close()
begin, longest, wrong = time.monotonic(), 0.0, []
for number, (name, expected) in enumerate(digests):
    before = time.monotonic()
    try:
        with open(os.path.join(top, name), "rb", buffering=0) as file:
            found = hashlib.file_digest(file, "md5").hexdigest()
    except OSError as error:
        found = str(error)
    longest = max(longest, time.monotonic() - before)
    if found != expected:
        wrong.append([name, found])
    time.sleep(max(0.0, begin + pace * (number + 1) / len(digests) - time.monotonic()))
with open(told + ".new", "w") as file:
    json.dump({"wrong": wrong, "longest": longest, "seconds": time.monotonic() - begin}, file)
os.rename(told + ".new", told)
sys.exit(3 if wrong else 0)
'''


def make(folder):
    """Always the same files. Every other one is such that packing brings something."""
    numbers = random.Random(12)
    words = [numbers.randbytes(24).hex().encode() for _ in range(500)]
    digests = []
    for number in range(N_FILES):
        size = numbers.randrange(2 << 10, LARGEST)
        data = numbers.randbytes(size) if number % 2 else b" ".join(numbers.choices(words, k=size // 49))
        name = f"data/{number:03}.bin"
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_bytes(data)
        digests.append((name, hashlib.md5(data).hexdigest()))
    numbers.shuffle(digests)
    (folder / "digests.json").write_text(json.dumps(digests), encoding="ascii")
    (folder / PROGRAM).write_text(PLAYER, encoding="ascii")
