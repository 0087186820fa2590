# SPDX-License-Identifier: MIT
"""Chunks: allocate or share one, find and free it; and lists of all there is."""

from __future__ import annotations

import contextlib
from typing import Iterator, List

from ._checks import c_creator, c_name, chunk_size
from ._library import library
from .device import Device
from .errors import Changed, NoRoom, NotFound, SizeMismatch
from .listing import Chunk, Listing, free_under_lock, lowest_named
from .region import DmaAddress, dma_to_pa

__all__ = [
    "allocate",
    "allocated",
    "chunks",
    "devices",
    "find_address",
    "find_chunk",
    "free_chunk",
]


def allocate(name: str, size: int, creator: str) -> Chunk:
    """Gets the chunk called name: the one that exists with that size, or a new one that is zero.

    name has 1 to 49 bytes, the last one not a blank; size 1 byte to 2 GiB, rounded up to whole
    pages; creator says who allocates, for people. Raises BadArgument; SizeMismatch when the name
    is another chunk's (the C call makes a second chunk of that name, which no name leads to);
    NoRoom, also when the lock is lost or a record lies outside the region; Damaged, NotStarted,
    NotLocked, ListingOpen.

    Takes the lock. Ends the process when a device or the memory's driver refuses the new chunk, as
    tarvo_alloc_func() does. Others can find the chunk before it is zeroed.
    """
    code, who, rounded = c_name(name), c_creator(creator), chunk_size(size)
    with Listing() as now:
        with contextlib.suppress(NotFound):
            found = lowest_named(now, name)
            if found.size != rounded:
                raise SizeMismatch(
                    f"{name!r} exists with {found.size} bytes, not {rounded}; ask for its size or "
                    "choose a name"
                )
        dma = library().tarvo_alloc_func(code, rounded, who)
    if dma == 0:
        raise NoRoom(
            f"no room for {name!r}, {rounded} bytes: no gap is that large, or no record is left, "
            "or standard error says why"
        )
    return Chunk(name, DmaAddress(dma), rounded)


@contextlib.contextmanager
def allocated(name: str, size: int, creator: str) -> Iterator[Chunk]:
    """allocate() for a with statement, at whose end the chunk is freed.

    Not freed, and no error, when it is gone by then or its name means another one.
    """
    chunk = allocate(name, size, creator)
    try:
        yield chunk
    finally:
        with contextlib.suppress(NotFound, Changed):
            chunk.free()


def find_chunk(name: str) -> Chunk:
    """The chunk that calls by that name mean: the lowest one.

    Raises BadArgument, NotFound, Damaged, NotStarted, NotLocked, ListingOpen. A chunk whose name
    ends in blanks (made by a C call) is taken for one without them. Takes the lock.
    """
    c_name(name)
    with Listing() as now:
        return lowest_named(now, name)


def find_address(dma: int) -> Chunk:
    """The chunk that the byte at a DMA address lies in.

    Looks at the records under the lock: the text that tarvo_find() returns can change while it is
    read. Raises BadArgument outside the region, and as find_chunk().
    """
    pa = dma_to_pa(dma)
    with Listing() as now:
        for chunk in now.chunks():
            assert chunk.physical is not None
            if chunk.physical <= pa < chunk.physical + chunk.size:
                return chunk
    raise NotFound(f"no chunk holds DMA address {dma:#x}")


def free_chunk(name: str) -> None:
    """Frees the lowest chunk of that name, whatever its size.

    Raises as Chunk.free(), and BadArgument; never Changed. Takes the lock.
    """
    code = c_name(name)
    with Listing() as now:
        lowest_named(now, name)
        free_under_lock(code, name)


def chunks() -> List[Chunk]:
    """All chunks in ascending address, copied under the lock. Raises as find_chunk()."""
    with Listing() as now:
        return list(now.chunks())


def devices() -> List[Device]:
    """All registered devices, copied under the lock. Raises as find_chunk()."""
    with Listing() as now:
        return list(now.devices())
