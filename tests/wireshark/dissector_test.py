#!/usr/bin/env python3
"""The Wireshark dissector (tools/wireshark/zelcdb.lua) under tshark, over what `zelcdb --capture`
records against `zelcdb serve` (every command, 8100-byte payloads in segments, one connection
after another), the demo captured live (as root) and the CDB reader's and SBP service's fuzz
corpora as captures. Exits 77, which ctest reports as skipped, without tshark."""

import argparse
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

SERVICE = "com.example.vehicle"
REQUESTS = {0xB1, 0xB2, 0xB3, 0xB4, 0xB5}
ANSWERS = {0xB6, 0xB9}
# Expert info of the dissector: none of these may show on a session zelcdb recorded.
EXPERTS = ("zelcdb.unknown_type zelcdb.truncated zelcdb.surplus zelcdb.oversize "
           "zelcdb.bad_version zelcdb.undefined_response zelcdb.unknown_service zelcdb.internal "
           "zelsbp.malformed zelsbp.excess zelsbp.unknown_command zelsbp.no_request "
           "zelsbp.unanswered zelsbp.refused zelsbp.bad_value zelsbp.empty_container").split()
FIELDS = ["frame.number", "ip.src", "tcp.srcport", "ip.dst", "tcp.dstport", "zelcdb.type",
          "zelcdb.length", "zelcdb.service_id", "zelcdb.service_name", "zelcdb.data_length",
          "zelcdb.sbp",
          "zelsbp.command", "zelsbp.request_in", "zelsbp.response_in", "zelsbp.text",
          "_ws.expert.message", "_ws.malformed", "ip.checksum.status",
          "tcp.checksum.status"] + EXPERTS
ARGS = None


def tshark(capture, *options):
    lua = os.path.join(ARGS.source_dir, "tools", "wireshark", "zelcdb.lua")
    elements = os.path.join(ARGS.source_dir, "tools", "zelcdb", "vehicle.json")
    done = subprocess.run(["tshark", "-n", "-X", f"lua_script:{lua}", "-o",
                           f"zelcdb.elements:{elements}", "-r", capture, *options],
                          capture_output=True, encoding="utf-8", errors="replace",
                          timeout=120)
    assert done.returncode == 0, done.stderr
    assert "Lua" not in done.stderr, done.stderr
    return done.stdout


# Recorded connections are found by their first ServicesRequest, tried before the port
# numbers: an ephemeral port that another protocol has registered (44322, say) would
# otherwise take the connection.
HEURISTIC_FIRST = ("-o", "tcp.try_heuristic_first:TRUE")
# zelcdb --capture writes real checksums (a live capture on loopback often has none).
CHECKSUMS = ("-o", "ip.check_checksum:TRUE", "-o", "tcp.check_checksum:TRUE")


def frames(capture, *options):
    """One dict per frame: field name -> list of values (several messages share a frame)."""
    args = ["-2", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=\x1e", *options]
    out = tshark(capture, *args, *[a for name in FIELDS for a in ("-e", name)])
    return [dict(zip(FIELDS, [v.split("\x1e") if v else [] for v in line.split("\t")]))
            for line in out.rstrip("\n").split("\n")]


def tcp_streams(path):
    """The bytes each side sent on each connection, from the pcap file itself."""
    data, at, streams = open(path, "rb").read(), 24, {}
    while at < len(data):
        length = struct.unpack_from("=IIII", data, at)[2]
        packet, at = data[at + 16:at + 16 + length], at + 16 + length
        tcp = packet[(packet[0] & 15) * 4:]
        key = (socket.inet_ntoa(packet[12:16]), struct.unpack("!H", tcp[:2])[0],
               socket.inet_ntoa(packet[16:20]), struct.unpack("!H", tcp[2:4])[0])
        streams[key] = streams.get(key, b"") + tcp[(tcp[12] >> 4) * 4:]
    return streams


def cdb_messages(stream):
    """(type, length) of every message in a byte stream, framed by the length field."""
    at, found = 0, []
    while at + 4 <= len(stream):
        mtype, length = struct.unpack_from("!HH", stream, at)
        found.append((mtype, length))
        at += 4 + length
    return found


def write_pcap(path, conversations):
    """Each conversation a TCP connection to port 9000: a list of (side, [segment bytes])."""
    with open(path, "wb") as f:
        f.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
        for n, turns in enumerate(conversations):
            hosts, ports, seq = (b"\x0a\0\0\x01", b"\x0a\0\0\x02"), (1024 + n, 9000), [100, 900]

            def send(side, flags, payload=b""):
                tcp = struct.pack("!HHIIBBHHH", ports[side], ports[1 - side], seq[side],
                                  seq[1 - side], 0x50, flags, 65535, 0, 0)
                ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 40 + len(payload), 0, 0x4000, 64, 6,
                                 0, hosts[side], hosts[1 - side])
                record = ip + tcp + payload
                f.write(struct.pack("=IIII", n, 0, len(record), len(record)) + record)
                seq[side] += len(payload) + (1 if flags & 0x03 else 0)

            send(0, 0x02), send(1, 0x12)
            for side, segments in turns:
                for segment in segments:
                    send(side, 0x18, segment)


def cut(data, lengths):
    """Segments of data with the given lengths in turn (0s skipped); as in the fuzzer, after
    64 of them the rest comes at once (in segments of 1460 bytes)."""
    lengths = [n for n in lengths if n] or [1460]
    segments, at = [], 0
    while at < len(data):
        size = lengths[len(segments) % len(lengths)] if len(segments) < 64 else 1460
        segments.append(data[at:at + size])
        at += size
    return segments


def corpus(name):
    folder = os.path.join(ARGS.source_dir, "fuzz", "corpus", name)
    return [open(os.path.join(folder, f), "rb").read() for f in sorted(os.listdir(folder))]


def reader_conversation(data):
    """The CDB reader's input: a byte saying how many segment lengths follow, those lengths,
    then the stream, which the client sends in segments of those lengths."""
    count = (data[0] & 15) + 1 if data else 0
    return [(0, cut(data[1 + count:], data[1:1 + count]))]


SBP_ARGUMENTS = {2: 1, 3: 4, 4: 3, 5: 1, 6: 0, 7: 1, 8: 0, 9: 1}


def sbp_conversation(data):
    """The SBP service's script: op bytes with their arguments; ops 0 and 1 carry payloads for
    the source and the sink, sent here as ServicePayloads of a service announced as SBP."""
    name = b"fuzz"
    entry = struct.pack("!HBBBBB", 0x4001, 1, 0, 0, 0, len(name)) + name
    announce = struct.pack("!HHBBH", 0xB102, 4 + len(entry), 1, 1, 1) + entry
    turns, at = [(1, [announce])], 0
    while at < len(data):
        op, at = data[at] % 10, at + 1
        if op in SBP_ARGUMENTS:
            at += SBP_ARGUMENTS[op]
            continue
        size = (data[at] if at < len(data) else 0) or 64
        payload, at = data[at + 1:at + 1 + size], at + 1 + size
        turns.append((op, [struct.pack("!HHHB", 0xB105, 3 + len(payload), 0x4001, 0) + payload]))
    return turns


class Serve:
    """zelcdb serve on a free loopback port, recording its side of every connection."""

    def __init__(self, capture):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.url = f"cdb://127.0.0.1:{s.getsockname()[1]}"
        self.process = subprocess.Popen(
            [ARGS.zelcdb, "serve", self.url, "--elements",
             os.path.join(ARGS.source_dir, "tools", "zelcdb", "vehicle.json"), "--echo", "echo",
             "--capture", capture], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        assert "serving" in self.process.stderr.readline()

    def run(self, *args):
        """A client command to its end; its output lines as JSON where they are JSON."""
        done = subprocess.run([ARGS.zelcdb, args[0], self.url, *map(str, args[1:])],
                              capture_output=True, text=True, timeout=30)
        assert done.returncode == 0, (args, done.stderr)
        return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        if self.process.wait(timeout=10) != 0:
            raise AssertionError("serve: " + self.process.stderr.read())


def exchange(serve, folder):
    """Every command, the demo's exchange among them (Gets of its five elements, two Sets, a
    periodic and an on-change subscription, Alive); returns the values zelcdb printed."""
    printed = serve.run("get", SERVICE, "vehicleSpeed", "outsideTemperature", "driverName",
                        "headlightsOn", "position", "tyrePressures", "recentDestinations", "vin",
                        "--capture", os.path.join(folder, "client.pcap"), "--elements",
                        os.path.join(ARGS.source_dir, "tools", "zelcdb", "vehicle.json"))
    printed += serve.run("set", SERVICE, "vehicleSpeed", 95)
    printed += serve.run("set", SERVICE, "driverName", "Sam")
    printed += serve.run("subscribe", SERVICE, "vehicleSpeed", "--periodic", 20, "--count", 3)
    watcher = subprocess.Popen([ARGS.zelcdb, "subscribe", serve.url, SERVICE,
                                "outsideTemperature", "--on-change", "--count", "1"],
                               stdout=subprocess.PIPE, text=True)
    for degrees in range(100):  # until the subscription is in place and sees a change
        printed += serve.run("set", SERVICE, "outsideTemperature", 30 + degrees)
        if watcher.poll() is not None:
            break
    printed += [json.loads(line) for line in watcher.communicate(timeout=10)[0].splitlines()]
    serve.run("alive", SERVICE, "--count", 2, "--interval", 0)
    serve.run("services")
    for _ in range(2):
        serve.run("send", "echo", "5a" * 8100, "--replies", 1)
    return printed


def check_session(capture, printed):
    """Every message framed as the bytes say, names resolved, requests answered, values as
    zelcdb printed them; returns (messages, SBP packets) checked."""
    rows, sent, packets, decoded = frames(capture, *HEURISTIC_FIRST, *CHECKSUMS), {}, 0, []
    for row in rows:
        good = "1"  # 0 is bad, 2 unverified
        assert row["ip.checksum.status"] == row["tcp.checksum.status"] == [good], row
        key = (row["ip.src"][0], int(row["tcp.srcport"][0]), row["ip.dst"][0],
               int(row["tcp.dstport"][0]))
        found = list(zip([int(t, 0) for t in row["zelcdb.type"]], map(int, row["zelcdb.length"])))
        sent[key] = sent.get(key, []) + found
        for expert in EXPERTS + ["_ws.malformed"]:
            assert not row[expert], (capture, row["frame.number"], row["_ws.expert.message"])
        named = [i for i in row["zelcdb.service_id"] if int(i, 0) != 0]
        assert len(row["zelcdb.service_name"]) >= len(named), row
        commands = [int(c, 0) for c in row["zelsbp.command"]]
        packets += len(commands)
        assert row["zelcdb.sbp"].count("1") == len(commands), row  # the echo service's are 0
        assert len(row["zelsbp.response_in"]) == len([c for c in commands if c in REQUESTS]), row
        assert len(row["zelsbp.request_in"]) == len([c for c in commands if c in ANSWERS]), row
        decoded += [json.loads(text) for text in row["zelsbp.text"]]
    sent = {key: found for key, found in sent.items() if found}
    assert sent == {k: cdb_messages(d) for k, d in tcp_streams(capture).items() if d}, capture
    assert all(value in decoded for value in printed), (capture, printed, decoded)
    return sum(map(len, sent.values())), packets, rows


def live_demo(folder):
    """As root with dumpcap: the demo itself captured on loopback, every value it printed
    decoded alike from its connection. Returns the number of values checked, 0 if not run."""
    if os.geteuid() != 0 or not shutil.which("dumpcap") or not ARGS.demo:
        return 0
    capture = os.path.join(folder, "demo.pcapng")
    dumpcap = subprocess.Popen(["dumpcap", "-q", "-i", "lo", "-f", "tcp", "-w", capture],
                               stderr=subprocess.PIPE, text=True)
    try:
        while "Capturing" not in dumpcap.stderr.readline():
            assert dumpcap.poll() is None, "dumpcap ended"
        # dumpcap says it captures a moment before it does, and hands over what the kernel
        # holds about once a second: margins on both sides, or the capture misses packets.
        time.sleep(1)
        out = subprocess.run([ARGS.demo, ARGS.library], capture_output=True, text=True,
                             timeout=60).stdout
        time.sleep(1.5)
    finally:
        dumpcap.send_signal(signal.SIGINT)
        dumpcap.wait(timeout=10)
    port = re.search(r"cdb://127\.0\.0\.1:(\d+)", out).group(1)
    # "client: Get       position = {latitude: 48.137, ...}" is {"position": {"latitude": ...}}
    printed = [{name: json.loads(re.sub(r"(\w+):", r'"\1":', value))} for name, value in
               re.findall(r"client: (?:Get|Set|update) +(\w+) = (.*)", out)]
    rows = frames(capture, *HEURISTIC_FIRST, "-Y", f"tcp.port == {port}")
    decoded = [json.loads(text) for row in rows for text in row["zelsbp.text"]]
    assert not [row for row in rows if any(row[expert] for expert in EXPERTS)]
    assert len(printed) >= 12 and all(value in decoded for value in printed), (printed, decoded)
    return len(printed)


def main():
    if not shutil.which("tshark"):
        print("SKIP: tshark is not installed (tools/install-deps.sh wireshark installs it)")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        serve = Serve(os.path.join(folder, "serve.pcap"))
        try:
            printed = exchange(serve, folder)
        finally:
            serve.stop()
        serve = os.path.join(folder, "serve.pcap")
        messages, packets, rows = check_session(serve, printed)
        client = check_session(os.path.join(folder, "client.pcap"), printed[:8])
        lengths = [int(n) for row in rows for n in row["zelcdb.data_length"]]
        assert lengths.count(8100) == 4, lengths  # two sent, two echoed, each in 6 segments
        connections = len(tcp_streams(serve)) // 2  # one per command, one after another
        assert connections >= 10, connections

        # What the README shows: the SBP traffic alone, one summary line per packet.
        summary = tshark(serve, *HEURISTIC_FIRST, "-Y", "zelsbp")
        for text in ("Get vehicleSpeed", "Set driverName", "update 3 {\"vehicleSpeed\":95}",
                     "subscribed", "AliveResponse", "Cancel vehicleSpeed"):
            assert text in summary, (text, summary)

        demo = live_demo(folder)
        fuzzed = os.path.join(folder, "fuzzed.pcap")
        readers, services = corpus("cdb_reader"), corpus("sbp_service")
        write_pcap(fuzzed, [reader_conversation(d) for d in readers] +
                   [sbp_conversation(d) for d in services])
        faults = 0
        for row in frames(fuzzed, "-o", "zelcdb.sbp_services:fuzz"):
            text = " ".join(row["_ws.expert.message"])
            # A dissector exception would read "Malformed Packet (Exception occurred)".
            for fault in ("Lua Error", "Dissector fault", "Exception occurred"):
                assert fault not in text, (row, text)
            faults += any(row[expert] for expert in EXPERTS)
        assert faults > 100, faults
    print(f"checked {messages} CDB messages and {packets} SBP packets of {connections} "
          f"connections recorded by serve, {client[0]} messages recorded by a client, "
          f"{demo} values of the demo captured live; "
          f"{len(readers)} CDB reader and {len(services)} SBP service corpus inputs through "
          f"tshark, {faults} frames with expert info")
    return 0


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--zelcdb", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--demo", help="the demo program, captured live when run as root")
    parser.add_argument("--library", help="the library the demo loads")
    ARGS = parser.parse_args()
    sys.exit(main())
