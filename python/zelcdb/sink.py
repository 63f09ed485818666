"""SBP sinks: the user side of a peer's SBP service, blocking and asyncio."""

import asyncio
import concurrent.futures
import ctypes
import queue
import threading

from . import _native as n
from . import _registry as reg
from .elements import Elements, load_elements
from .errors import FAILED, ILLEGAL_WHILE_NOT_RUNNING, REMOTE_SBP_ERROR, TIMEOUT, ZelcdbError
from .values import Type, decode_node, encode, to_python, type_of

DEFAULT = object()  # "the sink's own time-out"


def _settle(future, result=None, error=None):
    """Completes a future that its waiter may have abandoned meanwhile."""
    try:
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(result)
    except concurrent.futures.InvalidStateError:
        pass


class _Request:
    __slots__ = ("command", "uid", "future", "updates", "callback")

    def __init__(self, command, uid, updates=None, callback=None):
        self.command, self.uid, self.updates, self.callback = command, uid, updates, callback
        self.future = concurrent.futures.Future()


def _sink(key):
    return reg.find(key)


_T = dict(n.SbpSinkCallbacks._fields_)


@reg.guarded()
def _on_status(_e, _ec, _s, key, status):
    sink = _sink(key)
    if sink:
        sink._service_status(status)


@reg.guarded()
def _on_data(_e, _s, key, request, command, uid, payload, size):
    sink = _sink(key)
    if sink:
        sink._data(request, ctypes.string_at(payload, size) if size > 0 else b"")


def _finisher(outcome):
    @reg.guarded()
    def finish(_e, _s, key, request, *_rest):
        sink = _sink(key)
        if sink:
            sink._finish(request, outcome)
    finish.__name__ = f"on_{outcome}"
    return finish


@reg.guarded()
def _on_error(_e, _s, key, request, command, uid, error, result):
    sink = _sink(key)
    if sink:
        sink._fail(request, ZelcdbError(error, sink.lib.error_name(error), result,
                                        what=f"{_COMMANDS.get(command, hex(command))} "
                                             f"{sink.elements.name(uid)}"))


@reg.guarded()
def _on_challenge(_e, service_id, key, request, command, uid, challenge, size):
    sink = _sink(key)
    if not sink:
        return
    result, data = n.RESULT_FAILED, b""
    try:
        answer = sink.on_challenge(command, uid, ctypes.string_at(challenge, size)
                                   if size > 0 else b"")
        result, data = answer if isinstance(answer, tuple) else (n.RESULT_SUCCESS, answer)
    except Exception:
        reg.log.exception("exception in the challenge handler; answered as failed")
    data = bytes(data or b"")
    sink.lib.sinkSendServiceAuthResponse(sink.endpoint.handle, service_id, request, command,
                                         uid, result, data, len(data))


_COMMANDS = {n.CMD_GET: "Get", n.CMD_SET: "Set", n.CMD_SUBSCRIBE: "Subscribe",
             n.CMD_CANCEL: "Cancel", n.CMD_ALIVE: "Alive"}


def _table(challenge):
    return n.SbpSinkCallbacks(
        _T["status"](_on_status), _T["data"](_on_data), _T["setDone"](_finisher("set")),
        _T["subscribed"](_finisher("subscribed")), _T["cancelled"](_finisher("cancelled")),
        _T["error"](_on_error), _T["authChallenge"](*challenge),
        _T["aliveResponse"](_finisher("alive")))


# Without a challenge handler the library answers challenges as failed itself.
_CALLBACKS, _CALLBACKS_NO_CHALLENGE = _table([_on_challenge]), _table([])


class SbpSink:
    """A started SBP service of the peer (Endpoint.sbp_sink). Elements are named by name,
    "0x..." text or UID; values are Python objects (see zelcdb.values). Every blocking
    call takes a timeout in seconds (None waits for ever; the sink's own by default) and
    raises ZelcdbError: Timeout, RemoteSBPError with the source's SBP result, or the
    endpoint's error when it stops meanwhile."""

    def __init__(self, endpoint, service_id, timeout, elements, on_challenge):
        self.endpoint, self.lib, self.service_id = endpoint, endpoint.lib, service_id
        self.timeout, self.on_challenge = timeout, on_challenge
        self.elements = load_elements(elements) if elements is not None else Elements()
        self._types = {}  # uid -> Type learnt from values read
        self._lock = threading.Lock()
        self._pending = {}  # request context -> _Request; guarded by _lock
        self._started = concurrent.futures.Future()
        self._stopped = None  # the error of a stopped service, guarded by _lock
        self._key = reg.register(self)
        table = _CALLBACKS if on_challenge else _CALLBACKS_NO_CHALLENGE
        self.lib.check(self.lib.sinkCreate(endpoint._live(), self._key, service_id,
                                           ctypes.byref(table), ctypes.sizeof(table)),
                       "creating an SBP sink")

    # ---- Blocking requests ---------------------------------------------------------------

    def get(self, element, timeout=DEFAULT):
        uid = self.uid(element)
        return self._value(uid, self._call(n.CMD_GET, uid, timeout, self._send_get))

    def set(self, element, value, type=None, timeout=DEFAULT):
        """Writes an element. Its type comes from `type` (a Type or a scalar name such as
        "short"), the sink's elements, a value read before, or else a Get first."""
        uid = self.uid(element)
        data = self._encode(uid, value, type, timeout)
        self._call(n.CMD_SET, uid, timeout, lambda key, u: self._send_set(key, u, data))

    def subscribe(self, element, periodic_ms=None, on_change=False, count=None,
                  timeout=DEFAULT, callback=None):
        """Subscribes periodically (periodic_ms), on change, or either (both given; the
        source chooses). Returns a Subscription once the source accepted it: iterate it for
        the updates (up to count, each awaited up to timeout; the iteration's end cancels),
        or give callback(value), called on the endpoint thread for each update."""
        key, request = self._subscribe(element, periodic_ms, on_change, queue.Queue(),
                                       callback)
        self._wait(key, request, timeout)
        return Subscription(self, key, request, count, self._timeout(timeout))

    def _subscribe(self, element, periodic_ms, on_change, updates, callback):
        uid = self.uid(element)
        kind = (n.SUBSCRIBE_EITHER if periodic_ms and on_change else
                n.SUBSCRIBE_PERIODIC if periodic_ms else n.SUBSCRIBE_ON_CHANGE)
        # The library wants an interval with an on-change subscription too.
        interval = int(periodic_ms or 1000)
        request = _Request(n.CMD_SUBSCRIBE, uid, updates, callback)
        key = self._send(request, lambda k: self.lib.sinkSendSubscribe(
            self.endpoint._live(), self.service_id, k, uid, kind, interval))
        return key, request

    def cancel(self, element, command=n.CMD_SUBSCRIBE, timeout=DEFAULT):
        uid = self.uid(element)
        self._call(n.CMD_CANCEL, uid, timeout, lambda key, u: self.lib.sinkSendCancel(
            self.endpoint._live(), self.service_id, key, u, command))

    def alive(self, timeout=DEFAULT):
        self._call(n.CMD_ALIVE, 0, timeout, lambda key, _u: self.lib.sinkSendAlive(
            self.endpoint._live(), self.service_id, key, 0))

    # ---- asyncio -------------------------------------------------------------------------

    async def get_async(self, element, timeout=DEFAULT):
        uid = self.uid(element)
        return self._value(uid, await self._call_async(n.CMD_GET, uid, timeout,
                                                       self._send_get))

    async def set_async(self, element, value, type=None, timeout=DEFAULT):
        uid = self.uid(element)
        if not (type or uid in self._types or uid in self.elements.by_uid):
            await self.get_async(uid, timeout)
        data = self._encode(uid, value, type, timeout)
        await self._call_async(n.CMD_SET, uid, timeout,
                               lambda key, u: self._send_set(key, u, data))

    async def subscribe_async(self, element, periodic_ms=None, on_change=False, count=None,
                              timeout=DEFAULT):
        """subscribe() for an event loop: iterate the Subscription with `async for`."""
        key, request = self._subscribe(element, periodic_ms, on_change,
                                       _LoopQueue(asyncio.get_running_loop()), None)
        await self._await(key, request, timeout)
        return Subscription(self, key, request, count, self._timeout(timeout))

    async def cancel_async(self, element, command=n.CMD_SUBSCRIBE, timeout=DEFAULT):
        await self._call_async(n.CMD_CANCEL, self.uid(element), timeout,
                               lambda key, u: self.lib.sinkSendCancel(
                                   self.endpoint._live(), self.service_id, key, u, command))

    async def alive_async(self, timeout=DEFAULT):
        await self._call_async(n.CMD_ALIVE, 0, timeout, lambda key, _u: self.lib.sinkSendAlive(
            self.endpoint._live(), self.service_id, key, 0))

    # ---- Helpers ----------------------------------------------------------------------------

    def uid(self, element):
        uid = self.elements.uid(element)
        if isinstance(element, str) and not element.startswith(("0x", "0X")):
            self.elements.names.setdefault(uid, element)
        return uid

    def _timeout(self, timeout):
        return self.timeout if timeout is DEFAULT else timeout

    def _send_get(self, key, uid):
        return self.lib.sinkSendGet(self.endpoint._live(), self.service_id, key, uid)

    def _send_set(self, key, uid, data):
        return self.lib.sinkSendSet(self.endpoint._live(), self.service_id, key, uid, data,
                                    len(data))

    def _encode(self, uid, value, type_, timeout):
        if isinstance(type_, str):
            type_ = Type(type_)
        if type_ is None:
            known = self.elements.by_uid.get(uid)
            type_ = known.type if known else self._types.get(uid)
        if type_ is None:
            self.get(uid, timeout)
            type_ = self._types[uid]
        return encode(uid, type_, value)

    def _value(self, uid, payload):
        node = decode_node(payload)
        self._types[uid] = type_of(node, self.elements.names)
        return to_python(node, self.elements.names)

    def _send(self, request, send):
        key = reg.next_key()
        with self._lock:
            if self._stopped:
                raise self._stopped
            self._pending[key] = request
        try:
            self.lib.check(send(key), f"{_COMMANDS[request.command]} "
                                      f"{self.elements.name(request.uid)}")
        except ZelcdbError:
            with self._lock:
                self._pending.pop(key, None)
            raise
        return key

    def _call(self, command, uid, timeout, send):
        request = _Request(command, uid)
        key = self._send(request, lambda k: send(k, uid))
        return self._wait(key, request, timeout)

    def _wait(self, key, request, timeout):
        timeout = self._timeout(timeout)
        try:
            return request.future.result(timeout)
        except concurrent.futures.TimeoutError:
            cancel = self._abandon(key, request)
            if cancel:
                concurrent.futures.wait([cancel], self.timeout)
            raise ZelcdbError(TIMEOUT, what=f"{_COMMANDS[request.command]} "
                                            f"{self.elements.name(request.uid)}: no answer "
                                            f"within {timeout} s") from None

    async def _call_async(self, command, uid, timeout, send):
        request = _Request(command, uid)
        key = self._send(request, lambda k: send(k, uid))
        return await self._await(key, request, timeout)

    async def _await(self, key, request, timeout):
        command, uid, timeout = request.command, request.uid, self._timeout(timeout)
        try:
            return await asyncio.wait_for(asyncio.wrap_future(request.future), timeout)
        except asyncio.TimeoutError:
            cancel = self._abandon(key, request)
            if cancel:
                await asyncio.wait([asyncio.wrap_future(cancel)], timeout=self.timeout)
            raise ZelcdbError(TIMEOUT, what=f"{_COMMANDS[command]} {self.elements.name(uid)}: "
                                            f"no answer within {timeout} s") from None

    def _abandon(self, key, request):
        """Forgets a request its caller no longer waits for and cancels it at the source,
        returning the Cancel's future: the library refuses a second request of the same
        command and element until the first has ended."""
        with self._lock:
            self._pending.pop(key, None)
        if request.command not in (n.CMD_GET, n.CMD_SET, n.CMD_SUBSCRIBE):
            return None
        cancel = _Request(n.CMD_CANCEL, request.uid)
        try:
            self._send(cancel, lambda k: self.lib.sinkSendCancel(
                self.endpoint._live(), self.service_id, k, request.uid, request.command))
        except ZelcdbError:
            return None
        return cancel.future

    # ---- Endpoint thread ------------------------------------------------------------------

    def _start(self):
        self.lib.check(self.lib.endpointSendStartService(self.endpoint._live(), self.service_id),
                       "StartService")
        try:
            self._started.result(self.timeout)
        except concurrent.futures.TimeoutError:
            raise ZelcdbError(TIMEOUT, what="StartService: no answer") from None

    def _service_status(self, status):
        if status in (n.RESPONSE_STOPPED, n.RESPONSE_NO_SINK):
            self._gone(ILLEGAL_WHILE_NOT_RUNNING, keep=True)
        elif status == 0x0201:  # StartFailed
            _settle(self._started, error=ZelcdbError(FAILED, what="the peer refused the start"))
        else:
            _settle(self._started, True)

    def _gone(self, error, keep=False):
        """The service stopped or the connection ended: the library drops every request
        without a callback, so their waiters are told here."""
        failure = ZelcdbError(error, self.lib.error_name(error), what="the service stopped")
        with self._lock:
            pending, self._pending, self._stopped = self._pending, {}, failure
        _settle(self._started, error=failure)
        for request in pending.values():
            _settle(request.future, error=failure)
            if request.updates is not None:
                request.updates.put(failure)
        if not keep:
            reg.unregister(self._key)

    def _take(self, key, keep=False):
        with self._lock:
            return self._pending.get(key) if keep else self._pending.pop(key, None)

    def _data(self, key, payload):
        request = self._take(key, keep=True)
        if request is None:
            return
        if request.command == n.CMD_GET:
            self._take(key)
            _settle(request.future, payload)
        elif request.callback:
            reg.call_user(request.callback, self._value(request.uid, payload))
        elif request.updates is not None:
            request.updates.put(payload)

    def _finish(self, key, outcome):
        request = self._take(key, keep=outcome == "subscribed")
        if request is not None:
            _settle(request.future, True)

    def _fail(self, key, error):
        request = self._take(key)
        if request is None:
            return
        _settle(request.future, error=error)
        if request.updates is not None:
            request.updates.put(error)


class _LoopQueue:
    """Updates handed from the endpoint thread to an event loop."""

    def __init__(self, loop):
        self.loop, self.queue = loop, asyncio.Queue()

    def put(self, item):
        try:
            self.loop.call_soon_threadsafe(self.queue.put_nowait, item)
        except RuntimeError:  # the loop is closed: nobody reads the updates any more
            pass


_ENDED = object()  # what _value_of() gives for the update that ends a subscription


class Subscription:
    """An accepted subscription: iterate it for the updates' values, or cancel() it."""

    def __init__(self, sink, key, request, count, timeout):
        self.sink, self._key, self._request = sink, key, request
        self.count, self.timeout, self.active = count, timeout, True

    def _timed_out(self):
        return ZelcdbError(TIMEOUT, what=f"no update within {self.timeout} s")

    def _value_of(self, item):
        """An update's value; _ENDED once a Cancel has ended the subscription; an error the
        source sent instead is raised. Shared by the plain and the asyncio iteration."""
        if isinstance(item, ZelcdbError):
            self.active = False
            if item.code == REMOTE_SBP_ERROR and item.result == n.RESULT_CANCELLED:
                return _ENDED
            raise item
        return self.sink._value(self._request.uid, item)

    def __iter__(self):
        received = 0
        try:
            while self.count is None or received < self.count:
                try:
                    item = self._request.updates.get(timeout=self.timeout)
                except queue.Empty:
                    raise self._timed_out() from None
                value = self._value_of(item)
                if value is _ENDED:
                    return
                received += 1
                yield value
        finally:
            self.cancel()

    async def __aiter__(self):
        received = 0
        try:
            while self.count is None or received < self.count:
                try:
                    item = await asyncio.wait_for(self._request.updates.queue.get(),
                                                  self.timeout)
                except asyncio.TimeoutError:
                    raise self._timed_out() from None
                value = self._value_of(item)
                if value is _ENDED:
                    return
                received += 1
                yield value
        finally:
            if self.active:
                self.active = False
                try:
                    await self.sink.cancel_async(self._request.uid)
                except ZelcdbError as e:
                    reg.log.debug("cancelling a subscription: %s", e)

    def cancel(self):
        """Ends the subscription (once; errors of a stopped endpoint are ignored)."""
        if self.active:
            self.active = False
            try:
                self.sink.cancel(self._request.uid)
            except ZelcdbError as e:
                reg.log.debug("cancelling a subscription: %s", e)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.cancel()
