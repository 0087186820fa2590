"""Where the library cannot start: every call says so."""

import re
import unittest

import tarvo

DEVICE = tarvo.Device.parse("0000:03:00.0")
CHUNK = tarvo.Chunk("ring", tarvo.DmaAddress(0x1000), 4096)


class WithoutARegion(unittest.TestCase):
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
