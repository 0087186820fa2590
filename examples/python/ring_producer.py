# SPDX-License-Identifier: MIT
"""Makes a ring in a shared chunk, sends messages through it, and takes it away again when all have
been read: usage: ring_producer.py [MESSAGES]"""

import sys

import tarvo
from ring import CLOSED, DRAINED, OPEN, RING_BYTES, RING_NAME, SLOT_COUNT, UNUSED, Ring, wait_until


def send(ring: Ring, count: int) -> None:
    for number in range(count):
        wait_until(lambda: number - ring.read.seen() < SLOT_COUNT)
        text = f"message {number}".encode() + b"\0"
        ring.slot(number)[: len(text)] = text
        ring.written.publish(number + 1)


def use(ring: Ring, count: int) -> None:
    if ring.state.seen() != UNUSED:
        raise SystemExit(f"the ring is another run's; free {RING_NAME} if that is gone")
    ring.state.publish(OPEN)
    send(ring, count)
    ring.state.publish(CLOSED)
    wait_until(lambda: ring.state.seen() == DRAINED)
    # A chunk can be found before it is zeroed: leave nothing that looks like an open ring.
    ring.state.publish(UNUSED)


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    chunk = tarvo.allocate(RING_NAME, RING_BYTES, "ring_producer.py")
    with chunk.map() as memory, Ring(memory.view) as ring:
        use(ring, count)
    chunk.free()
    print(f"sent {count} messages")


main()
