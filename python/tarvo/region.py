# SPDX-License-Identifier: MIT
"""The region: where it lies, and the translation of addresses."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import NewType

from ._checks import number
from ._library import calls, library
from .errors import BadArgument, NotStarted

__all__ = [
    "DmaAddress",
    "Limits",
    "PhysicalAddress",
    "dma_to_pa",
    "get_limits",
    "get_overhead",
    "pa_to_dma",
]

#: Where a device sees memory.
DmaAddress = NewType("DmaAddress", int)

#: Where memory lies for the processor. Not a pointer: map the chunk.
PhysicalAddress = NewType("PhysicalAddress", int)


@dataclass(frozen=True)
class Limits:
    """Where the region lies. Its end counts as in it, as it does for the library."""

    start: DmaAddress
    physical_start: PhysicalAddress
    size: int

    def holds_dma(self, dma: int) -> bool:
        """Whether a device finds the region there."""
        return 0 <= dma - self.start <= self.size

    def holds_physical(self, pa: int) -> bool:
        """Whether the processor finds the region there."""
        return 0 <= pa - self.physical_start <= self.size


def get_limits() -> Limits:
    """Starts the library if need be, and tells where the region lies.

    Raises NotStarted when it cannot start; the next call tries again. Takes the lock to start,
    otherwise none.
    """
    start, end = ctypes.c_uint32(), ctypes.c_uint32()
    with calls:
        if library().tarvo_get_limits(ctypes.byref(start), ctypes.byref(end)) != 0:
            raise NotStarted(
                "the library cannot start; the lines on standard error say what it looked for. "
                "Set SIMULATION_VMID to try without a device's memory"
            )
        physical_start = library().tarvo_dma_to_pa(start.value)
    # The end wraps with the addresses; the size does not, because it is below 4 GiB.
    size = (end.value - start.value) % (1 << 32)
    return Limits(DmaAddress(start.value), PhysicalAddress(physical_start), size)


def get_overhead() -> int:
    """Bytes that the shared bookkeeping takes. Starts nothing and takes no lock."""
    return int(library().tarvo_get_overhead())


def dma_to_pa(dma: int) -> PhysicalAddress:
    """The physical address of a DMA address; BadArgument outside the region. Takes no lock."""
    exact = number("DMA address", dma, 32)
    with calls:
        region = get_limits()
        if not region.holds_dma(exact):
            raise BadArgument(
                f"DMA address {exact:#x} is not in the region, which has {region.size:#x} bytes "
                f"from {region.start:#x} on"
            )
        return PhysicalAddress(library().tarvo_dma_to_pa(exact))


def pa_to_dma(pa: int) -> DmaAddress:
    """The DMA address of a physical address; BadArgument outside the region. Takes no lock."""
    exact = number("physical address", pa, 64)
    with calls:
        region = get_limits()
        if not region.holds_physical(exact):
            raise BadArgument(
                f"physical address {exact:#x} is not in the region, which has {region.size:#x} "
                f"bytes from {region.physical_start:#x} on"
            )
        return DmaAddress(library().tarvo_pa_to_dma(exact))
