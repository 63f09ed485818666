"""The library's function table through ctypes: loading, the C records and callback types.

Every entry is called through a prototype built from its C signature, so that ctypes converts
the arguments and releases the GIL during the call: the endpoint thread may then call back
into Python while a Python thread waits inside ZELCDBEndpointStop."""

import ctypes
import ctypes.util
import os
import threading

from .errors import ZelcdbError

U8, U16, U32, I8, I16, I32, I64 = (ctypes.c_uint8, ctypes.c_uint16, ctypes.c_uint32,
                                   ctypes.c_int8, ctypes.c_int16, ctypes.c_int32,
                                   ctypes.c_int64)
P, CHARP, FLOAT, DOUBLE = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_float, ctypes.c_double
PU32 = ctypes.POINTER(U32)
CB = ctypes.CFUNCTYPE

# Protocol values of the header that the package names.
MODE_CLIENT, MODE_SERVER = 1, 2
STATUS_STARTED, STATUS_CONNECTED, STATUS_STOPPING = 1, 2, 3
RESPONSE_STARTED, RESPONSE_STOPPED, RESPONSE_NO_SINK = 0x0001, 0x0002, 0x0102
CMD_GET, CMD_SET, CMD_SUBSCRIBE, CMD_CANCEL, CMD_ALIVE = 0xB1, 0xB2, 0xB3, 0xB4, 0xB5
SUBSCRIBE_PERIODIC, SUBSCRIBE_ON_CHANGE, SUBSCRIBE_EITHER = 0, 1, 2
RESULT_SUCCESS, RESULT_FAILED, RESULT_CANCELLED = 0, 0x10000002, 0x1000000B
INTERVAL_MAX = 0xFFFFFF
NUL_TERMINATED = 0xFFFFFFFF


class Service(ctypes.Structure):
    _fields_ = [("serviceId", U16), ("name", CHARP), ("versionMajor", U8),
                ("versionMinor", U8), ("serviceAttribute", U32), ("accessControl", U32)]


class EndpointParameters(ctypes.Structure):
    _fields_ = [("url", CHARP), ("mode", I32), ("context", P), ("versionMajor", U8),
                ("versionMinor", U8)]


def _table(name, *entries):
    return type(name, (ctypes.Structure,), {"_fields_": list(entries)})


EndpointCallbacks = _table(
    "EndpointCallbacks",
    ("log", CB(None, P, P, CHARP, I32, CHARP)),
    ("status", CB(None, P, P, I32, I32)),
    ("added", CB(None, P, P, U8, U8, P, U32, U32)),
    ("removed", CB(None, P, P, U8, U8, P, U32, U32)),
    ("servicesTimeout", CB(None, P, P)))
SourceServiceCallbacks = _table(
    "SourceServiceCallbacks",
    ("start", CB(None, P, P, U16, P, U8, U8)),
    ("stop", CB(None, P, P, U16, P)),
    ("payload", CB(None, P, P, U16, P, P, U32)))
SinkCallbacks = _table(
    "SinkCallbacks",
    ("payload", CB(None, P, P, U16, P, P, U32)),
    ("response", CB(None, P, P, U16, P, U16)))
SbpSinkCallbacks = _table(
    "SbpSinkCallbacks",
    ("status", CB(None, P, P, U16, P, U16)),
    ("data", CB(None, P, U16, P, P, U32, U32, P, I32)),
    ("setDone", CB(None, P, U16, P, P, U32)),
    ("subscribed", CB(None, P, U16, P, P, U32)),
    ("cancelled", CB(None, P, U16, P, P, U32, U32)),
    ("error", CB(None, P, U16, P, P, U32, U32, I32, U32)),
    ("authChallenge", CB(None, P, U16, P, P, U32, U32, P, I32)),
    ("aliveResponse", CB(None, P, U16, P, P)))
SbpSourceCallbacks = _table(
    "SbpSourceCallbacks",
    ("start", CB(I32, P, P, U16, P, U8, U8)),
    ("stop", CB(I32, P, P, U16, P)),
    ("terminated", CB(None, P, U16, P)),
    ("get", CB(I32, P, U16, P, U32, U32, PU32)),
    ("set", CB(I32, P, U16, P, U32, P, I32, PU32)),
    ("subscribe", CB(I32, P, U16, P, U32, PU32, PU32, PU32)),
    ("cancel", CB(None, P, U16, P, U32, U32)),
    ("authResponse", CB(None, P, U16, P, P, U32, U32, U32, P, I32)),
    ("reserved", P))
DeserializerCallbacks = _table(
    "DeserializerCallbacks",
    ("boolean", CB(None, P, P, P, U32, I32)),
    ("byte", CB(None, P, P, P, U32, I8)),
    ("short", CB(None, P, P, P, U32, I16)),
    ("int", CB(None, P, P, P, U32, I32)),
    ("long", CB(None, P, P, P, U32, I64)),
    ("float", CB(None, P, P, P, U32, FLOAT)),
    ("double", CB(None, P, P, P, U32, DOUBLE)),
    ("bytes", CB(None, P, P, P, U32, P, U32)),
    ("string", CB(None, P, P, P, U32, CHARP)),
    ("structureBegin", CB(None, P, P, P, U32, U32)),
    ("arrayBegin", CB(None, P, P, P, U32, U8)),
    ("end", CB(None, P, P, P, U32)))

PP = ctypes.POINTER(P)
# The table's entries from slot 4 on, in order, with their C signatures (result first).
_ENTRIES = [
    ("sdkUninitialize", None), ("getErrorName", CHARP, I32),
    ("endpointCreate", I32, PP, ctypes.POINTER(EndpointParameters), U32,
     ctypes.POINTER(EndpointCallbacks), U32),
    ("endpointDestroy", I32, P), ("reserved8", None),
    ("endpointAddSourceService", I32, P, P, ctypes.POINTER(Service), U32,
     ctypes.POINTER(SourceServiceCallbacks), U32),
    ("endpointAddSink", I32, P, P, U16, ctypes.POINTER(SinkCallbacks), U32),
    ("endpointStart", I32, P), ("endpointStop", I32, P),
    ("endpointSendStartService", I32, P, U16), ("endpointSendStopService", I32, P, U16),
    ("endpointSendServicePayload", I32, P, U16, CHARP, U32),
    ("endpointSendServiceResponse", I32, P, U16, U16),
    ("endpointGetContext", P, P),
    ("sourceCreate", I32, P, P, ctypes.POINTER(Service), U32,
     ctypes.POINTER(SbpSourceCallbacks), U32),
    ("sinkCreate", I32, P, P, U16, ctypes.POINTER(SbpSinkCallbacks), U32),
    ("hashName", U32, CHARP, U32),
    ("serializerCreate", I32, PP), ("serializerDestroy", I32, P),
    ("serializerGetData", I32, P, PP, PU32),
    ("serializerAddBoolean", I32, P, U32, I32), ("serializerAddByte", I32, P, U32, I8),
    ("serializerAddShort", I32, P, U32, I16), ("serializerAddInt", I32, P, U32, I32),
    ("serializerAddLong", I32, P, U32, I64), ("serializerAddFloat", I32, P, U32, FLOAT),
    ("serializerAddDouble", I32, P, U32, DOUBLE),
    ("serializerAddBytes", I32, P, U32, CHARP, U32),
    ("serializerAddString", I32, P, U32, CHARP, U32),
    ("serializerBeginValueList", I32, P), ("serializerBeginStructure", I32, P, U32),
    ("serializerBeginArray", I32, P, U32, U8), ("serializerEnd", I32, P),
    ("deserializerCreate", I32, PP, P, ctypes.POINTER(DeserializerCallbacks), U32),
    ("deserializerDestroy", I32, P), ("deserializerGetContext", P, P),
    ("deserializerDeserialize", I32, P, P, CHARP, U32),
    ("deserializerDeserializeValueList", I32, P, P, CHARP, U32),
    ("sinkSendGet", I32, P, U16, P, U32),
    ("sinkSendSet", I32, P, U16, P, U32, CHARP, U32),
    ("sinkSendSubscribe", I32, P, U16, P, U32, U32, U32),
    ("sinkSendCancel", I32, P, U16, P, U32, U32),
    ("sinkSendServiceAuthResponse", I32, P, U16, P, U32, U32, U32, CHARP, U32),
    ("sourceSendGetResponse", I32, P, U16, P, U32, U32, U32, CHARP, U32),
    ("sourceSendSetResponse", I32, P, U16, P, U32, U32),
    ("sourceSendSubscribeResponse", I32, P, U16, P, U32, U32),
    ("sourceSendServiceAuthChallenge", I32, P, U16, P, U32, U32, CHARP, U32),
    ("sinkSendAlive", I32, P, U16, P, I32),
]


class _Table(ctypes.Structure):
    _fields_ = ([("versionMajor", U32), ("versionMinor", U32), ("versionPatch", U32),
                 ("versionBuild", U32)] + [(entry[0], P) for entry in _ENTRIES])


class Library:
    """The loaded library and its table: `lib.endpointStart(handle)` calls the entry."""

    def __init__(self, path):
        self.path = path
        self._dll = ctypes.CDLL(path)
        table = _Table()
        error = self._dll.ZELCDBSDKInitialize(ctypes.byref(table), ctypes.sizeof(table))
        if error != 0:
            raise OSError(f"{path}: ZELCDBSDKInitialize refused with error {error}")
        self.version = (table.versionMajor, table.versionMinor, table.versionPatch,
                        table.versionBuild)
        for name, result, *arguments in _ENTRIES:
            address = getattr(table, name)
            if result is None and not arguments:
                continue
            # An older library leaves the entries it lacks NULL: they are None here.
            entry = CB(result, *arguments)(address) if address else None
            setattr(self, name, entry)

    def error_name(self, code):
        name = self.getErrorName(code)
        return name.decode() if name else f"unknown error {code}"

    def check(self, code, what=""):
        """Raises ZelcdbError for a code other than None (0)."""
        if code != 0:
            raise ZelcdbError(code, self.error_name(code), what=what)

    def hash_name(self, name):
        data = name.encode()
        return self.hashName(data, len(data))


_lock = threading.Lock()
_library = None


def load(path=None):
    """Loads libzelcdbsdk.so.1 once per process: from path, from $ZELCDB_LIBRARY, or the
    installed one (the loader's search path, then the folder this package is installed in)."""
    global _library
    with _lock:
        if _library is not None:
            if path and os.path.realpath(path) != os.path.realpath(_library.path):
                raise OSError(f"{_library.path} is already loaded; cannot load {path} too")
            return _library
        candidates = [path or os.environ.get("ZELCDB_LIBRARY") or "libzelcdbsdk.so.1"]
        if not (path or os.environ.get("ZELCDB_LIBRARY")):
            try:  # installed: the library lies where cmake --install put it
                from ._installed import LIBDIR
                here = os.path.dirname(os.path.abspath(__file__))
                candidates.append(os.path.join(here, LIBDIR, "libzelcdbsdk.so.1"))
            except ImportError:
                pass
        failure = None
        for candidate in candidates:
            try:
                _library = Library(candidate)
                return _library
            except OSError as e:
                failure = e
        raise failure
