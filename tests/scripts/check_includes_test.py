#!/usr/bin/env python3
"""The layering check finds each kind of fault, at its line, and nothing in a sound tree."""

import importlib.util
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).resolve().parents[2] / "scripts" / "check-includes.py"
loader_info = importlib.util.spec_from_file_location("check_includes", SCRIPT)
check_includes = importlib.util.module_from_spec(loader_info)
loader_info.loader.exec_module(check_includes)

SOUND = {
    "rooms.txt": """# a comment
core
platform/util: core
platform/devctl/wire: core
platform/devctl: platform/util platform/devctl/wire
base/low: platform
base/high: base/low
publish: base
driver: platform/devctl/wire
client
""",
    "public-headers.txt": "# a comment\nSxA.h\nzqUtil.h\nzqDrive.h\nZqB.h\n",
    "core/SxA.h": "#pragma once\n#include <string>\n#include <tsl/robin_map.h>\n",
    "core/SxA.cpp": '#include "SxA.h"\n#include <unistd.h>\n#include <nlohmann/json.hpp>\n',
    "platform/util/zqUtil.h": '#include "SxA.h"\n',
    "platform/util/zqUtil.cpp": '#include "zqUtil.h"\n#include <archive.h>\n#include <archive_entry.h>\n',
    "platform/devctl/wire/zqWire.h": '#include "SxA.h"\n',
    "platform/devctl/zqDrive.h": '#include "SxA.h"\n',
    "base/low/ZqB.h": '#include "zqUtil.h"\n#include "zqDrive.h"\n#include <vector>\n',
    "base/high/ZqC.h": '#include "ZqB.h"\n#include "zqUtil.h"\n',
    "publish/ZqP.h": '#include "ZqB.h"\n#include "ZqC.h"\n',
    "driver/Engine.h": '#include "zqWire.h"\n#include <sys/mount.h>\n',
    "client/Verbs.h": "#pragma once\n",
    "client/main.cpp": '#include "Verbs.h"\n#include <CLI/CLI.hpp>\n#include <csignal>\n#include <tavrin/ZqB.h>\n',
}

# File to add or replace, its text, the line at fault, a part of the message.
FAULTS = [
    ("core/SxB.h", '\n#include "zqUtil.h"\n', 2, "core must not know platform/util"),
    ("core/SxB.cpp", '#include "ZqB.h"\n', 1, "core must not know base/low"),
    ("core/SxB.h", "#include <archive.h>\n", 1, "libarchive must not appear in a header"),
    ("core/SxB.cpp", '#include "core/SxA.h"\n', 1, "included flat"),
    ("core/SxB.cpp", '#include "SxGone.h"\n', 1, "no such header"),
    ("core/SxB.cpp", "#include <tavrin/SxA.h>\n", 1, "inside the library"),
    ("core/SxZ.cpp", "#include <nlohmann/json.hpp>\n", 1, "src/core/SxA.cpp has it already"),
    ("core/SxB.cpp", "#include <curl/curl.h>\n", 1, "curl belongs to platform/comm and platform/net"),
    ("platform/util/zqZip.cpp", '#  include "ZqB.h"\n', 1, "platform/util must not know base/low"),
    ("platform/devctl/zqDrive.cpp", '#include "ZqB.h"\n', 1, "platform/devctl must not know base/low"),
    ("platform/util/SxA.h", "", 1, "another header is called SxA.h"),
    ("base/low/ZqB.cpp", "#include <vector>\n#include <unistd.h>\n", 2, "no system or third-party header"),
    ("base/low/ZqB.cpp", "#include <tsl/robin_map.h>\n", 1, "no system or third-party header"),
    ("base/low/ZqB.cpp", "#include <filesystem>\n", 1, "through core"),
    ("base/low/ZqB.cpp", '#include "ZqP.h"\n', 1, "base/low must not know publish"),
    ("driver/Engine.cpp", '#include "zqUtil.h"\n', 1, "driver must not know platform/util"),
    ("client/a.cpp", '#include "ZqB.h"\n', 1, "<tavrin/ZqB.h>"),
    ("client/a.cpp", "#include <ZqB.h>\n", 1, "write <tavrin/ZqB.h>"),
    ("client/a.cpp", "#include <tavrin/Engine.h>\n", 1, "the client knows only"),
    ("client/a.cpp", "#include <sys/mount.h>\n", 1, "the client knows only"),
    ("driver/Engine.cpp", '#include "zqDrive.h"\n', 1, "driver must not know platform/devctl"),
    ("platform/devctl/wire/zqWire.cpp", '#include "zqDrive.h"\n', 1, "must not know platform/devctl"),
    ("base/low/ZqB.cpp", '#include "ZqC.h"\n', 1, "base/low must not know base/high"),
    ("base/low/deep/ZqD.cpp", "", 1, "src/base/low/deep is no room"),
    ("base/ZqFlat.cpp", "", 1, "src/base is no room"),
    ("client/a.cpp", "#include <tavrin/ZqC.h>\n", 1, "isn't installed"),
    ("base/low/ZqB.h", '#include "zqWire.h"\n', 1, "ZqB.h is installed, and this isn't"),
    ("public-headers.txt", SOUND["public-headers.txt"] + "Verbs.h\n", 6, "Verbs.h is no header of the library"),
    ("extra/a.cpp", "", 1, "src/extra is no room"),
    ("rooms.txt", SOUND["rooms.txt"] + "extra: gone\n", 11, "extra may know gone, which stands nowhere above"),
    ("rooms.txt", SOUND["rooms.txt"] + "core\n", 11, "core stands twice"),
]


class CheckIncludes(unittest.TestCase):
    def faults_of(self, tree):
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder)
            for name, text in tree.items():
                file = root / "src" / name
                file.parent.mkdir(parents=True, exist_ok=True)
                file.write_text(text, encoding="utf-8")
            return [(str(file), line, text) for file, line, text in check_includes.check(root)]

    def test_sound_tree_has_no_fault(self):
        self.assertEqual(self.faults_of(SOUND), [])

    def test_each_fault_is_found_where_it_is(self):
        for name, text, line, message in FAULTS:
            with self.subTest(file=name, text=text):
                faults = self.faults_of(SOUND | {name: text})
                self.assertEqual([(file, number) for file, number, _ in faults], [(f"src/{name}", line)])
                self.assertIn(message, faults[0][2])


if __name__ == "__main__":
    unittest.main()
