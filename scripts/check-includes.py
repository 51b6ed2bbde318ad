#!/usr/bin/env python3
"""Checks that every #include follows the rooms and layers of src/rooms.txt: arrows point down only.

    scripts/check-includes.py [ROOT]

Prints one line for each fault, file:line: text, and exits 1 if there are any.
"""

import re
import sys
from collections import defaultdict
from pathlib import Path

# These reach system and third parties only through the layers below.
STANDARD_ONLY = {"base", "publish"}

CPP_STANDARD = set(
    """algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes
    climits clocale cmath codecvt compare complex concepts condition_variable coroutine csetjmp csignal cstdarg
    cstddef cstdint cstdio cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem
    format forward_list fstream functional future initializer_list iomanip ios iosfwd iostream istream iterator
    latch limits list locale map memory memory_resource mutex new numbers numeric optional ostream queue random
    ranges ratio regex scoped_allocator semaphore set shared_mutex source_location span sstream stack stdexcept
    stop_token streambuf string string_view strstream syncstream system_error thread tuple type_traits typeindex
    typeinfo unordered_map unordered_set utility valarray variant vector version""".split()
)
# Standard headers whose subject belongs to core: files, threads, locks, waiting, signals.
CORE_MATTERS = set(
    """barrier condition_variable csignal filesystem fstream future latch mutex semaphore shared_mutex
    stop_token thread""".split()
)
# What a terminal program needs of the system: its descriptors, signals, the terminal and its size.
CLIENT_SYSTEM = {"fcntl.h", "poll.h", "signal.h", "sys/ioctl.h", "termios.h", "unistd.h"}

# Slow to compile, and replaceable as long as one file knows them.
ONE_FILE_ONLY = {
    "nlohmann": re.compile(r"nlohmann/"),
    "valijson": re.compile(r"valijson/"),
    "spdlog": re.compile(r"spdlog/"),
    "libarchive": re.compile(r"archive(_entry)?\.h$"),
    "curl": re.compile(r"curl/"),
    "openssl": re.compile(r"openssl/"),
    "httplib": re.compile(r"httplib\.h$"),
    "libpci": re.compile(r"pci/"),
    "simdjson": re.compile(r"simdjson\.h$"),
    "duckdb": re.compile(r"duckdb\.h$"),
}

# Of these some rooms may know, in .cpp files.
ROOMS_ONLY = {"curl": {"platform/net", "platform/comm"}}

INCLUDE = re.compile(r'^\s*#\s*include\s*(?:<([^>]+)>|"([^"]+)")')


def read_rooms(file):
    """Room -> all rooms that it may know, itself included; and the list's own faults as (line, text)."""
    rooms, faults = {}, []
    for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
        names = re.findall(r"[^: ]+", line)
        if not names or line.startswith("#"):
            continue
        room, known = names[0], {names[0]}
        if room in rooms:
            faults.append((number, f"{room} stands twice in the list"))
        for name in names[1:]:
            found = [other for other in rooms if other == name or other.startswith(name + "/")]
            if not found:
                faults.append((number, f"{room} may know {name}, which stands nowhere above it"))
            known.update(*(rooms[other] for other in found))
        rooms[room] = known
    return rooms, faults


def quoted_fault(room, name, owners, rooms):
    layer = room.split("/")[0]
    if "/" in name:
        return f'"{name}": headers are included flat, by name alone'
    if name not in owners:
        return f'"{name}": no such header in src'
    if layer == "client" and owners[name] != "client":
        return f'"{name}": the client knows the installed headers only: <tavrin/{name}>'
    if owners[name] in rooms and owners[name] not in rooms[room]:
        return f'"{name}": {room} must not know {owners[name]}'
    return None


def angled_fault(layer, name, owners, public):
    if layer == "client":
        known = name.startswith("CLI/") or name in CPP_STANDARD or name in CLIENT_SYSTEM
        owner = owners.get(name.removeprefix("tavrin/"), "client")
        if not known and owner.split("/")[0] in ("client", "driver"):
            return f"<{name}>: the client knows only <tavrin/...>, <CLI/...> and the C++ standard"
        if not known and not name.startswith("tavrin/"):
            return f"<{name}>: write <tavrin/{name}>"
        if not known and name.removeprefix("tavrin/") not in public:
            return f"<{name}>: isn't installed, since it doesn't stand in src/public-headers.txt"
        return None
    if name.startswith("tavrin/") or name in owners:
        return f'<{name}>: inside the library write "{name.removeprefix("tavrin/")}"'
    if layer in STANDARD_ONLY and name not in CPP_STANDARD:
        return f"<{name}>: {layer} includes no system or third-party header"
    if layer in STANDARD_ONLY and name in CORE_MATTERS:
        return f"<{name}>: {layer} reaches files, threads, locks and signals through core"
    return None


def includes_of(file):
    for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if match:
            yield number, match.group(1), match.group(2)


def check(root):
    """All faults below root/src as (file, line, text), file relative to root."""
    src = root / "src"
    files = sorted(file for file in src.rglob("*") if file.suffix in (".h", ".cpp"))
    rooms, list_faults = read_rooms(src / "rooms.txt")
    faults = [(src / "rooms.txt", number, text) for number, text in list_faults]
    owners = {}
    for file in files:
        if file.suffix == ".h":
            if file.name in owners:
                faults.append((file, 1, f"another header is called {file.name}; names are unique"))
            owners.setdefault(file.name, file.parent.relative_to(src).as_posix())

    public = set()
    for number, name in enumerate((src / "public-headers.txt").read_text(encoding="utf-8").splitlines(), 1):
        if name.startswith("#"):
            continue
        if owners.get(name, "client").split("/")[0] in ("client", "driver"):
            faults.append((src / "public-headers.txt", number, f"{name} is no header of the library"))
        public.add(name)

    users = defaultdict(dict)
    for file in files:
        room = file.parent.relative_to(src).as_posix()
        if room not in rooms:
            faults.append((file, 1, f"src/{room} is no room of src/rooms.txt"))
            continue
        for number, angled, quoted in includes_of(file):
            if angled:
                text = angled_fault(room.split("/")[0], angled, owners, public)
            else:
                text = quoted_fault(room, quoted, owners, rooms)
                if not text and file.name in public and quoted not in public:
                    text = f'"{quoted}": {file.name} is installed, and this isn\'t'
            if text:
                faults.append((file, number, text))
            for library, pattern in ONE_FILE_ONLY.items():
                if pattern.match(angled or quoted):
                    users[library].setdefault(file, number)

    for library, found in users.items():
        sources = [file for file in found if file.suffix == ".cpp"]
        for file, number in found.items():
            if file.suffix == ".h":
                faults.append((file, number, f"{library} must not appear in a header"))
            elif library in ROOMS_ONLY:
                rooms_of = ROOMS_ONLY[library]
                if file.parent.relative_to(src).as_posix() not in rooms_of:
                    faults.append((file, number, f"{library} belongs to {' and '.join(sorted(rooms_of))}"))
            elif file != sources[0]:
                first = sources[0].relative_to(root)
                faults.append((file, number, f"{library} belongs to one .cpp file, and {first} has it already"))
    return [(file.relative_to(root), number, text) for file, number, text in sorted(faults)]


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    for name in ("src/rooms.txt", "src/public-headers.txt"):
        if not (root / name).is_file():
            sys.exit(f"check-includes.py: {root / name} is not a file")
    faults = check(root)
    for file, number, text in faults:
        print(f"{file}:{number}: {text}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
