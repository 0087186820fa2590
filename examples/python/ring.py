# SPDX-License-Identifier: MIT
"""The ring of examples/ring.hpp, byte for byte: either side can be in either language."""

import threading
import time
from typing import Callable

RING_NAME = "example_ring"
SLOT_COUNT = 64
SLOT_BYTES = 64
RING_BYTES = 3 * 64 + SLOT_COUNT * SLOT_BYTES

# What the two sides tell each other besides messages. A new chunk is zero, but can be found before
# that: the other values are such that old memory hardly holds them by chance.
UNUSED = 0
OPEN = 0x676E6972  # by the producer: the ring can be read
CLOSED = 0x736E6972  # by the producer: nothing more will be written
DRAINED = 0x646E6972  # by the consumer: everything was read, nothing is touched any more

_fence_lock = threading.Lock()
_fence_lock.acquire()


def _fence() -> None:
    """Memory is read and written on either side of this, and not moved across.

    Python has no atomics. On x86 nothing is moved that matters here; elsewhere giving a lock back
    and taking it again keeps the order.
    """
    _fence_lock.release()
    _fence_lock.acquire()


class SharedNumber:
    """A 32-bit field that both processes use; an aligned one is read and written in one piece."""

    def __init__(self, memory: memoryview, offset: int) -> None:
        self._field = memory[offset : offset + 4].cast("I")

    def seen(self) -> int:
        """What the other side wrote before it published this can be read from here on."""
        value = self._field[0]
        _fence()
        return value

    def publish(self, value: int) -> None:
        """Whoever sees this number also sees all that was written before."""
        _fence()
        self._field[0] = value


class Ring:
    """The ring in a mapping of its chunk. Its counters count messages, modulo 2^32.

    To be used in a with statement, at whose end it lets go of the mapping's memory.
    """

    def __init__(self, memory: memoryview) -> None:
        self.state = SharedNumber(memory, 0)
        self.written = SharedNumber(memory, 64)
        self.read = SharedNumber(memory, 128)
        self._slots = memory[192:RING_BYTES]

    def slot(self, number: int) -> memoryview:
        """The slot of the message with that number."""
        start = number % SLOT_COUNT * SLOT_BYTES
        return self._slots[start : start + SLOT_BYTES]

    def __enter__(self) -> "Ring":
        return self

    def __exit__(self, *error: object) -> None:
        del self.state, self.written, self.read, self._slots


def wait_until(condition: Callable[[], bool], pause: float = 0.0002) -> None:
    """Asks again and again: a write to device memory does not wake a process."""
    last_moment = time.monotonic() + 30
    while not condition():
        if time.monotonic() > last_moment:
            raise SystemExit("the other side of the ring does not answer")
        time.sleep(pause)
