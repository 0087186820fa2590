"""What the tests in a sandbox have in common. All tests of a run share one region."""

import os
import re
import unittest
from typing import Any

import tarvo

#: Where the region lies in each world: physical start, bytes, DMA start.
WORLDS = {
    "simulation": (0x1000, 0x2A800000, 0x1000),
    "low": (0x80000000, 0x10000000, 0x80000000),
    "high": (0x200000000, 0x40000000, 0x20000000),
    "cma": (0x100000000, 0x40000000, 0x20000000),
}
WORLD = os.environ.get("TARVO_TEST_WORLD", "simulation")

AREA = "/var/tmp/tarvo_lib" if WORLD == "simulation" else "/var/shmem/tarvo_lib"
LOCK = "/var/tmp/tarvo_lock" if WORLD == "simulation" else "/var/lock/subsys/tarvo_lock"


class RegionCase(unittest.TestCase):
    """Leaves the region as empty as it was."""

    def setUp(self) -> None:
        self.physical_start, self.size, self.start = WORLDS[WORLD]

    def tearDown(self) -> None:
        for chunk in tarvo.chunks():
            chunk.free()
        for device in tarvo.devices():
            tarvo.unregister_device(device)

    def refused(self, kind: type, reported: str) -> Any:
        """That a call raises this very exception, and what its message has to name."""
        return self.assertRaisesRegex(kind, re.escape(reported))
