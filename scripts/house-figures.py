#!/usr/bin/env python3
"""Figures of the code's shape: how much of it is comments, how large files and classes are, what is installed.

    scripts/house-figures.py [ROOT] [--build]

--build also times a full build and one after a change to one file, without ccache, in a folder of its own.
"""

import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

COMMENT = re.compile(r"^\s*(//|/\*|\*)")


def lines_of(files):
    """Non-blank lines, and those of them that are comments alone."""
    lines = [line for file in files for line in file.read_text(encoding="utf-8").splitlines() if line.strip()]
    return len(lines), sum(1 for line in lines if COMMENT.match(line))


def percent(part, whole):
    return f"{100 * part / whole:.1f} %" if whole else "-"


def bodies_of(text):
    """Name, bases and body of each class and struct, nested ones as well."""
    for match in re.finditer(r"\b(?:class|struct)\s+(?:SX_\w+(?:\([^)]*\))?\s+)?(\w+(?:::\w+)*)\s*(?:final\s*)?(:[^:;{][^;{]*)?\{", text):
        depth, end = 1, match.end()
        while depth and end < len(text):
            depth += {"{": 1, "}": -1}.get(text[end], 0)
            end += 1
        bases = re.findall(r"(?:public|protected|private)\s+(\w+)", match.group(2) or "")
        yield match.group(1), bases, text[match.end() : end - 1]


def members_of(body):
    """Declarations in a class's body; those of nested classes count, their insides' code doesn't."""
    flat, depth = [], 0
    kept = re.sub(r"\b(?:class|struct)\s+\w+[^;{()]*\{", "", body)
    for char in kept:
        if char == "{":
            depth += 1
        elif char == "}":
            depth -= depth > 0
            if not depth:
                flat.append(";")
        elif not depth:
            flat.append(char)
    declared = re.split(r";|\b(?:public|private|protected)\s*:", "".join(flat))
    skipped = re.compile(r"^\s*(using|friend|static_assert|template\s*<[^>]*>\s*$|enum\b|\)|$)")
    return sum(1 for text in declared if not skipped.match(text.strip() or ""))


def largest_class(headers):
    own, bases = {}, {}
    for header in headers:
        text = re.sub(r"//[^\n]*|/\*.*?\*/", "", header.read_text(encoding="utf-8"), flags=re.S)
        text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
        for name, found, body in bodies_of(text):
            own[name] = members_of(body)
            bases[name] = found

    def total(name, seen=()):
        return own.get(name, 0) + sum(total(base, (*seen, name)) for base in bases.get(name, []) if base not in seen)

    return sorted(((total(name), name) for name in own), reverse=True)


def build_times(root):
    source = root / "src/core/SxString.cpp"
    with tempfile.TemporaryDirectory() as folder:
        configure = ["cmake", "-S", root, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release"]
        configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER="]
        subprocess.run(configure, check=True, stdout=subprocess.DEVNULL)
        for what in ("full build", f"after a change to {source.name}"):
            began = time.monotonic()
            subprocess.run(["cmake", "--build", folder, "-j", "2"], check=True, stdout=subprocess.DEVNULL)
            print(f"{what}: {time.monotonic() - began:.0f} s")
            source.touch()


def main():
    arguments = [text for text in sys.argv[1:] if text != "--build"]
    root = Path(arguments[0] if arguments else Path(__file__).parent.parent).resolve()
    sources = sorted(file for file in (root / "src").rglob("*") if file.suffix in (".h", ".cpp"))
    headers = [file for file in sources if file.suffix == ".h"]
    library = [file for file in headers if file.relative_to(root).parts[1] not in ("client", "driver")]
    listed = root / "src/public-headers.txt"
    names = set(listed.read_text().split()) if listed.exists() else {file.name for file in library}
    public = [file for file in library if file.name in names]
    for what, files in (("all", sources), (".cpp", [f for f in sources if f.suffix == ".cpp"]), ("installed headers", public)):
        whole, comments = lines_of(files)
        print(f"comments, {what}: {percent(comments, whole)} of {whole} lines that aren't blank")
    sizes = sorted(((len(f.read_text(encoding='utf-8').splitlines()), f.name) for f in sources), reverse=True)
    print("files above 500 lines: " + (", ".join(f"{name} {n}" for n, name in sizes if n > 500) or "none"))
    print("largest classes: " + ", ".join(f"{name} {n}" for n, name in largest_class(headers)[:5]))
    print(f"installed headers: {len(public)} of {len(library)}")
    print(f"docs/architecture.md: {len((root / 'docs/architecture.md').read_text().splitlines())} lines")
    check = subprocess.run([sys.executable, root / "scripts/check-includes.py", root], capture_output=True, text=True)
    print(f"faults of the layering: {len(check.stdout.splitlines())}")
    if "--build" in sys.argv:
        build_times(root)


if __name__ == "__main__":
    main()
