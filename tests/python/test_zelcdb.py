"""The zelcdb Python package: a Python source and a Python sink of one process through the
real library over loopback, and the package against a `zelcdb serve` process.

Needs ZELCDB_LIBRARY (the built library) and PYTHONPATH=python; ZELCDB_TOOL (the zelcdb
binary) and ZELCDB_ELEMENTS (vehicle.json) for the test against zelcdb serve."""

import asyncio
import concurrent.futures
import os
import socket
import subprocess
import threading
import time
import unittest

import zelcdb

FAILED, INVALID_INTERVAL = 0x10000002, 0x10000003
TIMEOUT, REMOTE = 12, 14


def free_url():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return f"cdb://127.0.0.1:{s.getsockname()[1]}"


def member(name, kind, **more):
    return {"name": name, "type": kind, **more}


POINT = [member("x", "short"), member("label", "string")]
# Every SBP type with a value that reads back unchanged (floats exact in 32 bits).
ROWS = [
    (member("flag", "boolean"), True),
    (member("small", "byte"), -128),
    (member("medium", "short"), 32767),
    (member("count", "int"), -2147483648),
    (member("big", "long"), 2**63 - 1),
    (member("ratio", "float"), 2.3),
    (member("precise", "double"), 1e-300),
    (member("blob", "bytes"), b"\x00\xffW"),
    (member("text", "string"), "Alex"),
    (member("point", "structure", members=POINT), {"x": -5, "label": "home"}),
    (member("bits", "array", items="boolean"), [True, False]),
    (member("shorts", "array", items="short"), [1, -2]),
    (member("ints", "array", items="int"), [3]),
    (member("longs", "array", items="long"), [2**40]),
    (member("floats", "array", items="float"), [2.5, 0.1]),
    (member("doubles", "array", items="double"), [0.1, -1e10]),
    (member("points", "array", items={"type": "structure", "members": POINT}),
     [{"x": 1, "label": "a"}, {"x": 2, "label": "b"}]),
]
# Elements answered by the application's getters and setters.
CALLED = [member("computed", "int", value=0), member("deferred", "short", value=0),
          member("stuck", "float", value=0), member("broken", "string", value=""),
          member("checked", "byte", value=0)]
ELEMENTS = {"service": "test.values:1.2",
            "elements": [dict(row, value=value) for row, value in ROWS] + CALLED}


class Pair(unittest.TestCase):
    """A server endpoint offering test.values and a client with a sink on it."""

    getters, setters, challenge, verify, on_challenge = {}, {}, None, None, None

    def setUp(self):
        url = free_url()
        self.server = zelcdb.Endpoint.server(url)
        self.source = self.server.sbp_source(None, ELEMENTS, self.getters, self.setters,
                                             self.challenge, self.verify)
        self.server.start()
        self.client = zelcdb.Endpoint.client(url).__enter__()
        self.sink = self.client.sbp_sink("test.values", timeout=2.0, elements=ELEMENTS,
                                         on_challenge=self.on_challenge)

    def tearDown(self):
        self.client.close()
        self.server.close()

    def assertRefused(self, code, result, call, *arguments, **options):
        with self.assertRaises(zelcdb.ZelcdbError) as caught:
            call(*arguments, **options)
        self.assertEqual((caught.exception.code, caught.exception.result), (code, result))


never = concurrent.futures.Future()  # a getter's answer that never comes


class Commands(Pair):
    getters = {"computed": lambda: Commands.computed, "stuck": lambda: Commands.stuck,
               "deferred": lambda: Commands.later, "broken": lambda: 1 / 0}
    setters = {"checked": lambda value: Commands.refusal(value)}
    computed = 7

    def setUp(self):
        Commands.stuck = never
        super().setUp()

    @staticmethod
    def refusal(value):
        if value < 0:
            raise zelcdb.Refused(INVALID_INTERVAL)

    def test_every_type_round_trips_both_ways(self):
        for row, value in ROWS:
            with self.subTest(row["name"]):
                self.assertEqual(self.sink.get(row["name"]), value)
        for name, value in [("flag", False), ("big", -1), ("blob", b""),
                            ("point", {"x": 0, "label": ""}), ("floats", [])]:
            with self.subTest(name):
                self.sink.set(name, value)
                self.assertEqual(self.source.value(name), value)
                self.assertEqual(self.sink.get(name), value)

    def test_values_that_do_not_fit_are_refused_before_sending(self):
        for name, value, why in [("count", 2**31, "an int"), ("count", True, "an int"),
                                 ("text", "Zoë", "only ASCII"), ("floats", ["1"], "a float"),
                                 ("point", {"x": 1}, "missing member 'label'"),
                                 ("point", {"x": 1, "label": "", "y": 2}, "no member 'y'")]:
            with self.subTest(name=name, value=value):
                with self.assertRaisesRegex(zelcdb.BadValue, why):
                    self.sink.set(name, value)

    def test_subscriptions_periodic_on_change_either_and_by_callback(self):
        self.assertEqual(list(self.sink.subscribe("computed", periodic_ms=20, count=3)), [7] * 3)
        seen = []
        updates = self.sink.subscribe("flag", on_change=True, periodic_ms=20,
                                      callback=seen.append)
        self.source.update("flag", False)
        self.source.update("flag", True)
        self.sink.set("flag", False)  # a Set of the sink reaches its own subscription too
        deadline = time.monotonic() + 2
        while len(seen) < 3 and time.monotonic() < deadline:
            time.sleep(0.005)
        updates.cancel()
        self.assertEqual(seen, [False, True, False])
        # The cancelled subscription is gone: the element may be subscribed again.
        subscription = self.sink.subscribe("flag", on_change=True, count=1, timeout=0.2)
        self.source.update("flag", True)
        self.assertEqual(list(subscription), [True])
        self.assertRefused(TIMEOUT, 0, list, self.sink.subscribe("flag", on_change=True,
                                                                 count=1, timeout=0.1))
        self.sink.alive()

    def test_refusals_exceptions_and_time_outs(self):
        with self.assertLogs("zelcdb", "ERROR") as logged:
            self.assertRefused(REMOTE, FAILED, self.sink.get, "broken")
        self.assertIn("ZeroDivisionError", "\n".join(logged.output))
        self.assertRefused(REMOTE, FAILED, self.sink.get, "unknown")
        self.assertRefused(REMOTE, FAILED, self.sink.set, "count", 5, type="short")
        self.assertRefused(REMOTE, INVALID_INTERVAL, self.sink.set, "checked", -1)
        self.sink.set("checked", 1)
        # A Get given up on is cancelled at the source, so the next one is not refused as
        # already pending.
        self.assertRefused(TIMEOUT, 0, self.sink.get, "stuck", timeout=0.2)
        Commands.stuck = 2.5
        self.assertEqual(self.sink.get("stuck"), 2.5)
        Commands.later = concurrent.futures.Future()
        threading.Timer(0.05, Commands.later.set_result, [12]).start()
        self.assertEqual(self.sink.get("deferred"), 12)
        with self.assertLogs("zelcdb", "ERROR"):  # an update callback that raises
            self.sink.subscribe("flag", on_change=True, callback=lambda v: 1 / 0)
            self.source.update("flag", True)
            self.sink.alive()  # answered after the update: the callback has run

    def test_asyncio_variants_drive_several_requests_at_once(self):
        async def bench():
            await self.sink.set_async("count", 5)
            gets = [self.sink.get_async(name) for name in ("flag", "deferred", "count")]
            Commands.later = concurrent.futures.Future()
            Commands.later.set_result(3)
            values = await asyncio.gather(*gets)
            await self.sink.alive_async()
            for _ in range(2):  # the end of the first one's iteration cancelled it
                updates = await self.sink.subscribe_async("computed", periodic_ms=20, count=1)
                values += [value async for value in updates]
            with self.assertRaises(zelcdb.ZelcdbError):
                await self.sink.get_async("stuck", timeout=0.1)
            Commands.stuck = 0.5
            return values + [await self.sink.get_async("stuck")]
        self.assertEqual(asyncio.run(bench()), [True, 3, 5, 7, 7, 0.5])

    def test_stop_while_a_get_waits_never_hangs(self):
        for stopped in ("client", "server"):
            with self.subTest(stopped=stopped):
                if stopped == "server":
                    self.tearDown()
                    self.setUp()
                failures = []

                def wait():
                    try:
                        self.sink.get("stuck", timeout=None)
                    except zelcdb.ZelcdbError as e:
                        failures.append(e)
                waiter = threading.Thread(target=wait, daemon=True)
                waiter.start()
                time.sleep(0.05)
                began = time.monotonic()
                (self.client if stopped == "client" else self.server).stop()
                waiter.join(5)
                self.assertFalse(waiter.is_alive())
                self.assertLess(time.monotonic() - began, 2)
                self.assertEqual([e.code in (5, 7) for e in failures], [True])
                with self.assertRaises(zelcdb.ZelcdbError) as caught:
                    self.sink.get("flag")
                self.assertIn(caught.exception.code, (5, 7))  # at once, not a time-out


class Authentication(Pair):
    answers = {}
    challenge = staticmethod(lambda command, name: b"nonce" if name != "flag" else None)
    verify = staticmethod(lambda command, name, result, data: data == b"nonce-signed")
    on_challenge = staticmethod(lambda command, uid, data: Authentication.answers[uid](data))

    def test_a_challenged_request_waits_for_the_answer(self):
        count, medium, small = (zelcdb.hash_name(n) for n in ("count", "medium", "small"))
        Authentication.answers = {count: lambda data: data + b"-signed",
                                  medium: lambda data: b"wrong",
                                  small: lambda data: 1 / 0}
        self.assertEqual(self.sink.get("count"), ROWS[3][1])
        self.assertEqual(self.sink.get("flag"), True)  # not challenged
        self.assertRefused(REMOTE, FAILED, self.sink.get, "medium")
        with self.assertLogs("zelcdb", "ERROR"):
            self.assertRefused(REMOTE, FAILED, self.sink.set, "small", 1)
        self.sink.set("count", 1)
        self.assertEqual(self.source.value("count"), 1)


class Plain(unittest.TestCase):
    def test_payloads_both_ways_and_refusals(self):
        url, received = free_url(), {"server": [], "client": []}
        server = zelcdb.Endpoint.server(url)
        echo = server.cdb_source("echo", on_payload=lambda data: echo.send(data[::-1]))
        server.cdb_source("closed", on_start=lambda: False)
        # A client that comes first tries again until the server listens.
        client = zelcdb.Endpoint.client(url)
        threading.Timer(0.1, server.start).start()
        client.connect(5)
        with server, client:
            sink = client.cdb_sink("echo", on_payload=received["client"].append)
            sink.send(b"\x01\x02")
            with self.assertRaisesRegex(zelcdb.ZelcdbError, "0x0201"):
                client.cdb_sink("closed", on_payload=None)
            with self.assertRaisesRegex(zelcdb.ZelcdbError, "Timeout"):
                client.sbp_sink("absent", timeout=0.1)
            client.wait(lambda: received["client"], 2, "the echo")
        self.assertEqual(received["client"], [b"\x02\x01"])


class ElementFiles(unittest.TestCase):
    def test_mistakes_are_named_with_where_they_are(self):
        for element, why in [(member("a", "int8", value=1), 'unknown type "int8"'),
                             (member("a", "array", items="string", value=[]), "cannot hold"),
                             (member("a", "int", value="x"), r"elements\[0\].value: .*an int"),
                             (member("", "int", value=1), "non-empty string"),
                             (member("a", "structure", members=[], value={}), "non-empty")]:
            with self.subTest(why):
                with self.assertRaisesRegex(zelcdb.ElementFileError, why):
                    zelcdb.load_elements({"elements": [element]})
        with self.assertRaisesRegex(zelcdb.ElementFileError, "'a' twice"):
            zelcdb.load_elements({"elements": [member("a", "int", value=1)] * 2})


@unittest.skipUnless(os.environ.get("ZELCDB_TOOL"), "ZELCDB_TOOL names no zelcdb binary")
class AgainstServe(unittest.TestCase):
    def test_values_read_in_python_print_as_zelcdb_prints_them(self):
        tool, elements = os.environ["ZELCDB_TOOL"], os.environ["ZELCDB_ELEMENTS"]
        url = free_url()
        serve = subprocess.Popen([tool, "serve", url, "--elements", elements],
                                 stderr=subprocess.DEVNULL)
        try:
            with zelcdb.Endpoint.client(url, connect_timeout=20) as ep:
                bare = ep.sbp_sink("com.example.vehicle", timeout=2.0)
                bare.set("vehicleSpeed", 95)  # its type learnt from a Get first
                with self.assertRaisesRegex(zelcdb.BadValue, "expects an int"):
                    bare.set("vehicleSpeed", "fast")
            names = [e.name for e in zelcdb.load_elements(elements)]
            printed = subprocess.run([tool, "get", url, "com.example.vehicle", *names,
                                      "--elements", elements], capture_output=True,
                                     text=True, timeout=30)
            self.assertEqual(printed.returncode, 0, printed.stderr)
            self.assertIn('{"vehicleSpeed":95}', printed.stdout.splitlines())
            with zelcdb.Endpoint.client(url) as ep:
                vehicle = ep.sbp_sink("com.example.vehicle", timeout=2.0, elements=elements)
                lines = [zelcdb.json_line(name, vehicle.get(name)) for name in names]
                self.assertEqual(lines, printed.stdout.splitlines())
        finally:
            serve.terminate()
            serve.wait(10)


if __name__ == "__main__":
    unittest.main()
