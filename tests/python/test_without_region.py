"""What goes without a region, and that every call says so that does not."""

import ctypes
import re
import unittest

import tarvo

DEVICE = tarvo.Device.parse("0000:03:00.0")
CHUNK = tarvo.Chunk("ring", tarvo.DmaAddress(0x1000), 4096)


def chunk_record(pa: int, size: int) -> ctypes.Array:
    record = ctypes.create_string_buffer(4280)
    record[60:72] = pa.to_bytes(8, "little") + size.to_bytes(4, "little")
    return record


class WithoutARegion(unittest.TestCase):
    def test_inner_steps_are_found_by_their_plain_names(self) -> None:
        free_size = ctypes.CDLL("libtarvo.so.0").free_size
        free_size.restype = ctypes.c_uint64
        gap = free_size(chunk_record(0x200000000, 0x1000), chunk_record(0x200005000, 0))
        self.assertEqual(gap, 0x4000)

    def test_every_call_says_so(self) -> None:
        for call in (
            tarvo.get_limits,
            tarvo.chunks,
            tarvo.devices,
            tarvo.WholeRegion,
            CHUNK.map,
            CHUNK.free,
            lambda: tarvo.dma_to_pa(1),
            lambda: tarvo.pa_to_dma(1),
            lambda: tarvo.allocate("ring", 4096, "test"),
            lambda: tarvo.find_chunk("ring"),
            lambda: tarvo.find_address(1),
            lambda: tarvo.free_chunk("ring"),
            lambda: tarvo.register_device(DEVICE),
            lambda: tarvo.unregister_device(DEVICE),
            lambda: tarvo.iommu_map(DEVICE, tarvo.Access.READ),
            lambda: tarvo.iommu_unmap(DEVICE),
        ):
            with self.assertRaisesRegex(tarvo.NotStarted, re.escape("cannot start")):
                call()


if __name__ == "__main__":
    unittest.main()
