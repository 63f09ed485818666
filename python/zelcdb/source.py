"""SBP sources: an SBP service this endpoint offers, its elements answered from Python."""

import ctypes
import threading

from . import _native as n
from . import _registry as reg
from .elements import load_elements
from .errors import Refused
from .values import BadValue, decode_node, encode, to_python

_T = dict(n.SbpSourceCallbacks._fields_)
_NONE, _FAILED = 0, 1  # a callback's returns: answered through an entry; failed


def _source(key):
    return reg.find(key)


def _fits(node, type_):
    """Whether a decoded value has the element's type, members compared by UID."""
    if node.kind != type_.kind or (type_.kind == "array" and node.items != type_.items):
        return False
    if type_.kind == "structure":
        return _members_fit(node, type_.members)
    if type_.kind == "array" and type_.items == "structure":
        return all(_members_fit(child, type_.members) for child in node.children)
    return True


def _members_fit(node, members):
    children = {child.uid: child for child in node.children}
    return len(children) == len(node.children) == len(members) and all(
        m.uid in children and _fits(children[m.uid], m.type) for m in members)


@reg.guarded(0)
def _on_start(_e, _ec, _s, key, _major, _minor):
    return 0


@reg.guarded(0)
def _on_stop(_e, _ec, _s, key):
    source = _source(key)
    if source:
        source._reset()
    return 0


@reg.guarded()
def _on_terminated(_e, _s, key):
    source = _source(key)
    if source:
        source._reset()


@reg.guarded(_FAILED)
def _on_get(_e, _s, key, command, uid, _result):
    source = _source(key)
    return source._get(command, uid) if source else _FAILED


@reg.guarded(_FAILED)
def _on_set(_e, _s, key, uid, data, size, _result):
    source = _source(key)
    if not source:
        return _FAILED
    return source._set(uid, ctypes.string_at(data, size) if size > 0 else b"")


@reg.guarded(_FAILED)
def _on_subscribe(_e, _s, key, uid, kind, interval, _result):
    source = _source(key)
    return source._subscribe(uid, kind, interval) if source else _FAILED


@reg.guarded()
def _on_cancel(_e, _s, key, command, uid):
    source = _source(key)
    if source and command == n.CMD_SUBSCRIBE:
        with source._lock:
            source._on_change.discard(uid)


@reg.guarded()
def _on_auth_response(_e, _s, key, _request, command, uid, result, data, size):
    source = _source(key)
    if source:
        source._auth_response(command, uid, result,
                              ctypes.string_at(data, size) if size > 0 else b"")


_CALLBACKS = n.SbpSourceCallbacks(
    _T["start"](_on_start), _T["stop"](_on_stop), _T["terminated"](_on_terminated),
    _T["get"](_on_get), _T["set"](_on_set), _T["subscribe"](_on_subscribe),
    _T["cancel"](_on_cancel), _T["authResponse"](_on_auth_response), None)


class SbpSource:
    """An SBP service of elements (Endpoint.sbp_source): an element file, its document, or
    a {name: value} dict. Each element answers Get with its value, or with getters[name]()
    when given; Set stores the value (after a type check), or calls setters[name](value).
    A getter or setter answers at once by returning (a value, or None from a setter),
    later by returning a future (concurrent.futures or asyncio) that completes with it,
    and refuses by raising Refused(result); any other exception is logged and answered as
    failed. Periodic subscriptions are ticked by the library; on-change subscribers get
    every update(). challenge(command, name) may return bytes to challenge a request
    (None lets it through); verify(command, name, result, data) then accepts the sink's
    answer (True) or refuses the request. Callables run on the endpoint thread."""

    def __init__(self, endpoint, elements, getters, setters, challenge, verify):
        self.endpoint, self.lib = endpoint, endpoint.lib
        self.elements = load_elements(elements)
        self._getters = {self.elements.uid(k): v for k, v in (getters or {}).items()}
        self._setters = {self.elements.uid(k): v for k, v in (setters or {}).items()}
        self.challenge, self.verify = challenge, verify
        self.service_id = None
        self._lock = threading.Lock()
        # Guarded by _lock: element values, on-change subscribers, challenged requests.
        self._on_change = set()
        self._challenged = {}  # (command, uid) -> (answer, refuse)
        self._key = reg.register(self)

    def _register(self, name, major, minor):
        self._service_name = name.encode()
        service = n.Service(0, self._service_name, major, minor, 0, 0)
        self.lib.check(self.lib.sourceCreate(self.endpoint._live(), self._key,
                                             ctypes.byref(service), ctypes.sizeof(service),
                                             ctypes.byref(_CALLBACKS),
                                             ctypes.sizeof(_CALLBACKS)), f"offering {name}")
        self.service_id = service.serviceId

    def value(self, element):
        with self._lock:
            return self.elements.by_uid[self.elements.uid(element)].value

    def update(self, element, value):
        """Changes an element's value; on-change subscribers get it at once."""
        uid = self.elements.uid(element)
        data = encode(uid, self.elements.by_uid[uid].type, value)
        with self._lock:
            self.elements.by_uid[uid].value = value
            notify = uid in self._on_change
        if notify and self.endpoint.handle:
            self._respond("value", n.CMD_SUBSCRIBE, uid, n.RESULT_SUCCESS, data)

    # ---- Endpoint thread --------------------------------------------------------------------

    def _reset(self):
        with self._lock:
            self._on_change.clear()
            self._challenged.clear()

    def _respond(self, entry, command, uid, result, data=b""):
        """Answers through the library's entries: a value or an update ("value"; command
        Get or Subscribe), or the answer to a Set or a Subscribe."""
        handle, sid = self.endpoint.handle, self.service_id
        if handle is None:
            return
        if entry == "value":
            self.lib.sourceSendGetResponse(handle, sid, None, command, uid, result, data,
                                           len(data))
        elif entry == "set":
            self.lib.sourceSendSetResponse(handle, sid, None, uid, result)
        else:
            self.lib.sourceSendSubscribeResponse(handle, sid, None, uid, result)

    def _run(self, entry, command, uid, function, argument, answer):
        """Calls an application getter or setter and answers with what it gives, now or
        when its future completes."""
        try:
            outcome = function(*argument)
        except Refused as e:
            return self._respond(entry, command, uid, e.result)
        except Exception:
            reg.log.exception("exception answering %s; answered as failed",
                              self.elements.name(uid))
            return self._respond(entry, command, uid, n.RESULT_FAILED)
        if hasattr(outcome, "add_done_callback"):
            outcome.add_done_callback(lambda done: self._run(entry, command, uid, done.result,
                                                             (), answer))
        else:
            answer(outcome)

    def _answer_get(self, command, uid):
        element = self.elements.by_uid[uid]

        def send(value):
            try:
                data = encode(uid, element.type, value)
            except BadValue:
                reg.log.exception("the value of %s does not fit its type", element.name)
                return self._respond("value", command, uid, n.RESULT_FAILED)
            self._respond("value", command, uid, n.RESULT_SUCCESS, data)
        getter = self._getters.get(uid)
        if getter:
            self._run("value", command, uid, getter, (), send)
        else:
            with self._lock:
                value = element.value
            send(value)

    def _challenged_first(self, command, uid, answer):
        """Challenges the request when the application wants to; it waits for the answer."""
        data = self.challenge(command, self.elements.name(uid)) if self.challenge else None
        if data is None:
            return False
        with self._lock:
            self._challenged[(command, uid)] = answer
        self.lib.sourceSendServiceAuthChallenge(self.endpoint.handle, self.service_id, None,
                                                command, uid, bytes(data), len(data))
        return True

    def _auth_response(self, command, uid, result, data):
        with self._lock:
            answer = self._challenged.pop((command, uid), None)
        if answer is None:
            return
        accepted = False
        try:
            accepted = bool(self.verify and self.verify(command, self.elements.name(uid),
                                                        result, data))
        except Exception:
            reg.log.exception("exception verifying a challenge answer; refused")
        if accepted:
            answer()
        else:
            entry = {n.CMD_SET: "set", n.CMD_SUBSCRIBE: "subscribe"}.get(command, "value")
            self._respond(entry, command, uid, n.RESULT_FAILED)

    def _get(self, command, uid):
        if uid not in self.elements.by_uid:
            reg.log.info("Get of unknown element 0x%08x refused", uid)
            return _FAILED
        answer = lambda: self._answer_get(command, uid)  # noqa: E731
        # Periodic ticks come here too (command Subscribe); only a Get is challenged.
        if command != n.CMD_GET or not self._challenged_first(command, uid, answer):
            answer()
        return _NONE

    def _set(self, uid, data):
        element = self.elements.by_uid.get(uid)
        if element is None:
            reg.log.info("Set of unknown element 0x%08x refused", uid)
            return _FAILED
        try:
            node = decode_node(data)
        except BadValue as e:
            reg.log.warning("Set of %s refused: %s", element.name, e)
            return _FAILED
        if not _fits(node, element.type):
            reg.log.warning("Set of %s refused: expects %s", element.name, element.type.describe())
            return _FAILED
        value = to_python(node, self.elements.names)

        def store(_=None):
            with self._lock:
                changed, element.value = element.value != value, value
                notify = changed and uid in self._on_change
            self._respond("set", n.CMD_SET, uid, n.RESULT_SUCCESS)
            if notify:
                self._respond("value", n.CMD_SUBSCRIBE, uid, n.RESULT_SUCCESS, bytes(data))

        def answer():
            setter = self._setters.get(uid)
            if setter:
                self._run("set", n.CMD_SET, uid, setter, (value,),
                          lambda _: self._respond("set", n.CMD_SET, uid, n.RESULT_SUCCESS))
            else:
                store()
        if not self._challenged_first(n.CMD_SET, uid, answer):
            answer()
        return _NONE

    def _subscribe(self, uid, kind, interval):
        if uid not in self.elements.by_uid:
            reg.log.info("Subscribe to unknown element 0x%08x refused", uid)
            return _FAILED
        if kind[0] == n.SUBSCRIBE_EITHER:
            kind[0] = n.SUBSCRIBE_ON_CHANGE
        if kind[0] == n.SUBSCRIBE_ON_CHANGE and not 0 < interval[0] <= n.INTERVAL_MAX:
            # The interval means nothing here, but the library checks it all the same.
            interval[0] = 1000
        on_change = kind[0] == n.SUBSCRIBE_ON_CHANGE

        def answer():
            if on_change:
                with self._lock:
                    self._on_change.add(uid)
            self._respond("subscribe", n.CMD_SUBSCRIBE, uid, n.RESULT_SUCCESS)
        if not self._challenged_first(n.CMD_SUBSCRIBE, uid, answer):
            answer()
        return _NONE
