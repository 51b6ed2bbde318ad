#!/usr/bin/env python3
"""Compares the page of the client, docs/client.md, with what the client does: verbs, arguments and options with its
help, JSON keys with its output, exit codes with its failures.

    page_test.py CLIENT PAGE [unittest's arguments]
"""

import json
import os
import re
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import home

CLIENT, PAGE = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).read_text()
COMMON = {"--help", "--json", "--quiet", "--verbose"}
# With a value in NAMES of capitals, of words with a bar between them, or in quotes.
OPTION = re.compile(r'(--[a-z][a-z-]*)( (?:[A-Z"][^\s\]]*|[a-z]+\||[A-Z]+\|))?')


def run(*words, **more):
    return subprocess.run([CLIENT, *words], capture_output=True, text=True, timeout=30, **more)


def paragraph(text, head):
    """The indented lines below `head`."""
    found = re.search(rf"^{head}:\n((?:  .*\n)+)", text, re.M)
    return found[1] if found else ""


def words_of(lines):
    return re.findall(r"^  (\S+)", lines, re.M)


class Verb:
    """What the help, or the page, tells of a verb: its arguments, and each option with whether it takes a value."""

    def __init__(self):
        self.arguments, self.options, self.required = None, {}, set()

    def add_usage(self, usage):
        """A usage as headings have it: `IMAGE PATCH|--resume [--level N]`."""
        if self.arguments is None:
            plain = re.sub(r"(\w+)\|--\S+", r"[\1]", usage)
            self.arguments = re.split(r" ?\[?--| ?\[options\]", plain)[0].split()
            always = re.sub(r"\[.*?\]|\S*\|--\S*", "", usage)
            self.required = {name for name, _ in OPTION.findall(always)}
        self.options |= {name: bool(value) for name, value in OPTION.findall(usage)}


def verbs_of_help():
    verbs = {}
    for family in words_of(paragraph(run("--help").stdout, "Commands")):
        members = words_of(paragraph(run(family, "--help").stdout, "Verbs"))
        for name in [f"{family} {member}" for member in members] or [family]:
            text, verb = run(*name.split(), "--help").stdout, Verb()
            verb.arguments = re.search(rf"^Usage: tavrin {name} \[OPTIONS\] ?(.*)$", text, re.M)[1].split()
            for option, value in re.findall(r"^  (--[a-z-]+)( \S.*?)?(?:  .*)?$", paragraph(text, "Options"), re.M):
                verb.options[option] = bool(value)
                if value.endswith("REQUIRED"):
                    verb.required.add(option)
            verbs[name] = verb
    return verbs


def sections_of_page():
    parts = re.split(r"^## (.*)\n", PAGE, flags=re.M)[1:]
    return dict(zip(parts[::2], parts[1::2]))


def verbs_of_page(known):
    """The verbs of the page's headings, tables and usages, and the section of each."""
    verbs, sections = {}, {}
    for heading, text in sections_of_page().items():
        usages = [heading] + re.findall(r"^\| `(\w+ \w+ [A-Z].*?)` \|", text, re.M)
        if heading.startswith("completion "):
            usages = [f"completion {shell}" for shell in heading.split()[1].split("|")]
        for usage in usages:
            name = re.match(r"[a-z]+(?: [a-z]+(?![,\w]))?", usage)
            if not name or "," in usage:
                continue
            verb = verbs.setdefault(name[0], Verb())
            verb.add_usage(usage[len(name[0]) :].strip())
            sections[name[0]] = text
            for option, value in re.findall(r"(?:^\| |, )`(--[a-z-]+)( [^`]+)?`(?=[^|]*\|)", text, re.M):
                verb.options.setdefault(option, bool(value))
    for usage in re.findall(r"`tavrin ((?:[^`]|\n)*)`", PAGE):
        name = next((name for name in known if usage.startswith(name + " ")), None)
        if name in verbs:
            verbs[name].add_usage(" ".join(usage[len(name) :].split()))
    return verbs, sections


HELP = verbs_of_help()
PAGE_VERBS, SECTIONS = verbs_of_page(HELP)


class OptionsTest(unittest.TestCase):
    def test_verbs_have_the_arguments_and_options_that_the_page_names(self):
        self.assertEqual(sorted(PAGE_VERBS), sorted(HELP))
        for name, verb in HELP.items():
            with self.subTest(name):
                self.assertEqual(vars(PAGE_VERBS[name]), vars(verb))

    def test_sentences_name_options_that_their_verbs_have(self):
        for name, text in SECTIONS.items():
            for part in re.split(r"\n\n|\n- ", text):
                spans = re.findall(r"`([^`]+)`", part)
                others = [verb for verb in HELP if any(span == verb or span.startswith(verb + " ") for span in spans)]
                known = set().union(COMMON, HELP[name].options, *(HELP[other].options for other in others))
                named = {option for span in spans for option in re.findall(r"^--[a-z][a-z-]*", span)}
                with self.subTest(name, part=part[:60]):
                    # An option of another verb stands in one paragraph with that.
                    self.assertLessEqual(named, known)

    def test_what_all_verbs_have_in_common(self):
        first = PAGE[: PAGE.index("\n## ")]
        self.assertEqual(set(re.findall(r"`([a-z]+)`", first)), {name for name in HELP if " " not in name})
        sections = sections_of_page()
        common = re.findall(r"^\| `(--[a-z]+)` \|", sections["Common to all verbs"], re.M)
        self.assertEqual({*common, "--help"}, COMMON)
        for name in HELP:
            listed = re.findall(r"--[a-z]+", paragraph(run(*name.split(), "--help").stdout, "Common options"))
            self.assertLessEqual(COMMON, set(listed), name)
        takers = re.split(r",\s+take these", sections["The way to servers"])[0]
        self.assertEqual({name for name in HELP if re.search(rf"`{name}\b", takers)},
                         {name for name, verb in HELP.items() if "--proxy" in verb.options})


def keys_of(value):
    """The keys of a result at all depths. What the records of an image hold stands in docs/file-formats.md."""
    if isinstance(value, list):
        return set().union(*map(keys_of, value))
    if not isinstance(value, dict):
        return set()
    return set(value).union(*(keys_of(part) for key, part in value.items() if key not in ("app", "image")))


def objects(text):
    """The objects of `text`, which may hold nothing else."""
    decoder, at, found = json.JSONDecoder(), 0, []
    while at < len(text):
        value, at = decoder.raw_decode(text, at)
        if text[at : at + 1] != "\n":
            raise ValueError(f"no line feed after {text[:at]!r}")
        found.append(value)
        at += 1
    return found


def keys_of_page(name):
    """The words between backticks after the first `--json` of a section, keys and values of them, and its settings."""
    text = SECTIONS[name].partition("`--json`")[2]
    return set(re.findall(r"`([a-z]\w*)`", text)) | set(re.findall(r"^(\w+) = ", SECTIONS[name], re.M))


class KeysTest(unittest.TestCase):
    """Runs verbs with --json on images of a few blocks."""

    @classmethod
    def setUpClass(cls):
        home.enter(cls)
        for version in (1, 2):
            folder = Path(f"game{version}")
            folder.mkdir()
            (folder / "data").write_bytes(bytes([version]) * 9000 + b"same" * 5000)
            (folder / "app").write_text("#!/bin/sh\n")

    def keys(self, *words, code=0):
        """The keys of what a command gives, which has nothing else on standard output."""
        result = run(*words, "--json")
        self.assertEqual(result.returncode, code, f"{words}: {result.stderr}")
        self.assertNotRegex(result.stderr, r"[\r\x1b]")
        return set().union(*map(keys_of, objects(result.stdout)))

    def compare(self, name, *words, unnamed="", code=0):
        """The keys that come are those that the page names, but for `unnamed` words: values, or keys of other cases."""
        with self.subTest(name):
            came, named = self.keys(*name.split(), *words, code=code), keys_of_page(name)
            elsewhere = keys_of_page("image info") if "see `image info`" in SECTIONS[name] else set()
            self.assertEqual(came - named - elsewhere, set(), "the page doesn't name these keys")
            verbs = {verb.split()[-1] for verb in HELP}
            self.assertEqual(named - came - verbs, set(unnamed.split()), "words of the page that don't come")

    def trace(self, name, blocks, time0=0):
        """A trace of the image `image`."""
        folder = Path(name)
        folder.mkdir(parents=True)
        checksums = json.loads(Path("image/app.json").read_text())["checksums"]
        ticks = (11644473600000 + time0) * 10000
        items = [struct.pack("<QQ", block, ticks + i) for i, block in enumerate(blocks)]
        (folder / "img.trc").write_bytes(b"".join(items))
        record = {"version": 2, "time0": time0, "method": "monitoring"}
        record["checksums"] = {"mnt": checksums["mnt"], "idx": ""}
        (folder / "trace.json").write_text(json.dumps(record))
        self.compare("trace mend", name, unnamed="time0 traces")

    def test_images(self):
        self.compare("image build", "game1", "image", unnamed="leftOut name why")
        self.trace("run", [1, 0, 1])
        Path("foreign").mkdir()
        self.compare("image build", "game1", "image", "--order", "run", "--order", "foreign")
        self.trace("image/traces/run1", [1, 0, 1])
        self.trace("image/traces/run2", [0, 2], 60000)
        self.compare("image order", "image", "image/traces/run1", "foreign", "index")
        self.compare("image info", "index", "--speed", "20",
                     unnamed="complete partial optimizing patching hotStretches partSize path bytes"
                             " ext4 erofs squashfs")
        self.compare("image raw", "image", "raw")
        self.compare("image verify", "image", "--raw", "raw")
        self.compare("image map", "image")
        self.compare("image pack", "image", "--level", "1")
        (Path("index") / "own").write_text("stays")
        self.compare("image optimize", "image", "index", "--consume",
                     unnamed="none inPlace copy beyond lost leftOut name why")
        self.compare("image split", "image", "--part-size", "5000")
        self.compare("image join", "image")
        data = Path("image/img.zqf")
        data.write_bytes(bytes(data.stat().st_size))
        self.compare("image verify", "image", code=1, unnamed=RAW_COUNTS)
        self.compare("remove", "image", "--yes")

    def test_traces(self):
        run("image", "build", "game1", "image")
        for name, blocks in (("a", [1, 0, 1]), ("b", [0, 2])):
            self.trace(name, blocks)
        for name, words, unnamed in (
            ("info", "a", ""), ("diff", "a b", ""), ("runs", "a", ""), ("plot", "a a.svg", ""),
            ("trim", "a out", "time0 traces lost"), ("keep", "a 0 5000", "time0 traces lost"),
            ("shift", "a 1", "traces lost"), ("align", "a b", "time0 traces lost"),
            ("append", "a b both", "time0 traces lost"), ("merge", "merged a b", "time0 lost"),
        ):
            self.compare("trace " + name, *words.split(), unnamed=unnamed)
        for number in (1, 2):
            self.trace(f"image/traces/{number}", [number], number * 60000)
        Path("image/traces/3").mkdir()
        self.compare("trace build", "image", unnamed="name why")

    def test_patches(self):
        for version in (1, 2):
            run("content", "create", f"game{version}", f"v{version}")
        self.compare("patch create", "v1", "v2", "patch", "--compression", "REPLACE", unnamed="guid")
        self.compare("patch verify", "patch")
        self.compare("patch status", "v1", "patch", unnamed="none fetched begun committing")
        self.compare("patch apply", "v1", "patch", unnamed="guid patchLeft")

    def test_machine_and_servers(self):
        self.compare("content create", "game1", "served")
        for by in ("link", "system"):
            Path("runs").mkdir(exist_ok=True)
            record = {"id": "A", "version": 2, "startMs": 5, "firstFrameMs": 6, "exitCode": 0, "avgSpeed": 20,
                      "nUnderflows": 1, "preloadSize": 9, "stopped": False, "startErr": False, "endErr": False,
                      "accuracy": {"brought": 9, "earlyUsed": 4, "earlyUnused": 5, "read": 9, "late": 1}}
            Path("runs/a.json").write_text(json.dumps(record))
            if CLIENT.with_name("libduckdb.so").exists():
                self.compare("stats collect", "runs", "--by", by, unnamed="link system".replace(by, ""))
        graphics = objects(run("stats", "hardware", "--json").stdout)[0]["graphics"]
        self.compare("stats hardware", unnamed="" if graphics else "driver memory")
        self.compare("config",
                     unnamed="note environment settings default variable null http_proxy https_proxy all_proxy")
        self.compare("launcher list",
                     unnamed="access fault image mounted setAside made libraries registry key value wasThere")
        self.compare("launcher restore")
        self.assertEqual(self.keys("status"), set())
        with subprocess.Popen([CLIENT, "serve", "served", "--json"], stdout=subprocess.PIPE, text=True) as server:
            try:
                first = server.stdout.readline()
                url = json.loads(first)["url"]
                self.compare("fetch", "fetched", "--url", url)
                lines = objects(run("doctor", "--url", url, "--json").stdout)
            finally:
                server.terminate()
            last = server.stdout.read()
        self.assertEqual(server.returncode, 0)
        self.assertEqual(set().union(*map(keys_of, objects(first + last))), keys_of_page("serve"))
        named = set(re.findall(r"`([\w.]+)`", SECTIONS["doctor"].partition("`--json`")[2]))
        self.assertLessEqual(keys_of(lines) | {line["name"] for line in lines}, named)
        # What these users and servers haven't.
        self.assertLessEqual(named - keys_of(lines) - {line["name"] for line in lines},
                             {"loop", "fusermount3", "certificate", "erofs", "ext4", "squashfs"})

    @unittest.skipUnless(os.geteuid() == 0 and Path("/dev/fuse").exists(), "drives need root and /dev/fuse")
    def test_drives(self):
        run("image", "build", "game1", "drive")
        self.assertEqual(run("status", "drive").returncode, 1)
        self.assertEqual(run("umount", "drive").returncode, 0)
        try:
            self.compare("mount", "drive")
            self.compare("status", "drive", unnamed="kernel service")
        finally:
            self.assertEqual(run("umount", "drive").returncode, 0)
        self.compare("content extract", "drive", "plain", "--keep")


RAW_COUNTS = "total mapped unmapped missing wrong invalid md5Raw md5Zqf"


class ExitCodesTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.TemporaryDirectory()
        self.addCleanup(self.home.cleanup)

    def test_wrong_usage_is_2_and_what_is_missing_1_each_with_one_sentence(self):
        for name, verb in HELP.items():
            numbers = {"FROM_MS", "TO_MS", "SECONDS"}
            words = ["1" if word in numbers else self.home.name + "/none/" + word for word in verb.arguments]
            words += [word for option in sorted(verb.required) for word in (option, "1")]
            with self.subTest(name):
                wrong = run(*name.split(), *words, "--no-such-option", "--json")
                self.assertEqual((wrong.returncode, wrong.stdout), (2, ""))
                self.assertEqual(wrong.stderr, f"tavrin: {name}: unknown option '--no-such-option'\n")
            if not words or name == "umount":
                continue
            with self.subTest(name + " of nothing"):
                missing = run(*name.split(), *words, "--json")
                self.assertEqual(missing.returncode, 1)
                self.assertTrue(missing.stderr.startswith("tavrin: "), missing.stderr)
                self.assertLessEqual(len(objects(missing.stdout)), 1)
                self.assertEqual(list(Path(self.home.name).iterdir()), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
