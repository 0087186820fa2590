# SPDX-License-Identifier: MIT
"""Memory of the region in this process, as memoryviews."""

from __future__ import annotations

import ctypes
import weakref
from types import TracebackType
from typing import Callable, Optional, Type, TypeVar

from ._library import c_library, calls, library
from .errors import MappingInUse, Refused
from .region import DmaAddress, Limits, get_limits

__all__ = ["Mapping", "WholeRegion"]

_Self = TypeVar("_Self", bound="_Memory")


class _Memory:
    """Bytes at an address, given back when nobody looks at them any more.

    Whoever looks, a slice or a NumPy array, keeps the ctypes array alive that all views are made
    of. The memory goes with that array and never before, so that no view can outlive it.
    """

    def __init__(self, address: int, size: int, writable: bool, end: Callable[[], None]) -> None:
        self.size = size
        self._writable = writable
        array = (ctypes.c_ubyte * size).from_address(address)
        # Not at the end of the program: views may live longer, and the process's end unmaps.
        weakref.finalize(array, end).atexit = False
        self._array: Optional[ctypes.Array[ctypes.c_ubyte]] = array
        self._view = self._whole()

    def _whole(self) -> memoryview:
        view = memoryview(self._array).cast("B")  # type: ignore[arg-type]
        return view if self._writable else view.toreadonly()

    @property
    def closed(self) -> bool:
        """Whether close() has given the memory back."""
        return self._array is None

    @property
    def view(self) -> memoryview:
        """The bytes. numpy.frombuffer(mapping.view, dtype=...) wraps them without a copy.

        ValueError after close(), as of any released memoryview.
        """
        if self.closed:
            raise ValueError("the mapping is closed")
        return self._view

    def __len__(self) -> int:
        return self.size

    def close(self) -> None:
        """Gives the memory back; `view` is released. A second time does nothing.

        Raises MappingInUse when slices of the view, or arrays made of it, still exist: they go on
        working, `view` is a new one, and close() can be tried again. What is never closed is given
        back when the last view of it goes.
        """
        if self._array is None:
            return
        in_use = (
            f"{type(self).__name__} of {self.size} bytes is in use by a slice, a cast or an array "
            "made of its view; delete those (del) before it is closed"
        )
        try:
            self._view.release()
        except BufferError as reason:
            raise MappingInUse(in_use) from reason
        alive = weakref.ref(self._array)
        self._array = None
        self._array = alive()
        if self._array is not None:
            self._view = self._whole()
            raise MappingInUse(in_use)

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        """Closes it. An error on its way out is not replaced by MappingInUse."""
        try:
            self.close()
        except MappingInUse:
            if error is None:
                raise


class Mapping(_Memory):
    """A chunk, or a window of it, in this process: what Chunk.map() returns.

    It belongs to this process alone and outlives the chunk: when somebody frees that, the mapping
    goes on showing the memory, which may by then be another chunk's. It ends by munmap(2), not by
    tarvo_unmap(), which does the same but first looks for the chunk and ends the process when it
    is gone; so closing takes no lock.
    """

    def __init__(self, address: int, size: int, writable: bool, dma: DmaAddress) -> None:
        def end() -> None:
            c_library().munmap(address, size)

        super().__init__(address, size, writable, end)
        #: Where devices see the first byte.
        self.dma = dma


class WholeRegion(_Memory):
    """The whole region in this process, readable and writable.

    Any number of objects share one mapping. Chunks of others lie in it: write only where you may.
    Raises NotStarted, or Refused when the system does not map it. The library counts a failed
    attempt and ends a process that makes a second one: after a failure it is not asked again.
    Takes no lock.
    """

    _refused_before = False

    def __init__(self) -> None:
        with calls:
            #: Where the first byte lies.
            self.where: Limits = get_limits()
            address = None if WholeRegion._refused_before else library().tarvo_map_all()
            if address is None:
                WholeRegion._refused_before = True
                raise Refused(
                    f"the system refuses to map the region of {self.where.size:#x} bytes; it is "
                    "not asked again in this process. Map single chunks"
                )

        def end() -> None:
            with calls:
                library().tarvo_unmap_all()

        super().__init__(address, self.where.size, True, end)
