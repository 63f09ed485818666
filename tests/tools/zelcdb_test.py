#!/usr/bin/env python3
"""zelcdb end to end: `zelcdb serve` on a free loopback port and the client commands against
it, compared line by line as JSON; then every kind of bad input, by message and exit code.

    zelcdb_test.py --zelcdb PATH --elements vehicle.json [--emulator "qemu-arm -L ..."]

With --emulator every zelcdb process runs under it (the 32-bit ARM build under qemu-arm),
so the same exchange is checked on the product's architecture."""

import argparse
import json
import os
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

ARGS = None
SERVICE = "com.example.vehicle"
# Exit codes, as zelcdb --help documents them.
REFUSED, USAGE, CONNECTION, UNKNOWN, TIMEOUT, ELEMENT_FILE = 1, 2, 3, 4, 5, 6


def uid(name):
    """The UID of an element name, computed as peers compute it (bytes taken as signed)."""
    h = 5381
    for b in name.encode():
        h = (h * 65599 + (b - 256 if b > 127 else b)) & 0xFFFFFFFF
    return h


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def command(*args):
    return shlex.split(ARGS.emulator) + [ARGS.zelcdb] + [str(a) for a in args]


def zelcdb(*args, timeout=30):
    """Runs zelcdb to its end: (exit code, stdout lines, stderr)."""
    done = subprocess.run(command(*args), capture_output=True, text=True, timeout=timeout)
    return done.returncode, done.stdout.splitlines(), done.stderr


class Background:
    """A zelcdb process that runs while the test does something else; its stderr is
    collected so that the test can wait for a line."""

    def __init__(self, *args):
        self.process = subprocess.Popen(command(*args), stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.stderr = []
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stderr:
            with self.changed:
                self.stderr.append(line)
                self.changed.notify_all()

    def wait_for(self, pattern, timeout):
        with self.changed:
            found = self.changed.wait_for(
                lambda: any(re.search(pattern, l) for l in self.stderr) or
                self.process.poll() is not None, timeout)
        if not any(re.search(pattern, l) for l in self.stderr):
            raise AssertionError(f"no line matching {pattern!r} in {''.join(self.stderr)!r}"
                                 f" (timed out: {not found})")

    def finish(self, timeout):
        # stderr belongs to the reader thread; only stdout is read here.
        timer = threading.Timer(timeout, self.process.kill)
        timer.start()
        out = self.process.stdout.read()
        self.process.wait()
        timer.cancel()
        self.reader.join(timeout)
        self.process.stdout.close()
        self.process.stderr.close()
        return self.process.returncode, out.splitlines(), "".join(self.stderr)

    def interrupt(self, timeout, signal_number=signal.SIGINT):
        self.process.send_signal(signal_number)
        return self.finish(timeout)


def lines_as_json(lines):
    return [json.loads(line) for line in lines]


class AgainstServe(unittest.TestCase):
    """One `zelcdb serve` for the whole class; the tests run in name order and each sets
    only elements that the others do not read."""

    @classmethod
    def setUpClass(cls):
        cls.url = f"cdb://127.0.0.1:{free_port()}"
        cls.server = Background("serve", cls.url, "--elements", ARGS.elements, "--echo", "echo",
                                "-v")
        # The client tries again while serve is not listening yet.
        code, cls.listed, err = zelcdb("services", cls.url, "--json", "--timeout", 20000)
        if code != 0:
            cls.server.process.kill()
            raise AssertionError(f"serve never answered: {code} {err}")

    @classmethod
    def tearDownClass(cls):
        code, _, err = cls.server.interrupt(10 * ARGS.slow)
        assert code == 0, f"serve ended with {code}: {err}"
        assert "stopping" in err, err

    def run_ok(self, *args):
        code, out, err = zelcdb(*args)
        self.assertEqual(code, 0, err)
        return lines_as_json(out)

    def test_01_services(self):
        self.assertEqual(lines_as_json(self.listed), [
            {"id": 0x4001, "name": SERVICE, "version": "1.0", "attribute": 0, "accessControl": 0},
            {"id": 0x4002, "name": "echo", "version": "1.0", "attribute": 0, "accessControl": 0},
        ])

    def test_02_get_every_type(self):
        lines = self.run_ok("get", self.url, SERVICE, "vehicleSpeed", "outsideTemperature",
                            "driverName", "headlightsOn", "tyrePressures", "vin",
                            "recentDestinations", "-n", "label", "-n", "distanceKm")
        self.assertEqual(lines, [
            {"vehicleSpeed": 88},
            {"outsideTemperature": 21.5},
            {"driverName": "Alex"},
            {"headlightsOn": False},
            {"tyrePressures": [2.3, 2.3, 2.5, 2.5]},
            {"vin": "57415a5a5a3939395a32303233303031"},
            {"recentDestinations": [{"label": "Home", "distanceKm": 12.5},
                                    {"label": "Office", "distanceKm": 3.2}]},
        ])

    def test_03_names_where_known_uids_otherwise(self):
        hexed = lambda name: f"0x{uid(name):08x}"
        # Members are unknown to a client that is told nothing; the service is named by ID.
        self.assertEqual(self.run_ok("get", self.url, "0x4001", "position"), [
            {"position": {hexed("latitude"): 48.137, hexed("longitude"): 11.575,
                          hexed("heading"): 270}}])
        self.assertEqual(self.run_ok("get", self.url, SERVICE, "position", "--elements",
                                     ARGS.elements), [
            {"position": {"latitude": 48.137, "longitude": 11.575, "heading": 270}}])
        self.assertEqual(self.run_ok("get", self.url, SERVICE, hexed("vehicleSpeed"), "--uid"),
                         [{hexed("vehicleSpeed"): 88}])
        code, out, err = zelcdb("get", self.url, SERVICE, "outsideTemperature", "--raw")
        self.assertEqual((code, out), (0, [f"{uid('outsideTemperature'):08x}88"
                                           "4035800000000000"]), err)

    def test_04_set_then_get(self):
        cases = [
            (["vehicleSpeed", "42"], {"vehicleSpeed": 42}),
            (["driverName", "Sam"], {"driverName": "Sam"}),
            (["vehicleSpeed", "-5", "--type", "int"], {"vehicleSpeed": -5}),
            # Members left out keep their values.
            (["position", '{"heading": 90}', "--elements", ARGS.elements],
             {"position": {"latitude": 48.137, "longitude": 11.575, "heading": 90}}),
            (["position", '{"latitude": 1.5}', "-n", "latitude", "-n", "longitude", "-n",
              "heading"], {"position": {"latitude": 1.5, "longitude": 11.575, "heading": 90}}),
        ]
        for set_args, expected in cases:
            with self.subTest(set_args=set_args):
                element = set_args[0]
                self.assertEqual(self.run_ok("set", self.url, SERVICE, *set_args), [expected])
                self.assertEqual(self.run_ok("get", self.url, SERVICE, element, "--elements",
                                             ARGS.elements), [expected])

    def test_05_subscribe_periodic(self):
        start = time.monotonic()
        lines = self.run_ok("subscribe", self.url, SERVICE, "outsideTemperature", "--periodic",
                            100, "--count", 3)
        self.assertEqual(lines, [{"outsideTemperature": 21.5}] * 3)
        self.assertGreaterEqual(time.monotonic() - start, 0.2)

    def test_06_subscribe_on_change_sees_another_clients_set(self):
        watcher = Background("subscribe", self.url, SERVICE, "headlightsOn", "--on-change",
                             "--count", 1, "-v")
        try:
            watcher.wait_for(r"subscribed to headlightsOn, on change", 10 * ARGS.slow)
            self.run_ok("set", self.url, SERVICE, "headlightsOn", "false")  # no change, no update
            self.assertEqual(self.run_ok("set", self.url, SERVICE, "headlightsOn", "true"),
                             [{"headlightsOn": True}])
            code, out, err = watcher.finish(10 * ARGS.slow)
        finally:
            watcher.process.kill()
        self.assertEqual((code, lines_as_json(out)), (0, [{"headlightsOn": True}]), err)

    def test_07_alive(self):
        lines = self.run_ok("alive", self.url, SERVICE, "--count", 2, "--interval", 0.1)
        self.assertEqual([line["alive"] for line in lines], [True, True])

    def test_08_plain_service_send_and_listen(self):
        listener = Background("listen", self.url, "echo", "--count", 1, "-v")
        try:
            listener.wait_for(r"service echo \(0x4002\) started", 10 * ARGS.slow)
            code, out, err = zelcdb("send", self.url, "echo", "01 02 ff", "--replies", 1)
            self.assertEqual((code, out), (0, ["0102ff"]), err)
            code, out, err = listener.finish(10 * ARGS.slow)
        finally:
            listener.process.kill()
        self.assertEqual((code, out), (0, ["0102ff"]), err)

    def test_09_ctrl_c_or_sigterm_cancels_says_byebye_and_tells_if_it_came_too_early(self):
        cases = [  # (command, signal, ready when, exit code, what it says)
            (["subscribe", self.url, SERVICE, "outsideTemperature", "--periodic", 50],
             signal.SIGINT, r"subscribed to", 0, r"(?s)cancelling the subscription.*ByeBye"),
            (["subscribe", self.url, SERVICE, "vin", "--on-change", "--count", 3], signal.SIGTERM,
             r"subscribed to", 130, r"(?s)interrupted after 0 of 3 updates.*ByeBye"),
            (["listen", self.url, "echo", "--count", 5], signal.SIGINT, r"service echo .* started",
             130, r"(?s)interrupted after 0 of 5 payloads.*ByeBye"),
        ]
        for args, signal_number, ready, expected_code, message in cases:
            with self.subTest(args=args):
                process = Background(*args, "-vv")
                try:
                    process.wait_for(ready, 10 * ARGS.slow)
                    code, out, err = process.interrupt(10 * ARGS.slow, signal_number)
                finally:
                    process.process.kill()
                self.assertEqual(code, expected_code, err)
                self.assertRegex(err, message)

    def test_10_bad_input_against_the_server(self):
        cases = [
            (["get", self.url, "radio", "volume"], UNKNOWN,
             r"^zelcdb: unknown service 'radio'; cdb://\S+ offers com\.example\.vehicle "
             r"\(0x4001\), echo \(0x4002\)$"),
            (["get", self.url, SERVICE, "volume"], UNKNOWN,
             r"^zelcdb: unknown element 'volume': the peer answered Get volume with "
             r"0x10000002"),
            (["set", self.url, SERVICE, "vehicleSpeed", "fast"], USAGE,
             r"^zelcdb: value of the wrong type for vehicleSpeed: expects an int .*"
             r"got \"fast\"$"),
            (["set", self.url, SERVICE, "position", '{"latitude": "north"}'], USAGE,
             r"^zelcdb: value of the wrong type for position: latitude: expects a double, "
             r"got \"north\"$"),
            (["set", self.url, SERVICE, "tyrePressures", "[1, true]", "--elements",
              ARGS.elements], USAGE, r"tyrePressures: \[1\]: expects a float, got true$"),
            # A type the server does not expect, sent without asking it first: it refuses.
            (["set", self.url, SERVICE, "vehicleSpeed", "1.5", "--type", "double"], REFUSED,
             r"^zelcdb: the peer refused Set vehicleSpeed: 0x10000002 "),
            (["subscribe", self.url, SERVICE, "volume", "--on-change"], UNKNOWN,
             r"^zelcdb: unknown element 'volume'"),
            (["get", self.url, SERVICE, "volume", "--elements", ARGS.elements], UNKNOWN,
             r"^zelcdb: unknown element 'volume'; .* names vehicleSpeed, "),
            (["listen", self.url, "echo", "--count", 1, "--timeout", 300], TIMEOUT,
             r"^zelcdb: time-out: no payload from \S+ within 300 ms$"),
            (["subscribe", self.url, SERVICE, "vin", "--on-change", "--timeout", 300], TIMEOUT,
             r"^zelcdb: time-out: no update from \S+ within 300 ms$"),
        ]
        for args, expected_code, message in cases:
            with self.subTest(args=args):
                code, out, err = zelcdb(*args)
                self.assertEqual(code, expected_code, err)
                self.assertRegex(err.strip(), message)
                self.assertEqual(out, [])
        # The refused Set changed nothing, and the server said why.
        self.assertEqual(self.run_ok("get", self.url, SERVICE, "vehicleSpeed"),
                         [{"vehicleSpeed": -5}])
        self.server.wait_for(r"Set of vehicleSpeed refused: expects an int, got a double", 5)

    def test_11_clients_that_come_together_take_turns(self):
        clients = [Background("services", self.url, "--json", "--timeout", 20000)
                   for _ in range(4)]
        for client in clients:
            code, out, err = client.finish(20 * ARGS.slow)
            self.assertEqual((code, out), (0, self.listed), err)


class ReversedRoles(unittest.TestCase):
    """A client command that waits for the peer (--server) and serve that connects to it
    (--client), as with a head unit that listens and a phone application that connects."""

    def test_serve_connects_to_a_waiting_client_and_its_stop_ends_the_connection(self):
        url = f"cdb://127.0.0.1:{free_port()}"
        client = Background("get", url, SERVICE, "vehicleSpeed", "--server", "-v")
        server = watcher = None
        try:
            client.wait_for(r"waiting for a peer", 10 * ARGS.slow)
            server = Background("serve", url, "--elements", ARGS.elements, "--client")
            code, out, err = client.finish(10 * ARGS.slow)
            self.assertEqual((code, lines_as_json(out)), (0, [{"vehicleSpeed": 88}]), err)
            # serve connects again, to the next client that waits.
            watcher = Background("subscribe", url, SERVICE, "vin", "--on-change", "--server", "-v")
            watcher.wait_for(r"subscribed to", 10 * ARGS.slow)
            code, _, err = server.interrupt(10 * ARGS.slow)
            self.assertEqual(code, 0, err)
            code, _, err = watcher.finish(10 * ARGS.slow)
            self.assertEqual(code, CONNECTION, err)
            self.assertRegex(err, r"\nzelcdb: the connection to \S+ ended: the peer ended it "
                                  r"\(ByeBye\)\n")
        finally:
            for process in [client, server, watcher]:
                if process:
                    process.process.kill()


class BadInputAlone(unittest.TestCase):
    """Failures that need no server, or a peer that misbehaves."""

    def element_file(self, text):
        handle, path = tempfile.mkstemp(suffix=".json")
        with os.fdopen(handle, "w") as f:
            f.write(text)
        self.addCleanup(os.unlink, path)
        return path

    def test_connection_refused_is_tried_again_until_the_time_out(self):
        url = f"cdb://127.0.0.1:{free_port()}"
        start = time.monotonic()
        code, out, err = zelcdb("services", url, "--timeout", 300, "-v")
        self.assertEqual(code, CONNECTION, err)
        self.assertGreaterEqual(time.monotonic() - start, 0.25)
        self.assertRegex(err, r"\nzelcdb: not connected \(.*refused.*\); trying again in 20 ms")
        self.assertRegex(err, rf"\nzelcdb: cannot connect to {url}: .*refused.* attempts\)\n$")

    def test_time_outs_of_a_silent_peer_and_of_waiting_for_one(self):
        with socket.socket() as silent:
            silent.bind(("127.0.0.1", 0))
            silent.listen(1)
            cases = [(["services", f"cdb://127.0.0.1:{silent.getsockname()[1]}"],
                      r"no list of services from"),
                     (["services", f"cdb://127.0.0.1:{free_port()}", "--server"],
                      r"no peer connected to")]
            for args, message in cases:
                with self.subTest(args=args):
                    start = time.monotonic()
                    code, out, err = zelcdb(*args, "--timeout", 300, timeout=10 * ARGS.slow)
                    self.assertEqual(code, TIMEOUT, err)
                    self.assertRegex(err.strip(),
                                     rf"^zelcdb: time-out: {message} \S+ within 300 ms$")
                    self.assertLess(time.monotonic() - start, 4 * ARGS.slow)

    def test_serve_on_a_port_in_use(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen(1)
            url = f"cdb://127.0.0.1:{taken.getsockname()[1]}"
            code, out, err = zelcdb("serve", url, "--elements", ARGS.elements)
        self.assertEqual(code, CONNECTION, err)
        self.assertEqual(err, f"zelcdb: cannot listen on {url}: bind() failed: Address already in"
                              " use (98)\n")

    def test_malformed_element_files(self):
        cases = [
            ('{\n  "elements": [\n    {"name": "a", "type": "int", "value": 1,}\n  ]\n}\n',
             r":3:45: syntax error while parsing object key - unexpected '\}'"),
            ('{"elements": [\n {"name": "a",\n  "type": "integer", "value": 1}]}',
             r":3: element 'a': unknown type \"integer\""),
            ('{"elements": [\n {"name": "a", "type": "int",\n  "value": 3000000000}]}',
             r":3: element 'a': expects an int \(an integer from -2147483648 to 2147483647\),"
             r" got 3000000000"),
            ('{"elements": [\n {"name": "a", "type": "short", "value": 1},\n'
             ' {"name": "a", "type": "int", "value": 2}]}', r":3: element 'a' twice"),
            ('{"elements": [{"name": "p", "type": "structure", "members": [\n'
             '  {"name": "x", "type": "double"}],\n "value": {"y": 1}}]}',
             r":3: element 'p': missing member 'x'"),
            ('{"elements": [{"name": "t", "type": "array",\n "items": "string", "value": []}]}',
             r":2: element 't': arrays cannot hold \"string\""),
            ('{"elements": [{"name": "a", "type": "int"}]}', r":1: element 'a': no \"value\""),
            ('{"elments": []}', r":1: unknown key \"elments\""),
            ('{"elements": [{"name": "a", "type": "int", "value": 1}],\n "service": "a:b"}',
             r":2: bad service 'a:b': expected NAME or NAME:MAJOR\.MINOR"),
        ]
        for text, message in cases:
            with self.subTest(text=text):
                path = self.element_file(text)
                code, out, err = zelcdb("serve", "cdb://127.0.0.1:1", "--elements", path)
                self.assertEqual(code, ELEMENT_FILE, err)
                self.assertRegex(err.strip(), "^zelcdb: " + re.escape(path) + message)
        code, out, err = zelcdb("serve", "cdb://127.0.0.1:1", "--elements", "/nonexistent.json")
        self.assertEqual((code, err.strip()),
                         (ELEMENT_FILE, "zelcdb: /nonexistent.json: cannot read the element file: "
                                        "No such file or directory"))

    def test_bad_command_lines(self):
        cases = [
            (["services", "127.0.0.1:9000"], r"^zelcdb: invalid URL '127\.0\.0\.1:9000'"),
            (["services", "cdb://localhost:9000"], r"the host must be a numeric IPv4 address"),
            (["services", "cdb://127.0.0.1"], r"'cdb://127\.0\.0\.1': the port is missing"),
            (["services", "cbd://127.0.0.1:9000"], r"the scheme must be cdb, not 'cbd'$"),
            (["services", "cdb://[::1]:9000"], r"IPv6 is not supported"),
            (["get", "--bogus"], r"^zelcdb: unknown option '--bogus' \(see zelcdb get --help\)$"),
            (["send", "cdb://127.0.0.1:1", "echo", "0x1"], r"not hex: odd number of digits"),
            (["send", "cdb://127.0.0.1:1", "echo", "zz"], r"not hex: unexpected 'z'"),
            (["set", "cdb://127.0.0.1:1", "s", "e", '{"a":'], r"the value '\{\"a\":' is not JSON"),
            (["set", "cdb://127.0.0.1:1", "s", "e", "1", "--type", "int8"],
             r"unknown --type 'int8'"),
            (["get", "cdb://127.0.0.1:1", "s", "speed", "--uid"], r"'speed' is not a UID"),
            (["subscribe", "cdb://127.0.0.1:1", "s", "e"], r"needs --periodic MS or --on-change"),
            (["subscribe", "cdb://127.0.0.1:1", "s", "e", "--periodic", 0], r"--periodic"),
            (["serve", "cdb://127.0.0.1:1", "--elements", ARGS.elements, "--service", "x:1"],
             r"bad service 'x:1'"),
            (["-v", "frobnicate"], r"^zelcdb: unknown command 'frobnicate' \(serve, services, "),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                code, out, err = zelcdb(*args)
                self.assertEqual(code, USAGE, err)
                self.assertRegex(err.strip(), message)
                self.assertNotIn("\n", err.strip(), "one line")

    def test_help_on_every_command_documents_the_exit_codes(self):
        for name in ["serve", "services", "get", "set", "subscribe", "alive", "send", "listen"]:
            with self.subTest(command=name):
                code, out, err = zelcdb(name, "--help")
                self.assertEqual(code, 0, err)
                self.assertIn("Exit codes:", out)
                self.assertIn("  5    time-out", "\n".join(out))
        code, out, err = zelcdb("--version")
        self.assertEqual((code, out), (0, ["zelcdb, libzelcdbsdk 2.7.0 (build 2565)"]), err)


class Install(unittest.TestCase):
    """cmake --install puts the library, its header and zelcdb in the GNU directories, and
    the installed zelcdb finds the installed library wherever the prefix is."""

    def test_install_into_a_fresh_prefix(self):
        if not ARGS.build_dir:
            self.skipTest("no --build-dir given")
        with tempfile.TemporaryDirectory() as prefix:
            done = subprocess.run([ARGS.cmake, "--install", ARGS.build_dir, "--prefix", prefix],
                                  capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, done.stderr)
            for path in [f"{ARGS.libdir}/libzelcdbsdk.so.1", f"{ARGS.libdir}/libzelcdbsdk.so",
                         "include/zelcdbsdk.h", "bin/zelcdb", "share/zelcdb/vehicle.json"]:
                self.assertTrue(os.path.exists(os.path.join(prefix, path)), path)
            installed = shlex.split(ARGS.emulator) + [os.path.join(prefix, "bin/zelcdb")]
            done = subprocess.run(installed + ["services", f"cdb://127.0.0.1:{free_port()}",
                                               "--timeout", "300"],
                                  capture_output=True, text=True, timeout=30)
            self.assertEqual(done.returncode, CONNECTION, done.stderr)
            self.assertIn("cannot connect", done.stderr)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--zelcdb", required=True)
    parser.add_argument("--elements", required=True)
    parser.add_argument("--emulator", default="")
    parser.add_argument("--build-dir", default="", help="also check cmake --install of it")
    parser.add_argument("--libdir", default="lib")
    parser.add_argument("--cmake", default="cmake")
    ARGS, rest = parser.parse_known_args()
    # Under an emulator every process starts slower; the time limits grow with it.
    ARGS.slow = 5 if ARGS.emulator else 1
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
