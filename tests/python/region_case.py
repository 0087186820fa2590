"""What the tests in a sandbox have in common. All tests of a run share one region."""

import os
import re
import unittest
from pathlib import Path
from typing import Any

import tarvo

TABLE = Path(__file__).parents[1] / "support" / "world.hpp"
#: Where the region lies in each world: physical start, bytes, DMA start.
WORLDS = {
    name: tuple(int(number, 16) for number in numbers)
    for name, *numbers in re.findall(
        r'^inline constexpr world \w+{"(\w+)", (\w+), (\w+), (\w+),', TABLE.read_text(), re.M
    )
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
