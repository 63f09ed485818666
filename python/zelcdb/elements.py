"""Element files, the JSON that `zelcdb serve` offers and clients read to know names and
types:

    {
      "service": "com.example.vehicle:1.0",                      (optional)
      "elements": [
        {"name": "vehicleSpeed", "type": "int", "value": 88},
        {"name": "position", "type": "structure",
         "members": [{"name": "latitude", "type": "double"}, ...], "value": {...}},
        {"name": "tyrePressures", "type": "array", "items": "float", "value": [2.3, 2.5]},
        {"name": "contacts", "type": "array",
         "items": {"type": "structure", "members": [...]}, "value": [{...}, ...]}
      ]
    }

The same document may be given as a dict, and a plain {name: value} dict declares elements
whose types are inferred from their values."""

import json

from . import _native as n
from .values import ARRAY_ITEMS, KINDS, BadValue, Member, Type, encode, infer_type, \
    parse_uid_key

SCALARS = tuple(k for k in KINDS if k != "structure")


class ElementFileError(ValueError):
    """An element file that cannot be used: "FILE: where: what is wrong"."""


class Element:
    """One element: name, uid, type and value (a value, or a getter for sources)."""

    __slots__ = ("name", "uid", "type", "value")

    def __init__(self, name, uid, type_, value):
        self.name, self.uid, self.type, self.value = name, uid, type_, value


class Elements:
    """Elements by UID, and the names of every element and member (uid -> name)."""

    def __init__(self, service="", elements=()):
        self.service, self.by_uid, self.names = service, {}, {}
        for element in elements:
            self.add(element)

    def add(self, element):
        self.by_uid[element.uid] = element
        self.names[element.uid] = element.name
        self._add_names(element.type)

    def _add_names(self, type_):
        for member in type_.members:
            self.names.setdefault(member.uid, member.name)
            self._add_names(member.type)

    def uid(self, element):
        """The UID of an element given by name, "0x..." text or number."""
        if isinstance(element, int):
            return element
        uid = parse_uid_key(element)
        return uid if uid is not None else n.load().hash_name(element)

    def name(self, uid):
        return self.names.get(uid) or f"0x{uid:08x}"

    def __iter__(self):
        return iter(self.by_uid.values())

    def __len__(self):
        return len(self.by_uid)


class _Check:
    def __init__(self, origin):
        self.origin = origin

    def fail(self, path, what):
        raise ElementFileError(f"{self.origin}: {path + ': ' if path else ''}{what}")

    def only(self, obj, path, allowed, context):
        for key in obj:
            if key not in allowed:
                self.fail(path, f"{context}unknown key \"{key}\" (expected "
                                f"{', '.join(allowed)})")

    def need(self, obj, path, key, context):
        if key not in obj:
            self.fail(path, f"{context}no \"{key}\"")
        return obj[key]

    def name(self, obj, path, context):
        name = self.need(obj, path, "name", context)
        if not isinstance(name, str) or not name:
            self.fail(path, f"{context}\"name\" must be a non-empty string")
        return name

    def type(self, obj, path, context):
        kind = self.need(obj, path, "type", context)
        if not isinstance(kind, str):
            self.fail(path, f"{context}\"type\" must be a string")
        if kind in SCALARS:
            if "members" in obj or "items" in obj:
                self.fail(path, f"{context}a {kind} has no members or items")
            return Type(kind)
        if kind == "structure":
            return Type("structure", members=self.members(obj, path, context))
        if kind == "array":
            items = self.need(obj, path, "items", context + "an array needs ")
            what = "SBP arrays hold boolean, short, int, long, float, double or structures"
            if isinstance(items, str):
                if items not in ARRAY_ITEMS:
                    self.fail(path, f"{context}arrays cannot hold \"{items}\": {what}")
                return Type("array", items)
            if isinstance(items, dict):
                self.only(items, path + ".items", ("type", "members"), context)
                if self.need(items, path, "type", context + "items ") != "structure":
                    self.fail(path + ".items", context + what)
                return Type("array", "structure", self.members(items, path + ".items", context))
            self.fail(path, f"{context}\"items\" must be a type name or "
                            "{\"type\": \"structure\", ...}")
        self.fail(path, f"{context}unknown type \"{kind}\" (expected boolean, byte, short, int, "
                        "long, float, double, bytes, string, structure or array)")

    def members(self, obj, path, context):
        members = self.need(obj, path, "members", context + "a structure needs ")
        if not isinstance(members, list) or not members:
            self.fail(path, f"{context}\"members\" must be a non-empty array")
        result = []
        for i, member in enumerate(members):
            where = f"{path}.members[{i}]"
            if not isinstance(member, dict):
                self.fail(where, f"{context}a member must be an object")
            if "value" in member:
                self.fail(where, f"{context}members have no values of their own: give them in "
                                 "the element's \"value\"")
            self.only(member, where, ("name", "type", "members", "items"), context)
            name = self.name(member, where, context + "member: ")
            if any(m.name == name for m in result):
                self.fail(where, f"{context}member '{name}' twice")
            member_type = self.type(member, where, f"{context}member '{name}': ")
            result.append(Member(name, n.load().hash_name(name), member_type))
        return result


def _no_duplicate_keys(pairs):
    seen = {}
    for key, value in pairs:
        if key in seen:
            raise ElementFileError(f"duplicate key \"{key}\"")
        seen[key] = value
    return seen


def load_elements(source):
    """Elements from an element file (a path), its document (a dict with "elements"), or a
    plain {name: value} dict. Raises ElementFileError saying what is wrong and where."""
    if isinstance(source, Elements):
        return source
    if isinstance(source, dict) and "elements" not in source:
        lib = n.load()
        return Elements("", [Element(name, lib.hash_name(name), infer_type(value), value)
                             for name, value in source.items()])
    origin = "elements"
    if not isinstance(source, dict):
        origin = str(source)
        try:
            with open(source, encoding="utf-8") as f:
                source = json.load(f, object_pairs_hook=_no_duplicate_keys)
        except OSError as e:
            raise ElementFileError(f"{origin}: cannot read the element file: {e.strerror}")
        except (ValueError, ElementFileError) as e:
            raise ElementFileError(f"{origin}: {e}")
    check = _Check(origin)
    check.only(source, "", ("service", "elements"), "")
    service = source.get("service", "")
    if not isinstance(service, str):
        check.fail("service", "\"service\" must be a string, NAME or NAME:MAJOR.MINOR")
    entries = check.need(source, "", "elements", "")
    if not isinstance(entries, list) or not entries:
        check.fail("elements", "\"elements\" must be a non-empty array")
    result, lib = Elements(service), n.load()
    for i, entry in enumerate(entries):
        at = f"elements[{i}]"
        if not isinstance(entry, dict):
            check.fail(at, "an element must be an object")
        check.only(entry, at, ("name", "type", "members", "items", "value"), "")
        name = check.name(entry, at, "element: ")
        uid, context = lib.hash_name(name), f"element '{name}': "
        if uid in result.by_uid:
            other = result.by_uid[uid].name
            check.fail(at, f"element '{name}' twice" if other == name else
                       f"'{other}' and '{name}' have the same UID 0x{uid:08x}: rename one")
        type_ = check.type(entry, at, context)
        value = check.need(entry, at, "value", context)
        try:
            encode(uid, type_, value)
        except BadValue as e:
            check.fail(at + ".value", f"{context}{e}")
        result.add(Element(name, uid, type_, value))
    return result


def parse_service(text):
    """(name, major, minor) of "NAME" or "NAME:MAJOR.MINOR" (version 1.0 when not given)."""
    name, colon, version = text.rpartition(":")
    if not colon:
        name, major, minor = text, 1, 0
    else:
        try:
            major, minor = (int(part) for part in version.split("."))
        except ValueError:
            major = minor = -1
        if not (0 <= major <= 255 and 0 <= minor <= 255):
            raise ValueError(f"bad service '{text}': expected NAME or NAME:MAJOR.MINOR, such as "
                             "com.example.vehicle:1.0")
    if not name or len(name.encode()) > 255:
        raise ValueError(f"bad service '{text}': the name must be 1 to 255 bytes")
    return name, major, minor
