"""zelcdb: CDB endpoints, SBP sinks and sources, and SBP values as Python objects, over
libzelcdbsdk.so.1 (loaded from $ZELCDB_LIBRARY, zelcdb.load(path), or the system).

    with zelcdb.Endpoint.client("cdb://127.0.0.1:9000") as ep:
        vehicle = ep.sbp_sink("com.example.vehicle", timeout=2.0)
        assert vehicle.get("vehicleSpeed") == 88
        vehicle.set("vehicleSpeed", 95)
        for speed in vehicle.subscribe("vehicleSpeed", periodic_ms=500, count=3):
            ...
"""

from ._native import load
from .elements import Element, ElementFileError, Elements, load_elements
from .endpoint import Endpoint
from .errors import RESULT_NAMES, Refused, ZelcdbError
from .sink import SbpSink, Subscription
from .source import SbpSource
from .values import BadValue, Type, decode, encode, json_line, to_json

__all__ = ["load", "Element", "ElementFileError", "Elements", "load_elements", "Endpoint",
           "RESULT_NAMES", "Refused", "ZelcdbError", "SbpSink", "Subscription", "SbpSource",
           "BadValue", "Type", "decode", "encode", "json_line", "to_json", "hash_name"]


def hash_name(name):
    """The UID of an element name, as both sides compute it."""
    return load().hash_name(name)
