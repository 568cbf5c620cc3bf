#!/usr/bin/env python3
"""The layer checker finds what runs against the arrows, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools" / "check_layers.py"


def run(files):
    with tempfile.TemporaryDirectory() as folder:
        for name, text in files.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        done = subprocess.run([sys.executable, TOOL, folder], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout.splitlines()


class CheckLayers(unittest.TestCase):
    def test_an_include_along_the_arrows_passes(self):
        self.assertEqual(run({"plugin/a.cc": '#include "video/b.h"\n#include "deps/pellum/c.h"\n'}), (0, []))

    def test_an_include_against_the_arrows_is_named_with_file_and_line(self):
        status, lines = run({"device/a.cc": '#include <vector>\n#include "video/b.h"\n'})
        self.assertEqual(status, 1)
        self.assertEqual(lines, ["device/a.cc:2: device may not include video/b.h"])

    def test_the_base_knows_nobody(self):
        self.assertEqual(run({"deps/pellum/a.h": '#include "platform/clock.h"\n'})[0], 1)

    def test_the_linux_implementation_is_reached_by_nobody(self):
        self.assertEqual(run({"video/a.cc": '#include "platform/linux/v4l2.h"\n'})[0], 1)
        self.assertEqual(run({"platform/a.cc": '#include "platform/linux/v4l2.h"\n'})[0], 1)
        self.assertEqual(run({"platform/linux/a.cc": '#include "platform/linux/v4l2.h"\n'})[0], 0)

    def test_the_virtual_device_never_sees_the_real_encoder(self):
        self.assertEqual(run({"virtual/a.cc": '#include "device/protocol.h"\n'})[0], 1)

    def test_applications_reach_the_plugin_through_its_host_header_alone(self):
        self.assertEqual(run({"apps/console/a.cc": '#include "plugin/mirn_host.h"\n'})[0], 0)
        self.assertEqual(run({"apps/console/a.cc": '#include "plugin/mirn_manager.h"\n'})[0], 1)

    def test_no_spelling_of_a_path_is_a_way_around(self):
        for spelling in ("<video/x.h>", '"../video/x.h"', '"device/../video/x.h"', '"./../video/x.h"'):
            self.assertEqual(run({"device/a.cc": f"#include {spelling}\n"})[0], 1, spelling)
        self.assertEqual(run({"device/a.cc": '#include "./b.h"\n'}), (0, []))

    def test_system_headers_and_files_outside_the_rooms_do_not_count(self):
        self.assertEqual(run({"tests/unit/a.cc": '#include "platform/linux/v4l2.h"\n',
                              "device/b.h": "#include <vector>\n#include <linux/videodev2.h>\n"}), (0, []))


if __name__ == "__main__":
    unittest.main()
