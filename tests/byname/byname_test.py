#!/usr/bin/env python3
"""The example daemon knows the plug-in by its file only. From a recorded switch it must derive the
same tables as the program that was compiled against the types.

    BYNAME_EXAMPLE=PROGRAM HOSTROUTE=PROGRAM PLUGIN=FILE.so byname_test.py
"""
import json
import os
import pathlib
import subprocess
import unittest

RECORDING = pathlib.Path(__file__).parents[2] / "examples" / "leaf.jsonl"


def in_order(value):
    """`value` with every list sorted: the order of lists means nothing."""
    if isinstance(value, dict):
        return {key: in_order(member) for key, member in value.items()}
    if isinstance(value, list):
        return sorted((in_order(member) for member in value), key=json.dumps)
    return value


def dumps(*command):
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return in_order([json.loads(line) for line in output.splitlines()])


class ByNameTest(unittest.TestCase):
    maxDiff = None

    def test_the_loaded_plugin_derives_the_same_tables_as_the_compiled_program(self):
        by_name = dumps(os.environ["BYNAME_EXAMPLE"], os.environ["PLUGIN"], RECORDING)
        compiled = dumps(os.environ["HOSTROUTE"], "replay", "--json", RECORDING)
        self.assertEqual(len(by_name), 2)
        self.assertTrue(all(dump["dump"]["routeTable"] for dump in by_name))
        self.assertEqual(by_name, compiled)

    def test_a_missing_file_is_named(self):
        for plugin, recording in (("no-such.so", RECORDING), (os.environ["PLUGIN"], "no-such.jsonl")):
            failed = subprocess.run([os.environ["BYNAME_EXAMPLE"], plugin, recording],
                                    capture_output=True, text=True)
            self.assertEqual(failed.returncode, 1)
            self.assertIn("no-such", failed.stderr)


if __name__ == "__main__":
    unittest.main()
