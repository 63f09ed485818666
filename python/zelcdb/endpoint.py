"""Endpoints: one CDB connection, client or server, with the library's thread behind it."""

import atexit
import ctypes
import logging
import threading
import time

from . import _native as n
from . import _registry as reg
from .cdb import CdbSink, CdbSource
from .elements import parse_service
from .errors import ILLEGAL_WHILE_NOT_RUNNING, NETWORK_ERROR, TIMEOUT, ZelcdbError
from .sink import SbpSink
from .source import SbpSource

# The library's log levels as logging's.
_LEVELS = {0: logging.ERROR, 10: logging.WARNING, 30: logging.INFO, 100: logging.DEBUG}


def _endpoint(key):
    return reg.find(key)


def _services(records, size, count):
    """{name: (service id, major, minor)} of the library's records (stepped by its size)."""
    found = {}
    for i in range(count):
        record = n.Service.from_address(records + i * size)
        found[record.name.decode("utf-8", "replace")] = (record.serviceId, record.versionMajor,
                                                         record.versionMinor)
    return found


_T = dict(n.EndpointCallbacks._fields_)


@reg.guarded()
def _on_log(_e, key, category, level, text):
    category = (category or b"").decode("utf-8", "replace")
    text = (text or b"").decode("utf-8", "replace")
    reg.log.log(_LEVELS.get(level, logging.DEBUG), "%s: %s", category, text)
    endpoint = _endpoint(key)
    if endpoint and endpoint.on_log:
        reg.call_user(endpoint.on_log, category, level, text)


@reg.guarded()
def _on_status(_e, key, status, error):
    endpoint = _endpoint(key)
    if endpoint:
        endpoint._status(status, error)


@reg.guarded()
def _on_added(_e, key, _major, _minor, records, size, count):
    endpoint = _endpoint(key)
    if endpoint:
        endpoint._peer_services(_services(records, size, count) if count else {}, True)


@reg.guarded()
def _on_removed(_e, key, _major, _minor, records, size, count):
    endpoint = _endpoint(key)
    if endpoint:
        endpoint._peer_services(_services(records, size, count) if count else {}, False)


@reg.guarded()
def _on_services_timeout(_e, key):
    reg.log.warning("the peer did not list its services")


_CALLBACKS = n.EndpointCallbacks(_T["log"](_on_log), _T["status"](_on_status),
                                 _T["added"](_on_added), _T["removed"](_on_removed),
                                 _T["servicesTimeout"](_on_services_timeout))
# The library logs a line per message sent or received, each one a hand-over of the GIL to
# the endpoint thread: benches that do not read the log go faster without it.
_CALLBACKS_NO_LOG = n.EndpointCallbacks(_T["log"](), _CALLBACKS.status, _CALLBACKS.added,
                                        _CALLBACKS.removed, _CALLBACKS.servicesTimeout)

_open = set()
_open_lock = threading.Lock()


@atexit.register
def _close_all():
    # An endpoint thread calling into an interpreter that is shutting down would crash it.
    with _open_lock:
        endpoints = list(_open)
    for endpoint in endpoints:
        endpoint.close()


class Endpoint:
    """A client or server endpoint. Used as a context manager it starts on entry and stops
    and frees itself on exit:

        with zelcdb.Endpoint.client("cdb://127.0.0.1:9000") as ep:
            vehicle = ep.sbp_sink("com.example.vehicle", timeout=2.0)

    Sources are declared before the start (`sbp_source`, `cdb_source`); sinks while it runs.
    on_log(category, level, text) and on_status(status, error) are called on the endpoint
    thread; the library's log also goes to the logging logger "zelcdb" (log=False without
    on_log leaves it out, which makes each message cheaper). A client used as a
    context manager connects (connect) on entry."""

    def __init__(self, url, mode, library=None, on_log=None, on_status=None,
                 connect_timeout=5.0, log=True):
        self.lib = n.load(library)
        self.url, self.mode, self.on_log, self.on_status = url, mode, on_log, on_status
        self.connect_timeout = connect_timeout
        self._cond = threading.Condition()
        # Guarded by _cond: what the endpoint thread reports.
        self.running = self.connected = False
        self.error = 0  # the error that ended the last run
        self._runs = 0  # runs that have reported status 3
        self._peer = {}  # name -> (service id, major, minor)
        self._sinks = []  # sinks of the current connection
        self._sources = []
        self._key = reg.register(self)
        parameters = n.EndpointParameters(url.encode(), mode, self._key, 1, 1)
        handle, table = n.P(), _CALLBACKS if log or on_log else _CALLBACKS_NO_LOG
        try:
            self.lib.check(self.lib.endpointCreate(
                ctypes.byref(handle), ctypes.byref(parameters), ctypes.sizeof(parameters),
                ctypes.byref(table), ctypes.sizeof(table)), f"endpoint {url}")
        except ZelcdbError:
            reg.unregister(self._key)
            raise
        self.handle = handle.value
        with _open_lock:
            _open.add(self)

    @classmethod
    def client(cls, url, **options):
        return cls(url, n.MODE_CLIENT, **options)

    @classmethod
    def server(cls, url, **options):
        return cls(url, n.MODE_SERVER, **options)

    # ---- Life ------------------------------------------------------------------------

    def start(self):
        with self._cond:
            self.running, self.error = True, 0
        try:
            self.lib.check(self.lib.endpointStart(self._live()), f"starting {self.url}")
        except ZelcdbError:
            with self._cond:
                self.running = False
            raise

    def stop(self):
        """Stops the connection (ByeBye to a connected peer) and waits for the endpoint
        thread; requests still waiting fail. Stopping a stopped endpoint does nothing."""
        if self.handle is not None:
            code = self.lib.endpointStop(self.handle)
            if code not in (0, ILLEGAL_WHILE_NOT_RUNNING):
                self.lib.check(code, f"stopping {self.url}")

    def close(self):
        """Stops the endpoint and frees it; the library calls nothing of it afterwards."""
        handle, self.handle = self.handle, None
        if handle is not None:
            code = self.lib.endpointDestroy(handle)
            if code != 0:  # from inside one of its own callbacks: it cannot free itself
                self.handle = handle
                self.lib.check(code, f"closing {self.url}")
            for source in self._sources:
                reg.unregister(source._key)
            reg.unregister(self._key)
            self._ended(ILLEGAL_WHILE_NOT_RUNNING)
            with _open_lock:
                _open.discard(self)

    def connect(self, timeout=5.0):
        """Starts a client endpoint and waits for its connection; a refused or reset
        connection (the server not listening yet, or busy with another peer) is tried again
        after a short pause until timeout."""
        deadline = time.monotonic() + timeout
        while True:
            self.start()
            try:
                return self.wait_connected(max(0.0, deadline - time.monotonic()))
            except ZelcdbError as e:
                if e.code == TIMEOUT or time.monotonic() + 0.05 > deadline:
                    raise
            self.stop()  # joins the thread that ended
            time.sleep(0.05)

    def __enter__(self):
        if not self.running:
            self.connect(self.connect_timeout) if self.mode == n.MODE_CLIENT else self.start()
        return self

    def __exit__(self, *exc):
        self.close()

    def _live(self):
        if self.handle is None:
            raise ZelcdbError(ILLEGAL_WHILE_NOT_RUNNING, what="the endpoint is closed")
        return self.handle

    def wait(self, predicate, timeout, what):
        """Waits on the endpoint's condition until predicate() holds; Timeout otherwise, and
        NetworkError when the endpoint stops meanwhile."""
        runs = self._runs
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._cond:
            while not predicate():
                if self._runs != runs or not self.running:
                    raise ZelcdbError(self.error or NETWORK_ERROR,
                                      self.lib.error_name(self.error or NETWORK_ERROR),
                                      what=f"{what}: the endpoint stopped")
                left = None if deadline is None else deadline - time.monotonic()
                if left is not None and left <= 0:
                    raise ZelcdbError(TIMEOUT, what=f"{what}: no answer within {timeout} s")
                self._cond.wait(left)

    def wait_connected(self, timeout=5.0):
        self.wait(lambda: self.connected, timeout, f"connecting {self.url}")

    def peer_services(self):
        """{name: (service id, major, minor)} of the services the peer offers now."""
        with self._cond:
            return dict(self._peer)

    # ---- Services --------------------------------------------------------------------

    def _service_named(self, name, timeout):
        self.wait(lambda: name in self._peer, timeout, f"waiting for the peer's {name}")
        with self._cond:
            return self._peer[name][0]

    def sbp_sink(self, name, timeout=2.0, elements=None, on_challenge=None):
        """Starts the peer's SBP service `name` and returns its sink once the peer has
        answered. timeout is each request's default; elements (an element file or dict)
        teaches names and types; on_challenge(command, uid, challenge) answers an
        authentication challenge with response bytes or (result, bytes)."""
        sink = SbpSink(self, self._service_named(name, timeout), timeout, elements,
                       on_challenge)
        with self._cond:
            self._sinks.append(sink)
        try:
            sink._start()
        except ZelcdbError:
            with self._cond:
                if sink in self._sinks:
                    self._sinks.remove(sink)
            sink._gone(ILLEGAL_WHILE_NOT_RUNNING)
            raise
        return sink

    def sbp_source(self, service, elements, getters=None, setters=None, challenge=None,
                   verify=None):
        """Offers an SBP service ("name" or "name:major.minor"; an element file's own
        "service" when None) of the given elements; before start(). See SbpSource."""
        source = SbpSource(self, elements, getters, setters, challenge, verify)
        source._register(*parse_service(service or source.elements.service or "zelcdb:1.0"))
        self._sources.append(source)
        return source

    def cdb_source(self, service, on_payload=None, on_start=None):
        """Offers a plain CDB service; on_payload(bytes) on the endpoint thread."""
        source = CdbSource(self, on_payload, on_start)
        source._register(*parse_service(service))
        self._sources.append(source)
        return source

    def cdb_sink(self, name, on_payload, timeout=2.0):
        """Starts the peer's plain CDB service `name`; on_payload(bytes) for its payloads."""
        sink = CdbSink(self, self._service_named(name, timeout), on_payload)
        sink._start(timeout)
        return sink

    # ---- Endpoint thread -------------------------------------------------------------

    def _status(self, status, error):
        with self._cond:
            if status == n.STATUS_CONNECTED:
                self.connected = True
            self._cond.notify_all()
        if status == n.STATUS_STOPPING:
            self._ended(error)
        if self.on_status:
            reg.call_user(self.on_status, status, error)

    def _ended(self, error):
        with self._cond:
            if not self.running:
                return
            self.running = self.connected = False
            self.error, self._runs = error, self._runs + 1
            self._peer.clear()
            sinks, self._sinks = self._sinks, []
            self._cond.notify_all()
        for sink in sinks:
            sink._gone(error or ILLEGAL_WHILE_NOT_RUNNING)

    def _peer_services(self, services, added):
        with self._cond:
            if added:
                self._peer.update(services)
                gone = []
            else:
                for name in services:
                    self._peer.pop(name, None)
                ids = {record[0] for record in services.values()}
                gone = [sink for sink in self._sinks if sink.service_id in ids]
                self._sinks = [sink for sink in self._sinks if sink not in gone]
            self._cond.notify_all()
        for sink in gone:
            sink._gone(NETWORK_ERROR)
