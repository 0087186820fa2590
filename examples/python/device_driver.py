# SPDX-License-Identifier: MIT
"""What the driver of a PCI device does: registers it, so that it sees every chunk, gives it two
rings by their DMA addresses, and takes all of it away: usage: device_driver.py [0000:03:00.0]"""

import contextlib
import sys

import tarvo


def hand_over(ring: tarvo.Chunk, memory: tarvo.Mapping) -> None:
    """Fills a ring, as a driver does before it tells the device the address that is printed here."""
    memory.view[:] = b"\xa5" * len(memory)
    print(
        f"{ring.name}: {len(memory)} bytes at DMA address {memory.dma:#010x}, "
        f"physical address {tarvo.dma_to_pa(memory.dma):#x}"
    )


def main() -> None:
    device = tarvo.Device.parse(sys.argv[1] if len(sys.argv) > 1 else "0000:03:00.0")
    # Chunks and registrations outlive the process; the stack takes them away whatever happens.
    with contextlib.ExitStack() as stack:
        stack.enter_context(tarvo.registered(device))
        for known in tarvo.devices():
            print(f"{known} is {'online' if known.online else 'offline'}")
        for name, size in (("tx_ring", 64 << 10), ("rx_ring", 1 << 20)):
            ring = stack.enter_context(tarvo.allocated(name, size, "device_driver.py"))
            hand_over(ring, stack.enter_context(ring.map()))
    print(f"{device} is unregistered")


main()
