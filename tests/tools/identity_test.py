#!/usr/bin/env python3
"""Identifiers that the USB monitor could never match are refused when the build is configured."""

import pathlib
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "cmake" / "identity.cmake"
NAMES = ("MIRN_VENDOR_ID", "MIRN_PRODUCT_ID", "MIRN_FALLBACK_VENDOR_ID")


def configure(**identifiers):
    """Exit status, what was said in one line, and the header that was made ("" for none)."""
    with tempfile.TemporaryDirectory() as folder:
        settings = [f"-D{name}={value}" for name, value in identifiers.items()]
        done = subprocess.run(["cmake", f"-DPROJECT_BINARY_DIR={folder}", *settings, "-P", SCRIPT],
                              capture_output=True, text=True, check=False)
        header = pathlib.Path(folder, "generated", "platform", "mirn_identity.h")
        text = header.read_text(encoding="utf-8") if header.exists() else ""
        return done.returncode, " ".join(done.stderr.split()), text


class Identity(unittest.TestCase):
    def refuses(self, name, value, reason):
        with self.subTest(name=name, value=value):
            status, said, header = configure(**{name: value})
            self.assertNotEqual(status, 0)
            self.assertIn(f"{name}={value} {reason}", said)
            self.assertEqual(header, "")

    def test_the_defaults_are_taken(self):
        status, said, header = configure()
        self.assertEqual((status, said), (0, ""))
        self.assertIn("g_vid = 0x1209;", header)
        self.assertIn("g_pid = 0x0001;", header)
        self.assertIn("g_fallback_vid = 0x16c0;", header)

    def test_the_ends_of_the_range_are_taken(self):
        for name, constant in zip(NAMES, ("g_vid", "g_pid", "g_fallback_vid")):
            for value in ("0x0001", "1", "0x7fff", "0X7FFF", "32767"):
                with self.subTest(name=name, value=value):
                    status, said, header = configure(**{name: value})
                    self.assertEqual((status, said), (0, ""))
                    self.assertIn(f" {constant} = {value};", header)

    def test_what_a_signed_number_of_16_bits_cannot_hold_is_refused(self):
        for name in NAMES:
            for value in ("0x8000", "0xffff", "32768", "0x10000", "0x11209", "0", "0x0"):
                self.refuses(name, value, "can't be used")

    def test_what_wraps_around_to_a_small_number_is_refused(self):
        for value in ("0x10000000000001209", "18446744073709556233"):
            status, _, header = configure(MIRN_VENDOR_ID=value)
            self.assertNotEqual(status, 0, value)
            self.assertEqual(header, "", value)

    def test_what_is_no_number_is_refused(self):
        for value in ("", "mirn", "1209h", "0x", "-1", "0x12 09", "1.5"):
            self.refuses("MIRN_PRODUCT_ID", value, "is not a number")

    def test_a_number_that_the_compiler_would_read_as_octal_is_refused(self):
        for value in ("010", "0209", "00"):
            self.refuses("MIRN_VENDOR_ID", value, "is not a number")


if __name__ == "__main__":
    unittest.main()
