"""Reads the routes that a daemon keeps in shared memory, with the next hops that they have.

    import hostroute_reader

    with hostroute_reader.RouteTableReader("leaf1", family=4) as reader:
        for route in reader:
            print(route.prefix, route.type, *(via.intf for via in route.vias))
        while reader.wait(60):
            print(reader.match("10.1.10.11"))

Needs libhostroute_platform; HOSTROUTE_PLATFORM may say where it is. Routes are copies; an object is
used by one thread at a time.
"""
import ctypes
import ctypes.util
import dataclasses
import ipaddress
import os
import time

OK, NONE, DAMAGED, BUSY, NO_TABLE, INVALID, FAILED = range(7)
CHANGED, REOPENED = 1, 2  # what wait() returns


class Error(Exception):
    """A call failed; the text says why."""


class NoTableError(Error):
    """The tables are not there, or cannot be opened."""


class DamagedError(Error):
    """What was asked for is damaged. The reader stays usable."""


class BusyError(Error):
    """What was asked for changes too often to be read. Try again."""


_ERRORS = {DAMAGED: DamagedError, BUSY: BusyError, NO_TABLE: NoTableError, INVALID: ValueError}


@dataclasses.dataclass(frozen=True)
class Via:
    """A next hop. `hop` is None where the destination itself is reached on the interface."""

    hop: ipaddress.IPv4Address | ipaddress.IPv6Address | None
    intf: str


@dataclasses.dataclass(frozen=True)
class Route:
    prefix: ipaddress.IPv4Network | ipaddress.IPv6Network
    type: str
    metric: int
    preference: int
    fec: int
    vias: tuple[Via, ...]


@dataclasses.dataclass(frozen=True)
class State:
    """The tables as a whole; see hostroute_state in platform/tovan/hostroute_reader.h."""

    routes: int
    loading: bool
    initialized: bool
    synchronized: bool
    has_writer: bool
    is_current: bool
    incomplete: bool


class _Route(ctypes.Structure):
    _fields_ = [
        ("addr", ctypes.c_uint8 * 16),
        ("prefix_len", ctypes.c_uint32),
        ("metric", ctypes.c_uint32),
        ("preference", ctypes.c_uint32),
        ("via_count", ctypes.c_uint32),
        ("fec", ctypes.c_uint64),
        ("type", ctypes.c_char * 40),
    ]


class _Via(ctypes.Structure):
    _fields_ = [("hop", ctypes.c_uint8 * 16), ("intf", ctypes.c_char * 128)]


class _State(ctypes.Structure):
    _fields_ = [("routes", ctypes.c_uint64)] + [
        (name, ctypes.c_uint8)
        for name in ("loading", "initialized", "synchronized", "has_writer", "is_current", "incomplete")
    ] + [("reserved", ctypes.c_uint8 * 2)]


def _load():
    path = os.environ.get("HOSTROUTE_PLATFORM") or ctypes.util.find_library("hostroute_platform")
    library = ctypes.CDLL(path or "libhostroute_platform.so.1")
    handle, text = ctypes.c_void_p, ctypes.c_char_p
    for name, result, *arguments in (
        ("open", ctypes.c_int, text, text, ctypes.c_int, ctypes.POINTER(handle), text, ctypes.c_size_t),
        ("close", None, handle),
        ("error", text, handle),
        ("state", ctypes.c_int, handle, ctypes.POINTER(_State)),
        ("find", ctypes.c_int, handle, text, ctypes.c_uint32, ctypes.POINTER(_Route)),
        ("match", ctypes.c_int, handle, text, ctypes.POINTER(_Route)),
        ("walk", ctypes.c_int, handle),
        ("next", ctypes.c_int, handle, ctypes.POINTER(_Route)),
        ("via", ctypes.c_int, handle, ctypes.c_uint32, ctypes.POINTER(_Via)),
        ("wait", ctypes.c_int, handle, ctypes.c_uint32, ctypes.POINTER(ctypes.c_int)),
    ):
        function = getattr(library, "hostroute_reader_" + name)
        function.restype, function.argtypes = result, arguments
    return library


class RouteTableReader:
    """Reads the routes of one VRF and family that a daemon shares under the name `tables`.

    Follows the daemon's restarts: wait() goes over to tables that were made anew, and returns
    REOPENED. Raises NoTableError where there are no tables.
    """

    def __init__(self, tables, vrf="default", family=4):
        self._library = _load()
        self._address, self._network, self._bytes = {
            4: (ipaddress.IPv4Address, ipaddress.IPv4Network, 4),
            6: (ipaddress.IPv6Address, ipaddress.IPv6Network, 16),
        }[family]
        self._reader = ctypes.c_void_p()
        error = ctypes.create_string_buffer(512)
        status = self._library.hostroute_reader_open(
            os.fsencode(tables), os.fsencode(vrf), family, ctypes.byref(self._reader), error, len(error)
        )
        if status != OK:
            raise _ERRORS.get(status, Error)(os.fsdecode(error.value))

    def close(self):
        self._library.hostroute_reader_close(self._reader)
        self._reader = ctypes.c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _call(self, name, *arguments):
        """The status of a call: OK or NONE; raises for the others."""
        status = getattr(self._library, "hostroute_reader_" + name)(self._reader, *arguments)
        if status in (OK, NONE):
            return status
        why = os.fsdecode(self._library.hostroute_reader_error(self._reader))
        raise _ERRORS.get(status, Error)(why or f"hostroute_reader_{name} fails with {status}")

    def _addr(self, raw):
        return self._address(bytes(raw[: self._bytes]))

    def _route(self, name, *arguments):
        raw = _Route()
        if self._call(name, *arguments, ctypes.byref(raw)) == NONE:
            return None
        vias = []
        for index in range(raw.via_count):
            via = _Via()
            self._call("via", index, ctypes.byref(via))
            hop = self._addr(via.hop) if any(via.hop) else None
            vias.append(Via(hop, os.fsdecode(via.intf)))
        return Route(
            prefix=self._network((self._addr(raw.addr), raw.prefix_len)),
            type=raw.type.decode(),
            metric=raw.metric,
            preference=raw.preference,
            fec=raw.fec,
            vias=tuple(vias),
        )

    def find(self, prefix):
        """The route with exactly this prefix, or None."""
        network = self._network(prefix)
        return self._route("find", network.network_address.packed, network.prefixlen)

    def match(self, address):
        """The route that a packet to `address` takes, or None."""
        return self._route("match", self._address(address).packed)

    def __iter__(self):
        """All routes, in no order. A damaged one raises DamagedError; routes() leaves it out."""
        self._call("walk")
        while (route := self._route("next")) is not None:
            yield route

    def routes(self, damaged=None):
        """A list of all routes that can be read; calls `damaged` with what is said of the others."""
        report = damaged or (lambda text: None)
        try:
            self._call("walk")
        except DamagedError as damage:
            report(str(damage))
        found = []
        while True:
            try:
                route = self._route("next")
            except (DamagedError, BusyError) as error:
                report(str(error))
                continue
            if route is None:
                return found
            found.append(route)

    def state(self):
        raw = _State()
        self._call("state", ctypes.byref(raw))
        return State(raw.routes, *(bool(getattr(raw, name)) for name, _ in _State._fields_[1:-1]))

    def wait(self, seconds):
        """Waits for a change: CHANGED, REOPENED, or None when there was none."""
        news = ctypes.c_int()
        end = time.monotonic() + seconds
        while True:
            # In parts, between which an interrupt is heeded.
            left = max(0.0, end - time.monotonic())
            if self._call("wait", round(min(left, 0.5) * 1000), ctypes.byref(news)) == OK:
                return news.value
            if left == 0:
                return None
