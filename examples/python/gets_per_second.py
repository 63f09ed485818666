"""How many Gets per second a Python sink gets from a Python source of the same process,
over loopback through the library (one Get at a time, then several in flight with asyncio).

    PYTHONPATH=python ZELCDB_LIBRARY=build/release/libzelcdbsdk.so.1 \
        python3 examples/python/gets_per_second.py [SECONDS]"""

import asyncio
import socket
import sys
import time

import zelcdb


def free_url():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return f"cdb://127.0.0.1:{s.getsockname()[1]}"


def rate(seconds, one_round):
    done, began = 0, time.perf_counter()
    while time.perf_counter() - began < seconds:
        done += one_round()
    return done / (time.perf_counter() - began)


def measure(seconds, log):
    url = free_url()
    server = zelcdb.Endpoint.server(url, log=log)
    names = [f"element{i}" for i in range(8)]
    server.sbp_source("bench", {name: i for i, name in enumerate(names)})
    with server, zelcdb.Endpoint.client(url, log=log) as client:
        sink = client.sbp_sink("bench", timeout=2.0)

        def one_get():
            sink.get("element0")
            return 1

        async def eight_gets():
            await asyncio.gather(*(sink.get_async(name) for name in names))
            return len(names)

        loop = asyncio.new_event_loop()
        with_log = "with the library's log" if log else "log=False"
        print(f"{with_log:>22}: Gets per second, one at a time {rate(seconds, one_get):6.0f}, "
              f"8 in flight (asyncio) "
              f"{rate(seconds, lambda: loop.run_until_complete(eight_gets())):6.0f}")
        loop.close()


if __name__ == "__main__":
    for log in (True, False):
        measure(float(sys.argv[1]) if len(sys.argv) > 1 else 3.0, log)
