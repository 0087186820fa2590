# SPDX-License-Identifier: MIT
"""Chunks, which look at a listing before they are mapped or freed; and the listing itself."""

from __future__ import annotations

import ctypes
import mmap
import re
from dataclasses import dataclass, field
from types import TracebackType
from typing import Callable, Generator, Iterator, Optional, Type

from ._checks import c_name, decoded, encoded, number
from ._library import calls, library
from .device import Device
from .errors import BadArgument, Changed, Damaged, ListingOpen, NotFound, NotLocked, Refused
from .mapping import Mapping
from .region import DmaAddress, Limits, PhysicalAddress, get_limits

__all__ = ["Chunk", "Listing"]


_NAME_COLUMNS = 60
# Name and creator can hold anything, and so can what a damaged record puts there: columns count.
_CHUNK_LINE = re.compile(
    rb" *(\d+) (.{%d}) (.{110}) 0x([0-9a-f]{12,16}) +(-?\d+)" % _NAME_COLUMNS, re.DOTALL
)
_DEVICE_LINE = re.compile(rb"(.*): (online|offline)", re.DOTALL)


@dataclass(frozen=True)
class Chunk:
    """A chunk as it was when it was allocated or listed.

    It is a value, not an owner: the chunk can be freed by any process meanwhile. Its calls look at
    it again, under the lock, so that memory and DMA address always belong together. Only where a C
    program made a name that ends in blanks beside the same name without them can the two be taken
    for each other: avoid such names.
    """

    name: str
    #: Where devices see its first byte.
    dma: DmaAddress
    #: Bytes, whole pages.
    size: int
    #: Who allocated it; this and what follows are None where no listing said so. Not compared.
    creator: Optional[str] = field(default=None, compare=False)
    physical: Optional[PhysicalAddress] = field(default=None, compare=False)
    #: The number of its record.
    element: Optional[int] = field(default=None, compare=False)

    def map(self, offset: int = 0, size: Optional[int] = None, writable: bool = True) -> Mapping:
        """Maps the chunk, or a window of it, if its name still means this chunk.

        offset is a multiple of the page size; without a size the window reaches to the chunk's
        end. Raises BadArgument for a window that does not lie in the chunk, NotFound, Changed,
        Refused, Damaged, NotStarted, NotLocked, ListingOpen. Takes the lock.
        """
        first = number("offset", offset, 64)
        window = self.size - first if size is None else number("size", size, 64)
        if window <= 0 or first + window > self.size:
            raise BadArgument(
                f"{window} bytes from {first} on are not in {self.name!r}, which has {self.size}"
            )
        if first % mmap.PAGESIZE != 0:
            raise BadArgument(f"offset {first} is not a multiple of {mmap.PAGESIZE}")
        name = c_name(self.name)
        with Listing() as now:
            _check_unchanged(now, self)
            # The lock is held since the look at the chunk: this is that very chunk.
            address = library().tarvo_map(name, writable, first, window)
        if address is None:
            raise Refused(
                f"the system refuses to map {window} bytes of {self.name!r}; "
                "ZUL_TRACE=tarvo=5 in the environment shows why"
            )
        return Mapping(address, window, writable, DmaAddress((self.dma + first) % (1 << 32)))

    def free(self) -> None:
        """Frees the chunk, for all processes, if its name still means this one.

        Its memory is not touched and stays visible through mappings that exist. Raises NotFound,
        Changed; Refused by a device, with the chunk still listed but mapped for none, or by the
        driver of a CMA region; Damaged, NotStarted, NotLocked, ListingOpen. Takes the lock.
        """
        name = c_name(self.name)
        with Listing() as now:
            _check_unchanged(now, self)
            free_under_lock(name, self.name)


class Listing:
    """One consistent picture of the region, to be used in a with statement.

    *** THE LOCK OF ALL PROCESSES IS HELD FROM ENTERING TO CLOSING. *** Every process that wants
    anything of the library waits meanwhile: copy what you need, leave, then print; chunks() and
    devices() of this module do that. No other call may be made meanwhile: this thread's raise
    ListingOpen, those of other threads wait. Close it in the thread that opened it.
    """

    def __init__(self) -> None:
        self._lock: Optional[Generator[Limits, None, None]] = None
        self._region: Optional[Limits] = None

    def __enter__(self) -> Listing:
        """Takes the lock, waiting without limit. Raises NotStarted, NotLocked, ListingOpen."""
        lock = _lock_held()
        try:
            self._region = next(lock)
            self._lock = lock
        except BaseException:
            lock.close()
            raise
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]] = None,
        error: Optional[BaseException] = None,
        trace: Optional[TracebackType] = None,
    ) -> None:
        """Releases the lock."""
        # A signal's handler that raises before this line leaves it to the end of this object.
        assert self._lock is not None  # since the listing was entered
        self._lock.close()

    def _is_open(self) -> bool:
        return self._lock is not None and self._lock.gi_frame is not None

    def chunks(self) -> Iterator[Chunk]:
        """The chunks in ascending address; Damaged at a record that makes no sense.

        Single pass: a second iterator goes on where the first stopped. Empty once it is closed.
        """
        return map(self._chunk_of, self._lines(library().tarvo_dump_next))

    def devices(self) -> Iterator[Device]:
        """The registered devices in order of registration; as chunks()."""
        return map(_device_of, self._lines(library().tarvo_dump_next_iommu_device))

    def _lines(self, call: Callable[[object, int], bool]) -> Iterator[bytes]:
        """Lines of the library; one that does not fit leaves its beginning behind."""
        room = ctypes.create_string_buffer(512)
        while self._is_open():
            room[0] = b"\0"
            if not call(room, len(room)):
                if room.value:
                    raise Damaged(f"a line of more than {len(room) - 1} bytes: {room.value!r}")
                return
            yield room.value

    def _chunk_of(self, line: bytes) -> Chunk:
        found = _CHUNK_LINE.fullmatch(line)
        if found is None:
            raise Damaged(f"no chunk's line: {line!r}")
        element, name, creator, pa_text, size_text = found.groups()
        shown_name = decoded(name.rstrip(b" "))
        pa = int(pa_text, 16)
        size = int(size_text) % (1 << 32)  # shown signed
        region = self._region
        assert region is not None  # since the listing was entered
        if not (region.holds_physical(pa) and region.holds_physical(pa + size)):
            raise Damaged(
                f"chunk {int(element)}, {shown_name!r}, has {size:#x} bytes from {pa:#x} on: "
                "outside the region"
            )
        return Chunk(
            shown_name,
            DmaAddress(library().tarvo_pa_to_dma(pa)),
            size,
            decoded(creator.rstrip(b" ")),
            PhysicalAddress(pa),
            int(element),
        )


_listing_is_open = False  # read and written by who holds `calls`


def _lock_held() -> Generator[Limits, None, None]:
    """Takes the lock of all processes, and gives it back when it is closed or forgotten.

    A signal's handler can raise behind every call. A generator ends by its own `finally` whatever
    happens to those who use it; an object that keeps the lock would need a notice.
    """
    global _listing_is_open
    with calls:
        refuse_under_listing()
        region = get_limits()
        begin, end = library().tarvo_dump_begin, library().tarvo_dump_end
        try:
            if not begin():
                raise NotLocked(
                    "the lock cannot be taken; standard error says why, and a signal's handler is "
                    "reason enough"
                )
            _listing_is_open = True
            yield region
        finally:
            try:
                end()  # harmless without the lock
            finally:
                _listing_is_open = False


def refuse_under_listing() -> None:
    """Raises ListingOpen where this thread may not call the library."""
    if _listing_is_open:
        raise ListingOpen(
            "a Listing is open in this program and holds the lock; leave its with statement first"
        )


def _device_of(line: bytes) -> Device:
    found = _DEVICE_LINE.fullmatch(line)
    if found is None:
        raise Damaged(f"no device's line: {line!r}")
    try:
        address = Device.parse(found[1].decode("ascii", "replace"))
    except BadArgument as reason:
        raise Damaged(f"no device's line: {line!r}") from reason
    return Device(
        address.domain, address.bus, address.slot, address.function, found[2] == b"online"
    )


def lowest_named(now: Listing, name: str) -> Chunk:
    """The chunk that every call by that name means. Others are passed over without being read: the
    lock is held, and a region can have thousands."""
    column = b" %-*b " % (_NAME_COLUMNS, encoded(name))
    for line in now._lines(library().tarvo_dump_next):
        if column in line:
            chunk = now._chunk_of(line)
            if chunk.name == name:
                return chunk
    raise NotFound(f"no chunk is called {name!r}; tarvo.chunks() shows what there is")


def _check_unchanged(now: Listing, known: Chunk) -> None:
    found = lowest_named(now, known.name)
    if found != known:
        raise Changed(
            f"{known.name!r} was the chunk of {known.size} bytes at DMA address {known.dma:#x} and "
            f"is another one by now, of {found.size} bytes at {found.dma:#x}; look it up again"
        )


def free_under_lock(code: bytes, name: str) -> None:
    """With a listing open, so that between the look at the chunks and the call nobody comes in: a
    call that finds the lock held by its own process keeps it until it is done."""
    if library().tarvo_free(code) != 0:
        raise Refused(f"a kernel driver refuses to give up {name!r}; standard error says which")
