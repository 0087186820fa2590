# SPDX-License-Identifier: MIT
"""Reads the ring of ring_producer to its end, whichever of the two is started first."""

import contextlib
import sys
from typing import List

import tarvo
from ring import CLOSED, DRAINED, OPEN, RING_NAME, Ring, wait_until


def find_ring() -> tarvo.Chunk:
    """The producer may not have made it yet. Each look takes the lock of all processes: not too
    often."""
    found: List[tarvo.Chunk] = []

    def there() -> bool:
        with contextlib.suppress(tarvo.NotFound):
            found.append(tarvo.find_chunk(RING_NAME))
        return bool(found)

    wait_until(there, pause=0.02)
    return found[0]


def receive(ring: Ring) -> int:
    """How many messages came, up to the first one out of order."""
    number = 0

    def at_end() -> bool:
        # Closed before the counter is looked at: what was written last is not missed.
        return ring.state.seen() == CLOSED and ring.written.seen() == number

    while True:
        wait_until(lambda: ring.written.seen() != number or at_end())
        if at_end():
            return number
        text = bytes(ring.slot(number)).split(b"\0", 1)[0]
        if text != f"message {number}".encode():
            return number
        number += 1
        ring.read.publish(number)


def main() -> int:
    with find_ring().map() as memory, Ring(memory.view) as ring:
        wait_until(lambda: ring.state.seen() in (OPEN, CLOSED))
        count = receive(ring)
        complete = count == ring.written.seen()
        ring.state.publish(DRAINED)
    print(f"received {count} messages, {'all in order' if complete else 'and then not'}")
    return 0 if complete else 1


sys.exit(main())
