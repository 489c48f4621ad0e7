#!/usr/bin/env python3
"""Readers of a daemon's routes outside of the tree: the Python module, and the example in C++.

Takes the programs and the library from the environment: HOSTROUTE, READER_EXAMPLE and
HOSTROUTE_PLATFORM.
"""
import json
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "python"))
import hostroute_reader  # noqa: E402
from hostroute_reader import RouteTableReader  # noqa: E402

PATIENCE = 30


class Writer:
    """A replay of events, which keeps the routes of the VRF a/b in shared memory."""

    def __init__(self, name):
        self.process = subprocess.Popen(
            [os.environ["HOSTROUTE"], "replay", "--no-final-dump", "--shared", name, "-"], stdin=subprocess.PIPE, text=True
        )

    def feed(self, *events):
        self.process.stdin.writelines(json.dumps(event) + "\n" for event in events)
        self.process.stdin.flush()

    def end(self):
        """Ends the replay, which removes its tables."""
        self.process.stdin.close()
        self.process.wait()

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()


def route(prefix, **members):
    return {"op": "route", "vrf": "a/b", "prefix": prefix, **members}


def scene(intf):
    """A subnet on an interface and a host in it, in both families."""
    yield {"op": "initialized", "vrf": "a/b", "value": True}
    for family in (4, 6):
        yield {"op": "fec", "id": 1, "family": family, "vias": [{"intf": intf}]}
    for prefix in ("10.0.0.0/24", "2001:db8::/64", "10.0.0.5/32", "2001:db8::5/128"):
        yield route(prefix, type="attached_", fec=1, metric=7)


class ReaderTest(unittest.TestCase):
    def setUp(self):
        self.name = f"readertest{os.getpid()}"
        self.writer = Writer(self.name)

    def tearDown(self):
        self.writer.kill()
        for left in pathlib.Path("/dev/shm").glob(f"hostroute-{self.name}*"):
            left.unlink()

    def open(self, family=4):
        """Waits for the tables, and returns a reader."""
        while True:
            try:
                return RouteTableReader(self.name, "a/b", family)
            except hostroute_reader.NoTableError:
                self.assertIsNone(self.writer.process.poll())

    def until(self, reader, holds):
        """Waits for changes until `holds()`. Returns the results of wait()."""
        news = []
        while not holds():
            news.append(reader.wait(PATIENCE))
            self.assertIsNotNone(news[-1], "nothing changes any more")
        return news

    def test_python_reads_both_families(self):
        with self.assertRaisesRegex(hostroute_reader.NoTableError, "does not exist"):
            RouteTableReader("no-such-tables")
        with self.assertRaises(KeyError):
            RouteTableReader(self.name, family=5)
        self.writer.feed(*scene("Ethernet1"))
        for family, host, net in ((4, "10.0.0.5", "10.0.0.0/24"), (6, "2001:db8::5", "2001:db8::/64")):
            with self.subTest(family=family), self.open(family) as reader:
                bits = 32 if family == 4 else 128
                self.until(reader, lambda: reader.find(f"{host}/{bits}"))
                attached = reader.match(host)
                self.assertEqual(str(attached.prefix), f"{host}/{bits}")
                self.assertEqual((attached.type, attached.metric), ("attached_", 7))
                self.assertEqual(attached.vias, (hostroute_reader.Via(None, "Ethernet1"),))
                self.assertEqual(str(reader.match(host[:-1] + "6").prefix), net)
                self.assertIsNone(reader.match("192.0.2.1" if family == 4 else "2001:db9::"))
                everything = {net, f"{host}/{bits}"}
                self.until(reader, lambda: {str(route.prefix) for route in reader} == everything)
                self.assertEqual(len(reader.routes()), reader.state().routes)
                self.assertTrue(reader.state().initialized)
                with self.assertRaises(ValueError):
                    reader._call("find", b"\x0a\0\0\x05" + bytes(12), 129, hostroute_reader._Route())

    def test_python_follows_a_restart(self):
        self.writer.feed(*scene("Ethernet1"))
        with self.open() as reader:
            self.until(reader, lambda: reader.find("10.0.0.5/32"))
            self.writer.kill()
            self.until(reader, lambda: not reader.state().has_writer)
            self.assertTrue(reader.state().is_current)
            self.writer = Writer(self.name)
            self.writer.feed(*scene("Ethernet2"))
            news = self.until(
                reader,
                lambda: reader.state().is_current
                and reader.find("10.0.0.5/32")
                and reader.match("10.0.0.5").vias[0].intf == "Ethernet2",
            )
            self.assertIn(hostroute_reader.REOPENED, news)
            self.assertTrue(reader.state().has_writer)

    def test_python_names_damage_and_reads_the_rest(self):
        self.writer.feed(*scene("Ethernet1"))
        metric = 3735928559
        self.writer.feed(route("10.9.0.0/16", fec=1, metric=metric))
        with self.open() as reader:
            self.until(reader, lambda: reader.find("10.9.0.0/16") and reader.find("10.0.0.5/32"))
            path = pathlib.Path(f"/dev/shm/hostroute-{self.name}.a%2Fb.route4")
            at = path.read_bytes().find(metric.to_bytes(4, "little"))
            self.assertGreater(at, 0)
            with path.open("r+b") as file:
                file.seek(at)
                file.write(b"\0")
            with self.assertRaisesRegex(hostroute_reader.DamagedError, "wrong checksum"):
                reader.find("10.9.0.0/16")
            damages = []
            routes = reader.routes(damages.append)
            self.assertEqual(
                {str(route.prefix) for route in routes}, {"10.0.0.0/24", "10.0.0.5/32"}
            )
            self.assertTrue(damages)

    def test_example_prints_changes_and_follows_a_restart(self):
        self.writer.feed(*scene("Ethernet1"))
        with self.open() as reader:
            self.until(reader, lambda: len(reader.routes()) == 2)
        example = subprocess.Popen(
            [os.environ["READER_EXAMPLE"], self.name, "a/b", "2"],
            stdout=subprocess.PIPE,
            text=True,
        )
        with example:
            lines = iter(example.stdout.readline, "")
            self.assertEqual(next(lines), "+ 10.0.0.0/24 Ethernet1\n")
            self.assertEqual(next(lines), "+ 10.0.0.5/32 Ethernet1\n")
            self.writer.feed(route("10.0.0.5/32", present=False))
            self.assertEqual(next(lines), "- 10.0.0.5/32\n")
            self.writer.end()
            self.writer = Writer(self.name)
            self.writer.feed(*scene("Ethernet2"))
            rest = list(lines)
        self.assertEqual(example.returncode, 0)
        self.assertIn("restarted\n", rest)
        self.assertEqual(rest[-1], "+ 10.0.0.5/32 Ethernet2\n")


if __name__ == "__main__":
    unittest.main()
