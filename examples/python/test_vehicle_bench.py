"""An end-of-line bench for the example vehicle service, written with plain asserts: it runs
under pytest, under `python3 -m unittest`, or as a script. Against `zelcdb serve`:

    zelcdb serve cdb://127.0.0.1:9000 --elements tools/zelcdb/vehicle.json &
    PYTHONPATH=python python3 examples/python/test_vehicle_bench.py

ZELCDB_URL names another peer; ZELCDB_LIBRARY another libzelcdbsdk.so.1."""

import asyncio
import os
import unittest

import zelcdb

URL = os.environ.get("ZELCDB_URL", "cdb://127.0.0.1:9000")
ELEMENTS = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "zelcdb", "vehicle.json")


class VehicleBench(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.endpoint = zelcdb.Endpoint.client(URL).__enter__()
        cls.vehicle = cls.endpoint.sbp_sink("com.example.vehicle", timeout=2.0,
                                            elements=ELEMENTS)

    @classmethod
    def tearDownClass(cls):
        cls.endpoint.close()

    def test_speed_reads_writes_and_updates(self):
        vehicle = self.vehicle
        speed = vehicle.get("vehicleSpeed")
        assert 0 <= speed < 400
        try:
            vehicle.set("vehicleSpeed", speed + 7)
            updates = list(vehicle.subscribe("vehicleSpeed", periodic_ms=100, count=3))
            assert updates == [speed + 7] * 3
        finally:
            vehicle.set("vehicleSpeed", speed)  # as it was, for the next bench

    def test_values_print_as_zelcdb_prints_them(self):
        position = self.vehicle.get("position")
        assert set(position) == {"latitude", "longitude", "heading"}
        assert zelcdb.json_line("vin", self.vehicle.get("vin")) == \
            '{"vin":"57415a5a5a3939395a32303233303031"}'

    def test_unknown_elements_are_refused(self):
        with self.assertRaises(zelcdb.ZelcdbError) as refused:
            self.vehicle.get("speed")
        assert refused.exception.result == 0x10000002  # failed or not supported

    def test_several_reads_at_once(self):
        async def read_all():
            names = ["driverName", "headlightsOn", "tyrePressures"]
            return await asyncio.gather(*(self.vehicle.get_async(name) for name in names))
        assert asyncio.run(read_all()) == ["Alex", False, [2.3, 2.3, 2.5, 2.5]]


if __name__ == "__main__":
    unittest.main()
