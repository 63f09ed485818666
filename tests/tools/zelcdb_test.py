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
import select
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
OK, REFUSED, USAGE, CONNECTION, UNKNOWN, TIMEOUT, ELEMENT_FILE = 0, 1, 2, 3, 4, 5, 6


def uid(name):
    """The UID of an element name as peers compute it (bytes taken as signed), in hex."""
    h = 5381
    for b in name.encode():
        h = (h * 65599 + (b - 256 if b > 127 else b)) & 0xFFFFFFFF
    return f"0x{h:08x}"


def free_url():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return f"cdb://127.0.0.1:{s.getsockname()[1]}"


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
        self.stderr, self.changed = [], threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stderr:
            with self.changed:
                self.stderr.append(line)
                self.changed.notify_all()

    def wait_for(self, pattern):
        seen = lambda: any(re.search(pattern, line) for line in self.stderr)
        with self.changed:
            self.changed.wait_for(lambda: seen() or self.process.poll() is not None,
                                  10 * ARGS.slow)
            assert seen(), f"no line matching {pattern!r} in {''.join(self.stderr)!r}"

    def finish(self, signal_number=None):
        """Signals the process if asked, waits for its end: (exit code, stdout lines,
        stderr). stderr belongs to the reader thread; only stdout is read here."""
        if signal_number:
            self.process.send_signal(signal_number)
        timer = threading.Timer(10 * ARGS.slow, self.process.kill)
        timer.start()
        out = self.process.stdout.read()
        self.process.wait()
        timer.cancel()
        self.reader.join(10 * ARGS.slow)
        self.process.stdout.close()
        self.process.stderr.close()
        return self.process.returncode, out.splitlines(), "".join(self.stderr)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.process.kill()


class Case(unittest.TestCase):
    def expect(self, args, code, out=None, err=None):
        """Runs zelcdb with args: its exit code, its stdout lines as JSON (when given) and
        its whole stderr matching err (when given)."""
        got_code, got_out, got_err = zelcdb(*args)
        self.assertEqual(got_code, code, got_err)
        if out is not None:
            self.assertEqual([json.loads(line) for line in got_out], out)
        if err is not None:
            self.assertRegex(got_err.strip(), err)

    def table(self, cases):
        for case in cases:
            with self.subTest(args=case[0]):
                self.expect(*case)


class AgainstServe(Case):
    """One `zelcdb serve` for the whole class; the tests run in name order and each sets
    only elements that the others do not read."""

    @classmethod
    def setUpClass(cls):
        cls.url = free_url()
        cls.server = Background("serve", cls.url, "--elements", ARGS.elements, "--echo", "echo",
                                "-v")
        # The client tries again while serve is not listening yet.
        code, cls.listed, err = zelcdb("services", cls.url, "--json", "--timeout", 20000)
        if code != 0:
            cls.server.process.kill()
            raise AssertionError(f"serve never answered: {code} {err}")

    @classmethod
    def tearDownClass(cls):
        code, _, err = cls.server.finish(signal.SIGINT)
        assert code == 0 and "stopping" in err, f"serve ended with {code}: {err}"

    def test_1_commands(self):
        url, elements = self.url, ["--elements", ARGS.elements]
        position = {"latitude": 48.137, "longitude": 11.575, "heading": 270}
        self.assertEqual([json.loads(line) for line in self.listed], [
            {"id": 0x4001, "name": SERVICE, "version": "1.0", "attribute": 0, "accessControl": 0},
            {"id": 0x4002, "name": "echo", "version": "1.0", "attribute": 0, "accessControl": 0},
        ])
        self.table([
            (["get", url, SERVICE, "vehicleSpeed", "outsideTemperature", "driverName",
              "headlightsOn", "tyrePressures", "vin", "recentDestinations", "-n", "label", "-n",
              "distanceKm"], OK,
             [{"vehicleSpeed": 88}, {"outsideTemperature": 21.5}, {"driverName": "Alex"},
              {"headlightsOn": False}, {"tyrePressures": [2.3, 2.3, 2.5, 2.5]},
              {"vin": "57415a5a5a3939395a32303233303031"},
              {"recentDestinations": [{"label": "Home", "distanceKm": 12.5},
                                      {"label": "Office", "distanceKm": 3.2}]}]),
            # Members are unknown to a client that is told nothing; the service is named by ID.
            (["get", url, "0x4001", "position"], OK,
             [{"position": {uid(k): v for k, v in position.items()}}]),
            (["get", url, SERVICE, "position", *elements], OK, [{"position": position}]),
            (["get", url, SERVICE, uid("vehicleSpeed"), "--uid"], OK,
             [{uid("vehicleSpeed"): 88}]),
        ])
        code, out, err = zelcdb("alive", url, SERVICE, "--count", 2, "--interval", 0.1)
        self.assertEqual((code, [json.loads(line)["alive"] for line in out]), (0, [True, True]),
                         err)
        code, out, err = zelcdb("get", url, SERVICE, "outsideTemperature", "--raw")
        self.assertEqual((code, out), (0, [uid("outsideTemperature")[2:] + "884035800000000000"]),
                         err)
        start = time.monotonic()
        self.expect(["subscribe", url, SERVICE, "outsideTemperature", "--periodic", 100,
                     "--count", 3], OK, [{"outsideTemperature": 21.5}] * 3)
        self.assertGreaterEqual(time.monotonic() - start, 0.2)

    def test_2_set_then_get(self):
        elements = ["--elements", ARGS.elements]
        for set_args, expected in [
            (["vehicleSpeed", "42"], {"vehicleSpeed": 42}),
            (["driverName", "Sam"], {"driverName": "Sam"}),
            (["vehicleSpeed", "-5", "--type", "int"], {"vehicleSpeed": -5}),
            # Members left out keep their values.
            (["position", '{"heading": 90}', *elements],
             {"position": {"latitude": 48.137, "longitude": 11.575, "heading": 90}}),
            (["position", '{"latitude": 1.5}', "-n", "latitude", "-n", "longitude", "-n",
              "heading"], {"position": {"latitude": 1.5, "longitude": 11.575, "heading": 90}}),
        ]:
            self.table([(["set", self.url, SERVICE, *set_args], OK, [expected]),
                        (["get", self.url, SERVICE, set_args[0], *elements], OK, [expected])])

    def test_3_a_subscriber_and_a_listener_see_other_clients(self):
        with Background("subscribe", self.url, SERVICE, "headlightsOn", "--on-change", "--count",
                        1, "-v") as watcher:
            watcher.wait_for(r"subscribed to headlightsOn, on change")
            self.server.wait_for(r"peer #\d+: Subscribe headlightsOn on change$")
            self.expect(["set", self.url, SERVICE, "headlightsOn", "false"], OK)  # no change
            self.expect(["set", self.url, SERVICE, "headlightsOn", "true"], OK,
                        [{"headlightsOn": True}])
            code, out, err = watcher.finish()
            self.assertEqual((code, [json.loads(line) for line in out]),
                             (0, [{"headlightsOn": True}]), err)
        with Background("listen", self.url, "echo", "--count", 1, "-v") as listener:
            listener.wait_for(r"service echo \(0x4002\) started")
            code, out, err = zelcdb("send", self.url, "echo", "01 02 ff", "--replies", 1)
            self.assertEqual((code, out), (0, ["0102ff"]), err)
            code, out, err = listener.finish()
            self.assertEqual((code, out), (0, ["0102ff"]), err)

    def test_4_ctrl_c_or_sigterm_cancels_says_byebye_and_tells_if_it_came_too_early(self):
        for args, signal_number, ready, expected_code, message in [
            (["subscribe", self.url, SERVICE, "outsideTemperature", "--periodic", 50],
             signal.SIGINT, r"subscribed to", 0,
             r"(?s)interrupted.*cancelling the subscription.*ByeBye"),
            (["subscribe", self.url, SERVICE, "vin", "--on-change", "--count", 3], signal.SIGTERM,
             r"subscribed to", 130, r"(?s)interrupted after 0 of 3 updates.*ByeBye"),
            (["listen", self.url, "echo", "--count", 5], signal.SIGINT, r"service echo .* started",
             130, r"(?s)interrupted after 0 of 5 payloads.*ByeBye"),
        ]:
            with self.subTest(args=args), Background(*args, "-vv") as process:
                process.wait_for(ready)
                if "--periodic" in args:  # each value is out as soon as it is printed, not
                    out = process.process.stdout  # once a pipe's buffer is full (seconds)
                    self.assertTrue(select.select([out], [], [], 2 * ARGS.slow)[0])
                    self.assertIn("outsideTemperature", out.readline())
                code, out, err = process.finish(signal_number)
                self.assertEqual(code, expected_code, err)
                self.assertRegex(err, message)

    def test_5_bad_input_against_the_server(self):
        url, elements = self.url, ["--elements", ARGS.elements]
        self.table([
            (["get", url, "radio", "volume"], UNKNOWN,
             [], r"^zelcdb: unknown service 'radio'; cdb://\S+ offers com\.example\.vehicle "
             r"\(0x4001\), echo \(0x4002\)$"),
            (["get", url, SERVICE, "volume"], UNKNOWN, [],
             r"^zelcdb: unknown element 'volume': the peer answered Get volume with 0x10000002"),
            (["set", url, SERVICE, "vehicleSpeed", "fast"], USAGE, [],
             r"^zelcdb: value of the wrong type for vehicleSpeed: expects an int .*"
             r"got \"fast\"$"),
            (["set", url, SERVICE, "position", '{"latitude": "north"}'], USAGE, [],
             r"^zelcdb: value of the wrong type for position: latitude: expects a double, "
             r"got \"north\"$"),
            (["set", url, SERVICE, "tyrePressures", "[1, true]", *elements], USAGE, [],
             r"tyrePressures: \[1\]: expects a float, got true$"),
            # A type the server does not expect, sent without asking it first: it refuses.
            (["set", url, SERVICE, "vehicleSpeed", "1.5", "--type", "double"], REFUSED, [],
             r"^zelcdb: the peer refused Set vehicleSpeed: 0x10000002 "),
            (["subscribe", url, SERVICE, "volume", "--on-change"], UNKNOWN, [],
             r"^zelcdb: unknown element 'volume'"),
            (["get", url, SERVICE, "volume", *elements], UNKNOWN, [],
             r"^zelcdb: unknown element 'volume'; .* names vehicleSpeed, "),
            (["listen", url, "echo", "--count", 1, "--timeout", 300], TIMEOUT, [],
             r"^zelcdb: time-out: no payload from \S+ within 300 ms$"),
            (["subscribe", url, SERVICE, "vin", "--on-change", "--timeout", 300], TIMEOUT, [],
             r"^zelcdb: time-out: no update from \S+ within 300 ms$"),
            # The refused Set changed nothing.
            (["get", url, SERVICE, "vehicleSpeed"], OK, [{"vehicleSpeed": -5}]),
        ])
        self.server.wait_for(r"Set of vehicleSpeed refused: expects an int, got a double")

    def test_6_clients_that_come_together_take_turns(self):
        """Straight to serve, and through the relay of --capture, which must not hand one
        endpoint a second peer while it still takes the first."""
        with tempfile.TemporaryDirectory() as folder:
            relayed = free_url()
            with Background("serve", relayed, "--elements", ARGS.elements, "--echo", "echo",
                            "--capture", os.path.join(folder, "serve.pcap")) as server:
                server.wait_for("serving")
                # A peer that stays connected holds nobody up once its endpoint has answered.
                holder = Background("listen", relayed, "echo", "--count", 1, "-v")
                holder.wait_for(r"service echo \(0x4002\) started")
                for url in (self.url, relayed):
                    clients = [Background("services", url, "--json", "--timeout", 20000)
                               for _ in range(10)]
                    for client in clients:
                        with client:
                            code, out, err = client.finish()
                            self.assertEqual((code, out), (0, self.listed), (url, err))
                with holder:
                    self.assertEqual(zelcdb("send", relayed, "echo", "01", "--replies", 1)[0], OK)
                    self.assertEqual(holder.finish()[:2], (0, ["01"]))


class Alone(Case):
    """Reversed roles, failures that need no server or a peer that misbehaves, and the
    installed tool."""

    def test_serve_connects_to_a_waiting_client_and_its_stop_ends_the_connection(self):
        # As with a head unit that listens and a phone application that connects.
        url = free_url()
        with Background("get", url, SERVICE, "vehicleSpeed", "--server", "-v") as client:
            client.wait_for(r"waiting for a peer")
            with Background("serve", url, "--elements", ARGS.elements, "--client") as server:
                code, out, err = client.finish()
                self.assertEqual((code, [json.loads(line) for line in out]),
                                 (0, [{"vehicleSpeed": 88}]), err)
                # serve connects again, to the next client that waits.
                with Background("subscribe", url, SERVICE, "vin", "--on-change", "--server",
                                "-v") as watcher:
                    watcher.wait_for(r"subscribed to")
                    self.assertEqual(server.finish(signal.SIGINT)[0], 0)
                    code, _, err = watcher.finish()
                    self.assertEqual(code, CONNECTION, err)
                    self.assertRegex(err, r"\nzelcdb: the connection to \S+ ended: the peer "
                                          r"ended it \(ByeBye\)\n")

    def test_connection_refused_is_tried_again_until_the_time_out(self):
        url = free_url()
        start = time.monotonic()
        code, out, err = zelcdb("services", url, "--timeout", 300, "-v")
        self.assertEqual(code, CONNECTION, err)
        self.assertGreaterEqual(time.monotonic() - start, 0.25)
        self.assertRegex(err, r"\nzelcdb: not connected \(.*refused.*\); trying again in 20 ms")
        self.assertRegex(err, rf"\nzelcdb: cannot connect to {url}: .*refused.* attempts\)\n$")

    def test_time_outs_of_a_silent_peer_and_of_waiting_for_one_and_a_port_in_use(self):
        with socket.socket() as silent:
            silent.bind(("127.0.0.1", 0))
            silent.listen(1)
            url = f"cdb://127.0.0.1:{silent.getsockname()[1]}"
            start = time.monotonic()
            self.table([
                (["services", url, "--timeout", 300], TIMEOUT, [],
                 r"^zelcdb: time-out: no list of services from \S+ within 300 ms$"),
                (["services", free_url(), "--server", "--timeout", 300], TIMEOUT, [],
                 r"^zelcdb: time-out: no peer connected to \S+ within 300 ms$"),
                (["serve", url, "--elements", ARGS.elements], CONNECTION, [],
                 rf"^zelcdb: cannot listen on {url}: bind\(\) failed: Address already in use "
                 r"\(98\)$"),
            ])
            self.assertLess(time.monotonic() - start, 8 * ARGS.slow)

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
            # Inside an array of structures and inside a member.
            ('{"elements": [{"name": "t", "type": "array", "value": [],\n "items": {"type": '
             '"structure", "colour": 1, "members": [{"name": "x", "type": "int"}]}}]}',
             r":2: element 't': unknown key \"colour\""),
            ('{"elements": [{"name": "p", "type": "structure", "value": {"x": 1},\n "members": '
             '[{"name": "x", "type": "int", "unit": "m"}]}]}',
             r":2: element 'p': unknown key \"unit\""),
            ('{"elements": [{"name": "a", "type": "int", "value": 1}],\n "service": "a:b"}',
             r":2: bad service 'a:b': expected NAME or NAME:MAJOR\.MINOR"),
            (None, r": cannot read the element file: No such file or directory$"),
        ]
        with tempfile.TemporaryDirectory() as folder:
            rows = []
            for k, (text, message) in enumerate(cases):
                path = os.path.join(folder, f"{k}.json")
                if text is not None:
                    with open(path, "w") as f:
                        f.write(text)
                # A client loads the file before it connects: a file that loads by mistake
                # ends in a refused connection, not in a server that runs on.
                rows.append((["get", free_url(), "svc", "p", "--elements", path, "--timeout", 200],
                             ELEMENT_FILE, [], "^zelcdb: " + re.escape(path) + message))
            # Two structures may share a member name: the file loads, and only the connection
            # (to a port nobody listens on) fails.
            shared = os.path.join(folder, "shared.json")
            with open(shared, "w") as f:
                f.write('{"elements": [' + ", ".join(
                    f'{{"name": "{n}", "type": "structure", "value": {{"x": 1}}, '
                    '"members": [{"name": "x", "type": "int"}]}' for n in "pq") + "]}")
            rows.append((["get", free_url(), "svc", "p", "--elements", shared, "--timeout", 200],
                         CONNECTION, [], r"cannot connect"))
            self.table(rows)

    def test_bad_command_lines_say_why_on_one_line(self):
        self.table([(args, USAGE, [], r"^[^\n]*" + message + r"[^\n]*$") for args, message in [
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
            *[(["serve", "cdb://127.0.0.1:1", "--elements", ARGS.elements, "--service", bad],
               "bad service '" + re.escape(bad) + "'") for bad in ("x:1", "x:256.0", "x:1.256")],
            (["-v", "frobnicate"], r"^zelcdb: unknown command 'frobnicate' \(serve, services, "),
            ([], r"^zelcdb: A subcommand is required \(see zelcdb --help\)$"),
            (["services", "cdb://127.0.0.1:1", "--capture", "/nonexistent/x.pcap"],
             r"^zelcdb: cannot write the capture file /nonexistent/x\.pcap: No such file"),
        ]])

    def test_help_on_every_command_documents_the_exit_codes(self):
        for name in ["serve", "services", "get", "set", "subscribe", "alive", "send", "listen"]:
            code, out, err = zelcdb(name, "--help")
            self.assertEqual(code, 0, err)
            self.assertIn("Exit codes:", out, name)
            self.assertIn("  5    time-out", "\n".join(out), name)
        code, out, err = zelcdb("--version")
        self.assertEqual((code, out), (0, ["zelcdb, libzelcdbsdk 2.7.0 (build 2565)"]), err)

    def test_install_into_a_fresh_prefix_finds_the_installed_library(self):
        if not ARGS.build_dir:
            self.skipTest("no --build-dir given")
        with tempfile.TemporaryDirectory() as prefix:
            done = subprocess.run([ARGS.cmake, "--install", ARGS.build_dir, "--prefix", prefix],
                                  capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, done.stderr)
            for path in [f"{ARGS.libdir}/libzelcdbsdk.so.1", f"{ARGS.libdir}/libzelcdbsdk.so",
                         "include/zelcdbsdk.h", "bin/zelcdb", "share/zelcdb/vehicle.json"]:
                self.assertTrue(os.path.exists(os.path.join(prefix, path)), path)
            done = subprocess.run(shlex.split(ARGS.emulator) + [f"{prefix}/bin/zelcdb", "services",
                                                                free_url(), "--timeout", "300"],
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
