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
    "core/SxA.h": "#pragma once\n#include <string>\n#include <tsl/robin_map.h>\n",
    "core/SxA.cpp": '#include "SxA.h"\n#include <unistd.h>\n#include <nlohmann/json.hpp>\n',
    "platform/util/zqUtil.h": '#include "SxA.h"\n',
    "platform/util/zqUtil.cpp": '#include "zqUtil.h"\n#include <archive.h>\n#include <archive_entry.h>\n',
    "platform/devctl/zqDrive.h": '#include "SxA.h"\n',
    "base/ZqB.h": '#include "zqUtil.h"\n#include "zqDrive.h"\n#include <vector>\n',
    "publish/ZqP.h": '#include "ZqB.h"\n',
    "driver/Engine.h": '#include "zqDrive.h"\n#include <sys/mount.h>\n',
    "client/Verbs.h": "#pragma once\n",
    "client/main.cpp": '#include "Verbs.h"\n#include <CLI/CLI.hpp>\n#include <csignal>\n#include <tavrin/ZqB.h>\n',
}

# File to add or replace, its text, the line at fault, a part of the message.
FAULTS = [
    ("core/SxB.h", '\n#include "zqUtil.h"\n', 2, "core must not know platform"),
    ("core/SxB.cpp", '#include "ZqB.h"\n', 1, "core must not know base"),
    ("core/SxB.h", "#include <archive.h>\n", 1, "libarchive must not appear in a header"),
    ("core/SxB.cpp", '#include "core/SxA.h"\n', 1, "included flat"),
    ("core/SxB.cpp", '#include "SxGone.h"\n', 1, "no such header"),
    ("core/SxB.cpp", "#include <tavrin/SxA.h>\n", 1, "inside the library"),
    ("core/SxZ.cpp", "#include <nlohmann/json.hpp>\n", 1, "src/core/SxA.cpp has it already"),
    ("platform/util/zqZip.cpp", '#  include "ZqB.h"\n', 1, "platform must not know base"),
    ("platform/devctl/zqDrive.cpp", '#include "ZqB.h"\n', 1, "devctl must not know base"),
    ("platform/util/SxA.h", "", 1, "another header is called SxA.h"),
    ("base/ZqB.cpp", "#include <vector>\n#include <unistd.h>\n", 2, "no system or third-party header"),
    ("base/ZqB.cpp", "#include <tsl/robin_map.h>\n", 1, "no system or third-party header"),
    ("base/ZqB.cpp", "#include <filesystem>\n", 1, "through core"),
    ("base/ZqB.cpp", '#include "ZqP.h"\n', 1, "base must not know publish"),
    ("driver/Engine.cpp", '#include "zqUtil.h"\n', 1, "driver must not know platform"),
    ("client/a.cpp", '#include "ZqB.h"\n', 1, "<tavrin/ZqB.h>"),
    ("client/a.cpp", "#include <ZqB.h>\n", 1, "write <tavrin/ZqB.h>"),
    ("client/a.cpp", "#include <tavrin/Engine.h>\n", 1, "the client knows only"),
    ("client/a.cpp", "#include <sys/mount.h>\n", 1, "the client knows only"),
    ("extra/a.cpp", "", 1, "not a layer"),
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
