"""The reader of area files, on an area that the library made in a sandbox, and on worse ones."""

import contextlib
import gzip
import io
import random
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import tarvo
from region_case import AREA, RegionCase
from tarvo import area

CHUNKS, CHUNK_BYTES = 4, 4280
CHUNKS_HEAD = 70123524
DEVICES, DEVICE_BYTES = 70123536, 28

# Offsets in a record.
NEXT, ALLOCATED, NAME, PA, SIZE = 0, 8, 9, 60, 68


def report_of(path: str):
    """What the program prints, and its status."""
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed), contextlib.redirect_stderr(printed):
        status = area.main([path])
    return status, printed.getvalue()


class AreaCase(RegionCase):
    """Three chunks, the second and the third with a gap between them, and one device."""

    def setUp(self) -> None:
        super().setUp()
        self.device = tarvo.Device.parse("0000:03:00.1")
        tarvo.register_device(self.device)
        for name, size in (("first", 4096), ("second", 8192), ("gone", 4096), ("third", 4096)):
            tarvo.allocate(name, size, f"maker of {name}")
        tarvo.free_chunk("gone")
        with open(AREA, "rb") as file:
            self.data = bytearray(file.read())
        self.elements = {chunk.name: chunk.element for chunk in tarvo.chunks()}

    def put(self, name: str, offset: int, form: str, value: int) -> None:
        """Damages a chunk's record."""
        struct.pack_into(form, self.data, CHUNKS + self.elements[name] * CHUNK_BYTES + offset, value)


class SoundAreas(AreaCase):
    def test_are_read_as_the_library_lists_them(self) -> None:
        found = area.Area(self.data)
        self.assertTrue(found.complete)
        self.assertEqual(
            [(c.element, c.name, c.creator, c.physical, c.size, found.dma(c.physical))
             for c in found.chunks],
            [(c.element, c.name, c.creator, c.physical, c.size, c.dma) for c in tarvo.chunks()],
        )  # fmt: skip
        self.assertEqual([str(device) for device in found.devices], ["0000:03:00.1"])
        self.assertEqual(found.region, (self.physical_start, self.physical_start + self.size))
        self.assertEqual(found.unlisted, ())

    def test_show_the_devices_of_each_chunk(self) -> None:
        found = area.Area(self.data)
        for chunk in found.chunks:
            (reference,) = found.references(chunk)
            self.assertEqual((reference.chunk, reference.device), (chunk, found.devices[0]))

    def test_show_the_gaps(self) -> None:
        gaps = area.Area(self.data).gaps
        first, last = self.physical_start, self.physical_start + self.size
        self.assertEqual(
            [(gap.physical, gap.size) for gap in gaps],
            [(first + 12288, 4096), (first + 20480, last - first - 20480)],
        )
        self.assertEqual(gaps[0].after, self.elements["second"])

    def test_are_read_from_files(self) -> None:
        self.assertTrue(area.read(AREA).complete)
        with self.assertRaises(OSError):
            area.read("/nowhere")
        status, text = report_of(AREA)
        self.assertEqual(status, 0)
        self.assertIn("'second' by 'maker of second': 8192 bytes at", text)
        self.assertIn("device 0000:03:00.1 online", text)
        self.assertEqual(report_of("/nowhere")[0], 3)

    def test_are_read_from_compressed_files(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            path = f"{folder}/area.gz"
            packed = gzip.compress(self.data)

            def written(data: bytes) -> str:
                with open(path, "wb") as file:
                    file.write(data)
                return path

            found = area.read(written(packed))
            self.assertTrue(found.complete)
            self.assertEqual(found.chunks, area.Area(self.data).chunks)
            self.assertEqual(report_of(path)[0], 0)
            # Of one that was cut short, what there is.
            self.assertFalse(area.read(written(packed[: len(packed) // 2])).complete)
            self.assertEqual(report_of(path)[0], 1)
            with self.assertRaises(OSError):
                area.read(written(packed[:10] + bytes(100)))

    def test_are_read_without_the_library(self) -> None:
        printed = subprocess.run(
            [sys.executable, "-m", "tarvo.area", AREA],
            env={"PYTHONPATH": ":".join(sys.path), "PYTHONDONTWRITEBYTECODE": "1"},
            capture_output=True, text=True, check=True,
        )  # fmt: skip
        self.assertIn("'second'", printed.stdout)


class DamagedAreas(AreaCase):
    def test_that_are_cut_short_show_what_is_there(self) -> None:
        self.data = self.data[: CHUNKS + 100 * CHUNK_BYTES]
        found = area.Area(self.data)
        self.assertFalse(found.complete)
        self.assertIn("first", [chunk.name for chunk in found.unlisted])

    def test_of_no_bytes_at_all_hold_nothing(self) -> None:
        found = area.Area(b"")
        self.assertEqual((found.chunks, found.complete, found.initialized), ((), False, False))

    def test_with_a_link_to_nowhere_lose_what_comes_after(self) -> None:
        self.put("first", NEXT, "<i", 99999)
        found = area.Area(self.data)
        self.assertFalse(found.complete)
        lost = {chunk.name for chunk in found.unlisted}
        self.assertEqual(lost, {"second", "third", "__TAIL"})

    def test_with_a_circle_end(self) -> None:
        self.put("second", NEXT, "<i", self.elements["first"])
        found = area.Area(self.data)
        self.assertFalse(found.complete)
        self.assertEqual([chunk.name for chunk in found.chunks], ["first"])

    def test_a_chunk_within_another_leaves_no_gap(self) -> None:
        # As the driver of a CMA region may place it.
        start = self.physical_start
        self.put("first", SIZE, "<I", 0x8000)
        self.put("second", PA, "<Q", start + 0x1000)
        self.put("second", SIZE, "<I", 0x1000)
        self.put("third", PA, "<Q", start + 0x9000)
        gaps = area.Area(self.data).gaps
        self.assertEqual((gaps[0].physical, gaps[0].size), (start + 0x8000, 0x1000))

    def test_with_a_flag_of_another_value_are_read_as_the_library_does(self) -> None:
        self.data[0] = 2
        self.put("second", ALLOCATED, "<B", 2)
        found = area.Area(self.data)
        self.assertTrue(found.initialized)
        self.assertEqual(
            {chunk.name: chunk.allocated for chunk in found.chunks},
            {"first": 1, "second": 2, "third": 1},
        )
        self.data[0] = 0
        self.assertFalse(area.Area(self.data).initialized)

    def test_with_a_device_number_of_more_bits_show_it(self) -> None:
        element = area.Area(self.data).devices[0].element
        at = DEVICES + element * DEVICE_BYTES + 20  # devfn, of which a text has 8 bits
        struct.pack_into("<i", self.data, at, self.device.devfn + 256)
        (device,) = area.Area(self.data).devices
        self.assertEqual((str(device), device.devfn), ("0000:03:00.1", self.device.devfn + 256))

    def test_with_a_name_without_end_show_all_of_it(self) -> None:
        start = CHUNKS + self.elements["third"] * CHUNK_BYTES + NAME
        self.data[start : start + 50] = b"n" * 50
        self.assertEqual(area.Area(self.data).chunks[2].name, "n" * 50)

    def test_with_a_reference_to_no_device_show_that(self) -> None:
        self.put("first", 172 + 12, "<i", 9)
        found = area.Area(self.data)
        self.assertIsNone(found.references(found.chunks[0])[0].device)

    def test_with_an_element_in_use_that_is_not_listed_show_it(self) -> None:
        free = struct.unpack_from("<i", self.data, CHUNKS_HEAD + 8)[0]
        at = CHUNKS + free * CHUNK_BYTES
        following = struct.unpack_from("<i", self.data, at)[0]
        struct.pack_into("<i", self.data, CHUNKS_HEAD + 8, following)
        struct.pack_into("<iiB5s", self.data, at, 0, 0, 1, b"lost\0")
        found = area.Area(self.data)
        self.assertEqual([chunk.name for chunk in found.unlisted], ["lost"])

    def test_with_random_bytes_anywhere_are_read_to_the_end(self) -> None:
        for seed in range(15):
            dice = random.Random(seed)
            damaged = bytearray(self.data)
            for _ in range(40):
                # Mostly where the records are that are in use.
                at = dice.choice(
                    [
                        dice.randrange(CHUNKS + 8 * CHUNK_BYTES),
                        dice.randrange(CHUNKS_HEAD, DEVICES + 4 * DEVICE_BYTES),
                        dice.randrange(DEVICES, area.AREA_BYTES),
                    ]
                )
                damaged[at : at + 4] = dice.randbytes(4)[: area.AREA_BYTES - at]
            with self.subTest(seed=seed):
                found = area.Area(damaged)
                for chunk in found.chunks:
                    found.references(chunk)

    def test_that_are_nothing_but_random_bytes_are_read_in_bounded_time(self) -> None:
        started = time.monotonic()
        self.assertFalse(area.Area(random.Random(1).randbytes(area.AREA_BYTES)).complete)
        self.assertLess(time.monotonic() - started, 60)


if __name__ == "__main__":
    unittest.main()
