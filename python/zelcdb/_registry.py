"""What the library calls back into, by the integer context it hands back.

The library keeps only the context word; Python objects are found here by it, so that a
callback that arrives for an object already closed finds nothing instead of a dangling
pointer. The CFUNCTYPE objects themselves are module constants and live as long as the
process."""

import functools
import itertools
import logging
import threading

log = logging.getLogger("zelcdb")
# The library's lines reach the application's logging configuration; without one they are
# not printed (a peer leaving is an error line of the library, and benches have many).
log.addHandler(logging.NullHandler())

_keys = itertools.count(1)
_objects = {}
_lock = threading.Lock()


def register(obj):
    key = next(_keys)
    with _lock:
        _objects[key] = obj
    return key


def unregister(key):
    with _lock:
        _objects.pop(key, None)


def find(key):
    with _lock:
        return _objects.get(key)


def next_key():
    """A fresh non-zero request context."""
    return next(_keys)


def guarded(default=None):
    """Wraps a callback of the library: a Python exception never crosses into the library;
    it is logged and the callback returns default (the failure answer)."""
    def wrap(function):
        @functools.wraps(function)
        def call(*arguments):
            try:
                return function(*arguments)
            except Exception:
                log.exception("exception in a callback (%s); reported as failed",
                              function.__name__)
                return default
        return call
    return wrap


def call_user(function, *arguments):
    """Calls an application callable on the endpoint thread; an exception is logged."""
    try:
        function(*arguments)
    except Exception:
        log.exception("exception in %r", function)
