"""Plain CDB services: payloads in both directions, no SBP."""

import concurrent.futures
import ctypes

from . import _native as n
from . import _registry as reg
from .errors import FAILED, TIMEOUT, ZelcdbError

_S = dict(n.SourceServiceCallbacks._fields_)
_K = dict(n.SinkCallbacks._fields_)


def _payload(data, length):
    return ctypes.string_at(data, length) if length else b""


@reg.guarded()
def _on_start(endpoint, _c, service_id, key, _major, _minor):
    source = reg.find(key)
    accept = source is not None and (source.on_start is None or source.on_start() is not False)
    # A plain source answers its start itself, here at once.
    n.load().endpointSendServiceResponse(endpoint, service_id, n.RESPONSE_STARTED if accept
                                         else 0x0201)


@reg.guarded()
def _on_stop(endpoint, _c, service_id, _key):
    n.load().endpointSendServiceResponse(endpoint, service_id, n.RESPONSE_STOPPED)


@reg.guarded()
def _on_payload(_e, _c, _s, key, data, length):
    service = reg.find(key)
    if service and service.on_payload:
        reg.call_user(service.on_payload, _payload(data, length))


@reg.guarded()
def _on_response(_e, _c, _s, key, response):
    sink = reg.find(key)
    if sink:
        try:
            sink._started.set_result(response)
        except concurrent.futures.InvalidStateError:
            pass


_SOURCE = n.SourceServiceCallbacks(_S["start"](_on_start), _S["stop"](_on_stop),
                                   _S["payload"](_on_payload))
_SINK = n.SinkCallbacks(_K["payload"](_on_payload), _K["response"](_on_response))


class _Plain:
    def send(self, data):
        """Sends one ServicePayload (at most 8100 bytes)."""
        data = bytes(data)
        lib = self.endpoint.lib
        lib.check(lib.endpointSendServicePayload(self.endpoint._live(), self.service_id, data,
                                                 len(data)), "sending a payload")


class CdbSource(_Plain):
    """A plain CDB service of this endpoint (Endpoint.cdb_source). on_start() returning
    False refuses a peer's start; on_payload(bytes) gets each payload."""

    def __init__(self, endpoint, on_payload, on_start):
        self.endpoint, self.on_payload, self.on_start = endpoint, on_payload, on_start
        self._key = reg.register(self)

    def _register(self, name, major, minor):
        self._name = name.encode()
        service = n.Service(0, self._name, major, minor, 0, 0)
        lib = self.endpoint.lib
        lib.check(lib.endpointAddSourceService(self.endpoint._live(), self._key,
                                               ctypes.byref(service), ctypes.sizeof(service),
                                               ctypes.byref(_SOURCE), ctypes.sizeof(_SOURCE)),
                  f"offering {name}")
        self.service_id = service.serviceId


class CdbSink(_Plain):
    """A started plain CDB service of the peer (Endpoint.cdb_sink)."""

    def __init__(self, endpoint, service_id, on_payload):
        self.endpoint, self.service_id, self.on_payload = endpoint, service_id, on_payload
        self._started = concurrent.futures.Future()
        self._key = reg.register(self)

    def _start(self, timeout):
        lib, handle = self.endpoint.lib, self.endpoint._live()
        lib.check(lib.endpointAddSink(handle, self._key, self.service_id, ctypes.byref(_SINK),
                                      ctypes.sizeof(_SINK)), "adding a sink")
        lib.check(lib.endpointSendStartService(handle, self.service_id), "StartService")
        try:
            response = self._started.result(timeout)
        except concurrent.futures.TimeoutError:
            raise ZelcdbError(TIMEOUT, what="StartService: no answer") from None
        if response != n.RESPONSE_STARTED:
            raise ZelcdbError(FAILED, what=f"StartService answered 0x{response:04x}")
