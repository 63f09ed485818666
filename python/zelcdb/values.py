"""SBP data as Python objects, encoded and decoded by the library's own serializer and
deserializer. Python walks types and values around them, as zelcdb does:

    boolean -> bool        byte, short, int, long -> int      float, double -> float
    bytes -> bytes         string -> str                      structure -> dict
    array -> list

Structure members are keyed by name where the name is known, by the UID as "0x%08x"
otherwise. `to_json` and `json_line` give the text zelcdb prints (bytes as hex)."""

import ctypes
import itertools
import json
import math
import struct

from . import _native as n

KINDS = {"boolean": 0x82, "byte": 0x83, "short": 0x84, "int": 0x85, "long": 0x86,
         "float": 0x87, "double": 0x88, "bytes": 0x90, "string": 0x91, "structure": 0xA1}
KIND_NAMES = {code: name for name, code in KINDS.items()}
ARRAY_ITEMS = ("boolean", "short", "int", "long", "float", "double")
_RANGES = {"byte": 8, "short": 16, "int": 32, "long": 64}


class BadValue(ValueError):
    """A value that does not fit its type, or SBP data that does not decode."""


class Member:
    __slots__ = ("name", "uid", "type")

    def __init__(self, name, uid, type_):
        self.name, self.uid, self.type = name, uid, type_


class Type:
    """kind: a scalar name, "structure" or "array"; items: an array's element kind (a scalar
    name or "structure"); members: the Members of a structure or of each array element."""

    __slots__ = ("kind", "items", "members")

    def __init__(self, kind, items=None, members=()):
        self.kind, self.items, self.members = kind, items, tuple(members)

    def describe(self):
        if self.kind != "array":
            return self.kind
        return "array of structures" if self.items == "structure" else f"array of {self.items}"

    def __repr__(self):
        return f"Type({self.describe()!r})"


def uid_key(uid):
    return f"0x{uid:08x}"


def parse_uid_key(key):
    """The UID a "0x1234abcd" key stands for, or None for a name."""
    if isinstance(key, str) and 3 <= len(key) <= 10 and key[:2] in ("0x", "0X"):
        try:
            return int(key[2:], 16)
        except ValueError:
            return None
    return None


# ---- Decoding ----------------------------------------------------------------------------

class _Node:
    __slots__ = ("uid", "kind", "items", "scalar", "children")

    def __init__(self, uid, kind, items=None, scalar=None):
        self.uid, self.kind, self.items, self.scalar, self.children = uid, kind, items, scalar, []


def shortest_float(value):
    """A float's shortest decimal form (2.3 rather than 2.299999952316284), as zelcdb shows it."""
    if value != value or value in (float("inf"), float("-inf")):
        return value
    packed = struct.pack("<f", value)
    for digits in range(1, 10):
        candidate = float(f"{value:.{digits}g}")
        if struct.pack("<f", candidate) == packed:
            return candidate
    return value


class _Walk:
    """The deserializer's callbacks build a _Node tree; one _Walk per decode."""

    def __init__(self):
        self.root, self.open = None, []

    def add(self, node):
        if self.open:
            self.open[-1].children.append(node)
        else:
            self.root = node
        return node


_walks = {}


def _scalar(kind, convert=lambda v: v):
    def callback(_d, _c, user, uid, value):
        _walks[user].add(_Node(uid, kind, scalar=convert(value)))
    return callback


def _begin(kind):
    def callback(_d, _c, user, uid, extra):
        walk = _walks[user]
        if kind == "structure":
            walk.open.append(walk.add(_Node(uid, "structure")))
        else:
            items = KIND_NAMES.get(extra, "unknown")
            walk.open.append(walk.add(_Node(uid, "array", items=items)))
    return callback


def _end(_d, _c, user, _uid):
    walk = _walks[user]
    if walk.open:
        walk.open.pop()


_T = dict(n.DeserializerCallbacks._fields_)
# Kept for the life of the process: the library calls these for every decode.
_CALLBACKS = n.DeserializerCallbacks(
    _T["boolean"](_scalar("boolean", bool)), _T["byte"](_scalar("byte")),
    _T["short"](_scalar("short")), _T["int"](_scalar("int")), _T["long"](_scalar("long")),
    _T["float"](_scalar("float", shortest_float)), _T["double"](_scalar("double")),
    _T["bytes"](lambda _d, _c, user, uid, data, length: _walks[user].add(
        _Node(uid, "bytes", scalar=ctypes.string_at(data, length) if length else b""))),
    _T["string"](_scalar("string", lambda v: v.decode("utf-8", "replace"))),
    _T["structureBegin"](_begin("structure")), _T["arrayBegin"](_begin("array")),
    _T["end"](_end))
_walk_keys = itertools.count(1)


def decode_node(data):
    lib = n.load()
    key, walk = next(_walk_keys), _Walk()
    _walks[key] = walk
    handle = n.P()
    try:
        error = lib.deserializerCreate(ctypes.byref(handle), None, ctypes.byref(_CALLBACKS),
                                       ctypes.sizeof(_CALLBACKS))
        if error == 0:
            error = lib.deserializerDeserialize(handle, key, bytes(data), len(data))
            lib.deserializerDestroy(handle)
    finally:
        del _walks[key]
    if error != 0 or walk.root is None:
        raise BadValue(f"undecodable SBP data ({lib.error_name(error)} ({error})): "
                          f"{bytes(data[:32]).hex()}{'...' if len(data) > 32 else ''}")
    return walk.root


def to_python(node, names):
    if node.kind == "structure":
        return {names.get(c.uid) or uid_key(c.uid): to_python(c, names) for c in node.children}
    if node.kind == "array":
        return [to_python(c, names) for c in node.children]
    return node.scalar


def type_of(node, names):
    """The type of a decoded value, members named as names (uid -> name) knows them."""
    first = node.children[0].children if node.kind == "array" and node.children else ()
    source = node.children if node.kind == "structure" else first
    members = [Member(names.get(c.uid) or uid_key(c.uid), c.uid, type_of(c, names))
               for c in source] if node.kind in ("structure", "array") else ()
    return Type(node.kind, node.items, members)


def decode(data, names=None):
    """(uid, value, type) of SBP data holding one value."""
    node = decode_node(data)
    names = names or {}
    return node.uid, to_python(node, names), type_of(node, names)


# ---- Encoding ----------------------------------------------------------------------------

def _shown(value):
    text = json.dumps(to_json(value)) if _jsonable(value) else repr(value)
    return text if len(text) <= 40 else text[:37] + "..."


def _jsonable(value):
    try:
        json.dumps(to_json(value))
        return True
    except (TypeError, ValueError):
        return False


def _fail(path, expected, value):
    raise BadValue(f"{path + ': ' if path else ''}expects {expected}, got {_shown(value)}")


def _integer(path, value, kind):
    bits = _RANGES[kind]
    low, high = -(1 << (bits - 1)), (1 << (bits - 1)) - 1
    if isinstance(value, float) and value.is_integer():
        value = int(value)
    if isinstance(value, bool) or not isinstance(value, int) or not low <= value <= high:
        article = "an" if kind == "int" else "a"
        _fail(path, f"{article} {kind} (an integer from {low} to {high})", value)
    return value


class _Serializer:
    def __init__(self, lib):
        self.lib, self.handle = lib, n.P()
        lib.check(lib.serializerCreate(ctypes.byref(self.handle)), "creating a serializer")

    def __call__(self, path, entry, *arguments):
        error = getattr(self.lib, entry)(self.handle, *arguments)
        if error != 0:
            where = f"{path}: " if path else ""
            raise BadValue(f"{where}the SBP serializer refused it: "
                              f"{self.lib.error_name(error)} ({error})")

    def data(self):
        data, length = n.P(), n.U32()
        self("", "serializerGetData", ctypes.byref(data), ctypes.byref(length))
        return ctypes.string_at(data, length.value) if length.value else b""

    def close(self):
        self.lib.serializerDestroy(self.handle)


def _put(s, uid, type_, value, path, nested):
    kind = type_.kind
    if kind == "boolean":
        if not isinstance(value, bool):
            _fail(path, "a boolean", value)
        s(path, "serializerAddBoolean", uid, int(value))
    elif kind in _RANGES:
        entry = {"byte": "serializerAddByte", "short": "serializerAddShort",
                 "int": "serializerAddInt", "long": "serializerAddLong"}[kind]
        s(path, entry, uid, _integer(path, value, kind))
    elif kind in ("float", "double"):
        if isinstance(value, bool) or not isinstance(value, (int, float)):
            _fail(path, f"a {kind}", value)
        s(path, "serializerAddFloat" if kind == "float" else "serializerAddDouble", uid,
          float(value))
    elif kind == "bytes":
        if isinstance(value, str):
            try:
                value = bytes.fromhex(value[2:] if value[:2] in ("0x", "0X") else value)
            except ValueError:
                _fail(path, "bytes or a hex string", value)
        if not isinstance(value, (bytes, bytearray)):
            _fail(path, "bytes or a hex string", value)
        s(path, "serializerAddBytes", uid, bytes(value), len(value))
    elif kind == "string":
        if not isinstance(value, str):
            _fail(path, "a string", value)
        # Peers count the characters of a string where the encoder writes its UTF-8 length;
        # only ASCII text reads back the same.
        if not value.isascii():
            raise BadValue(f"{path + ': ' if path else ''}only ASCII strings can be sent: "
                              f"{_shown(value)}")
        s(path, "serializerAddString", uid, value.encode(), len(value))
    elif kind == "structure":
        if not isinstance(value, dict):
            _fail(path, "a structure (a dict)", value)
        if nested and not type_.members:
            raise BadValue(f"{path}: an empty structure inside another value cannot be "
                              "read back")
        s(path, "serializerBeginStructure", uid)
        _put_members(s, type_.members, value, path)
        s(path, "serializerEnd")
    elif kind == "array":
        if not isinstance(value, (list, tuple)):
            _fail(path, f"an {type_.describe()} (a list)", value)
        if nested and not value:
            raise BadValue(f"{path}: an empty array inside another value cannot be read back")
        s(path, "serializerBeginArray", uid, KINDS[type_.items])
        for i, item in enumerate(value):
            where = f"{path}[{i}]"
            if type_.items != "structure":
                _put(s, 0, Type(type_.items), item, where, True)
                continue
            if not isinstance(item, dict):
                _fail(where, "a structure (a dict)", item)
            members = type_.members or infer_type(item).members
            if not members:
                raise BadValue(f"{where}: an empty structure inside an array cannot be "
                                  "read back")
            s(where, "serializerBeginStructure", 0)
            _put_members(s, members, item, where)
            s(where, "serializerEnd")
        s(path, "serializerEnd")
    else:
        raise BadValue(f"{path + ': ' if path else ''}unknown type {kind!r}")


def _put_members(s, members, value, path):
    for member in members:
        if member.name not in value:
            raise BadValue(f"{path + ': ' if path else ''}missing member '{member.name}'")
        _put(s, member.uid, member.type, value[member.name],
             f"{path}.{member.name}" if path else member.name, True)
    known = {m.name for m in members}
    for key in value:
        if key not in known:
            names = ", ".join(m.name for m in members) or "none"
            raise BadValue(f"{path + ': ' if path else ''}no member '{key}' (its members: "
                              f"{names})")


def encode(uid, type_, value):
    """SBP data of one value of the given type under that UID; ValueError naming where the
    value does not fit ("position.latitude: expects a double, got \"north\"")."""
    s = _Serializer(n.load())
    try:
        _put(s, uid, type_, value, "", False)
        return s.data()
    finally:
        s.close()


def _number_kind(value):
    if isinstance(value, float):
        return "double"
    return "int" if -(1 << 31) <= value < (1 << 31) else "long"


def infer_type(value):
    """The type a Python value suggests when nothing better is known: integers are int (long
    when they need it), floats double, dicts structures, lists arrays of their items."""
    if isinstance(value, bool):
        return Type("boolean")
    if isinstance(value, (int, float)):
        return Type(_number_kind(value))
    if isinstance(value, str):
        return Type("string")
    if isinstance(value, (bytes, bytearray)):
        return Type("bytes")
    if isinstance(value, dict):
        lib = n.load()
        return Type("structure", members=[
            Member(k, parse_uid_key(k) if parse_uid_key(k) is not None else lib.hash_name(k),
                   infer_type(v)) for k, v in value.items()])
    if isinstance(value, (list, tuple)):
        if value and isinstance(value[0], dict):
            return Type("array", "structure", infer_type(value[0]).members)
        if value and isinstance(value[0], bool):
            return Type("array", "boolean")
        items = "int"
        for item in value:
            if isinstance(item, bool) or not isinstance(item, (int, float)):
                raise BadValue(f"cannot tell the type of {_shown(value)}: SBP arrays hold "
                                  "numbers, booleans or structures")
            kind = _number_kind(item)
            if kind == "double" or (kind == "long" and items == "int"):
                items = kind
        return Type("array", items)
    raise BadValue(f"cannot send {_shown(value)}")


def to_json(value):
    """The JSON value zelcdb prints for a Python value: bytes become hex strings."""
    if isinstance(value, (bytes, bytearray)):
        return bytes(value).hex()
    if isinstance(value, dict):
        return {k: to_json(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [to_json(v) for v in value]
    if isinstance(value, float) and not math.isfinite(value):
        return None  # JSON has no NaN or infinity; zelcdb prints null for them too
    return value


def json_line(name, value):
    """The line zelcdb prints for a value: {"vehicleSpeed":88}."""
    return json.dumps({name: to_json(value)}, separators=(",", ":"), ensure_ascii=False)

