# SPDX-License-Identifier: MIT
"""Reads a copy of the shared area after the fact, without the library and without the lock.

    from tarvo import area
    with open("/var/shmem/tarvo_lib", "rb") as file:
        found = area.Area(file.read())

or `area.read(FILE)`, which also reads what gzip has compressed, as tarvoctl snapshot makes it, or
`python3 -m tarvo.area FILE`. Any bytes will do: every walk is bounded, what makes no sense
becomes a Finding and nothing is raised for it. A copy of a live area that was made without the lock
can be half changed, and then has findings that the area has not.
"""

from __future__ import annotations

import argparse
import struct
import sys
import zlib
from dataclasses import dataclass
from typing import (
    BinaryIO,
    Callable,
    Dict,
    Iterable,
    Iterator,
    List,
    Optional,
    Sequence,
    Set,
    Tuple,
    Union,
)

from ._checks import MOST_DEVICES, NAME_ROOM, decoded, encoded

__all__ = [
    "AREA_BYTES",
    "Area",
    "AreaChunk",
    "AreaDevice",
    "Finding",
    "Gap",
    "Reference",
    "main",
    "read",
]

# The layout never changes; offsets and sizes in bytes, integers little-endian.
AREA_BYTES = 70130716  #: what an area has, without the zeros that fill its last page
_CHUNK_CAPACITY = 16384
_CHUNK = struct.Struct("<iiB50sxQI100s")
_CHUNK_BYTES = 4280
_CREATOR_ROOM = 100
_CHUNKS_AT = 4
_CHUNK_ENDS_AT = 70123524
_DEVICE = struct.Struct("<iiB3xiiiB3x")
_DEVICES_AT = 70123536
_DEVICE_ENDS_AT = 70130704
_REFERENCE = struct.Struct("<iiB3xi")
_REFERENCES_AT = 172  # in a chunk
_REFERENCE_ENDS_AT = 4268  # in a chunk
_ENDS = struct.Struct("<iii")
_LINKS = struct.Struct("<iiB")

_HIGH_REGION_DMA = 0x20000000
_SHOWN = 5  # elements that a finding names

_GZIP_MAGIC = b"\x1f\x8b"
_GZIP_WINDOW = 16 + zlib.MAX_WBITS  # with gzip's own head and end
_READ_BYTES = 65536


@dataclass(frozen=True)
class Finding:
    """Something in the area that makes no sense.

    `kind` is "broken", "leaked" (a record that nobody can use any more), or "tolerated" (the
    library lets it come about and works with it).
    """

    kind: str
    where: str
    text: str

    def __str__(self) -> str:
        return f"{self.kind}: {self.where}: {self.text}"


@dataclass(frozen=True)
class AreaChunk:
    """A chunk's record."""

    element: int
    name: str
    creator: str
    physical: int
    size: int
    allocated: int

    @property
    def end(self) -> int:
        """The physical address behind its last byte."""
        return self.physical + self.size


@dataclass(frozen=True)
class AreaDevice:
    """A device's record."""

    element: int
    domain: int
    bus: int
    devfn: int
    online: bool

    def __str__(self) -> str:
        slot, function = self.devfn >> 3 & 31, self.devfn & 7
        return f"{self.domain:04x}:{self.bus:02x}:{slot:02x}.{function:x}"


@dataclass(frozen=True)
class Reference:
    """Says that a chunk is mapped for a device."""

    chunk: AreaChunk
    device_element: int
    #: None when no registered device has that element: left over from one that was forgotten.
    device: Optional[AreaDevice]


@dataclass(frozen=True)
class Gap:
    """Free bytes between two neighbours."""

    physical: int
    size: int
    #: The element of the chunk before it; a sentinel's at the region's start.
    after: int


@dataclass(frozen=True)
class _List:
    """Where a list of the area lies."""

    name: str
    capacity: int
    element_bytes: int
    start: int
    ends: int

    def offset(self, element: int) -> int:
        return self.start + element * self.element_bytes


_CHUNKS = _List("chunks", _CHUNK_CAPACITY, _CHUNK_BYTES, _CHUNKS_AT, _CHUNK_ENDS_AT)
_DEVICES = _List("devices", MOST_DEVICES, _DEVICE.size, _DEVICES_AT, _DEVICE_ENDS_AT)


def _references_of(chunk: int) -> _List:
    base = _CHUNKS.offset(chunk)
    return _List(
        f"devices of chunk {chunk}",
        MOST_DEVICES,
        _REFERENCE.size,
        base + _REFERENCES_AT,
        base + _REFERENCE_ENDS_AT,
    )


def _text(field: bytes) -> str:
    return decoded(field.split(b"\0", 1)[0])


class Area:
    """What an area's bytes say. The bytes are read at once and not kept in step with a live area.

    `chunks` and `devices` are those on the lists, in their order, without the two sentinels;
    `unlisted` are chunks in use that no list leads to, as a process leaves them that dies on the
    way; `region` has the physical addresses of its first byte and of the one behind its last;
    `findings` is all that makes no sense.
    """

    def __init__(self, data: Union[bytes, bytearray, memoryview]) -> None:
        self._data = bytes(data)
        self._findings: List[Finding] = []
        if len(self._data) < AREA_BYTES:
            # The rest is taken as zero: what lies before the cut can still be told.
            self._found("area", f"{len(self._data)} bytes of {AREA_BYTES} are there")
            self._data += bytes(AREA_BYTES - len(self._data))
        self.initialized = self._data[0] != 0
        if not self.initialized:
            self._found("area", "it says it is not built yet (initialized is 0)")
        elif self._data[0] != 1:
            self._found("area", f"initialized is {self._data[0]}, neither 0 nor 1")
        self.devices: Tuple[AreaDevice, ...] = tuple(map(self._device, self._walk(_DEVICES)))
        listed = [self._chunk(element) for element in self._walk(_CHUNKS)]
        self._check_sentinels(listed)
        self.region: Optional[Tuple[int, int]] = None
        if len(listed) >= 2:
            self.region = (listed[0].physical, listed[-1].physical)
        self.chunks: Tuple[AreaChunk, ...] = tuple(listed[1:-1])
        self.gaps: Tuple[Gap, ...] = tuple(self._gaps(listed))
        self.unlisted = self._unlisted({chunk.element for chunk in listed})
        self._check_chunks()
        self._registered = {device.element: device for device in self.devices}
        self._devices_of = {chunk.element: self._read_references(chunk) for chunk in self.chunks}
        self._check_devices()
        self.findings: Tuple[Finding, ...] = tuple(self._findings)

    def references(self, chunk: AreaChunk) -> Tuple[Reference, ...]:
        """The devices that the chunk is mapped for."""
        devices = self._devices_of.get(chunk.element, [])
        return tuple(Reference(chunk, device, self._registered.get(device)) for device in devices)

    def dma(self, physical: int) -> Optional[int]:
        """The DMA address of a physical address; None outside the region."""
        if self.region is None or not self.region[0] <= physical <= self.region[1]:
            return None
        start, end = self.region
        high = (start | end) >> 32 != 0
        return (physical - start + _HIGH_REGION_DMA) % (1 << 32) if high else physical

    def _found(self, where: str, text: str, kind: str = "broken") -> None:
        self._findings.append(Finding(kind, where, text))

    def _found_many(
        self, where: str, text: str, elements: Sequence[int], kind: str = "broken"
    ) -> None:
        """One finding for all: in the worst case there are millions of elements."""
        if elements:
            first = ", ".join(map(str, elements[:_SHOWN]))
            more = f", ... ({len(elements)} in all)" if len(elements) > _SHOWN else ""
            self._found(where, f"{text}: {first}{more}", kind)

    def _links(self, which: _List, element: int) -> Tuple[int, int, int]:
        links: Tuple[int, int, int] = _LINKS.unpack_from(self._data, which.offset(element))
        return links

    def _walk(self, which: _List) -> List[int]:
        """The elements from head to tail, as far as the links lead; no element twice."""
        head, tail, _ = _ENDS.unpack_from(self._data, which.ends)
        walked: List[int] = []
        if head == -1 and tail == -1:
            return walked
        unused, odd, misplaced = [], [], []
        seen = bytearray(which.capacity)
        before, element = tail, head
        while True:
            if not 0 <= element < which.capacity:
                self._found(which.name, f"element {before} leads to {element}, which is none")
                break
            if seen[element]:
                self._found(which.name, f"element {before} leads back to {element}")
                break
            seen[element] = True
            walked.append(element)
            following, previous, allocated = self._links(which, element)
            if allocated == 0:
                unused.append(element)
            elif allocated != 1:
                odd.append(element)
            if previous != before:
                misplaced.append(element)
            if element == tail:
                break
            before, element = element, following
        self._found_many(which.name, "listed, but not in use", unused)
        self._found_many(which.name, "allocated is neither 0 nor 1", odd)
        self._found_many(which.name, "not linked back to the one before", misplaced)
        return walked

    def _chunk(self, element: int) -> AreaChunk:
        _, _, allocated, name, physical, size, creator = _CHUNK.unpack_from(
            self._data, _CHUNKS.offset(element)
        )
        return AreaChunk(element, _text(name), _text(creator), physical, size, allocated)

    def _device(self, element: int) -> AreaDevice:
        _, _, _, domain, bus, devfn, online = _DEVICE.unpack_from(
            self._data, _DEVICES.offset(element)
        )
        if online > 1:
            self._found(f"device {element}", f"online is {online}")
        unsigned = [number % (1 << 32) for number in (domain, bus, devfn)]
        return AreaDevice(element, *unsigned, online != 0)

    def _check_sentinels(self, listed: Sequence[AreaChunk]) -> None:
        if len(listed) < 2:
            self._found("chunks", f"{len(listed)} on the list, not even the two that bound it")
            return
        for chunk, name in ((listed[0], "__HEAD"), (listed[-1], "__TAIL")):
            if chunk.name != name or chunk.size != 0:
                self._found(
                    f"chunk {chunk.element}",
                    f"stands where {name} should, called {chunk.name!r} with {chunk.size} bytes",
                )

    def _gaps(self, listed: Sequence[AreaChunk]) -> Iterator[Gap]:
        furthest = listed[0] if listed else None  # a chunk can lie within one before it
        for lower, upper in zip(listed, listed[1:]):
            assert furthest is not None
            furthest = max(furthest, lower, key=lambda chunk: chunk.end)
            if furthest.end < upper.physical:
                yield Gap(furthest.end, upper.physical - furthest.end, lower.element)
            elif furthest.end > upper.physical:
                self._found(
                    f"chunk {upper.element}",
                    f"starts at {upper.physical:#x}, before the end {furthest.end:#x} of chunk "
                    f"{furthest.element}; only the driver of a CMA region may place it so",
                )

    def _unlisted(self, listed: Iterable[int]) -> Tuple[AreaChunk, ...]:
        """Elements in use that the walk did not come by."""
        known = set(listed)
        flags = self._data[_CHUNKS_AT + 8 : _CHUNK_ENDS_AT : _CHUNK_BYTES]
        lost = [i for i, flag in enumerate(flags) if flag != 0 and i not in known]
        self._found_many("chunks", "in use and not listed", lost, "leaked")
        self._check_free_chain(_CHUNKS, known.union(lost))
        return tuple(map(self._chunk, lost))

    def _check_free_chain(self, which: _List, in_use: Iterable[int]) -> None:
        """Elements that are free have to be on the free chain, and no others."""
        used = set(in_use)
        free = self._free_chain(which)
        self._found_many(which.name, "free and in use", sorted(free & used))
        leaked = set(range(which.capacity)) - free - used
        self._found_many(which.name, "neither free nor in use", sorted(leaked), "leaked")

    def _free_chain(self, which: _List) -> Set[int]:
        element: int = _ENDS.unpack_from(self._data, which.ends)[2]
        chain: Set[int] = set()
        while element != -1:
            if not 0 <= element < which.capacity or element in chain:
                self._found(which.name, f"the free chain breaks at element {element}")
                break
            chain.add(element)
            element = self._links(which, element)[0]
        return chain

    def _check_chunks(self) -> None:
        names: Dict[str, int] = {}
        for chunk in self.chunks:
            where = f"chunk {chunk.element}"
            for text, room in ((chunk.name, NAME_ROOM), (chunk.creator, _CREATOR_ROOM)):
                if len(encoded(text)) == room:
                    self._found(where, f"{text!r} has no end")
            first = names.setdefault(chunk.name, chunk.element)
            if first != chunk.element:
                self._found(where, f"is called {chunk.name!r}, as chunk {first} is", "tolerated")
            if self.dma(chunk.physical) is None or self.dma(chunk.end) is None:
                self._found(
                    where,
                    f"{chunk.size:#x} bytes from {chunk.physical:#x} on are not in the region",
                )

    def _read_references(self, chunk: AreaChunk) -> List[int]:
        """The elements of the devices that the chunk is mapped for."""
        which = _references_of(chunk.element)
        devices = [
            _REFERENCE.unpack_from(self._data, which.offset(element))[3]
            for element in self._walk(which)
        ]
        unknown = [device for device in devices if device not in self._registered]
        text = "for devices that are not registered"
        self._found_many(which.name, text, unknown, "tolerated")
        return devices

    def _check_devices(self) -> None:
        self._check_free_chain(_DEVICES, (device.element for device in self.devices))
        first: Dict[Tuple[int, int, int], int] = {}
        for device in self.devices:
            # Not by its text, which has not all bits of the last number.
            numbers = (device.domain, device.bus, device.devfn)
            if first.setdefault(numbers, device.element) != device.element:
                self._found(f"device {device.element}", f"is {device}, which is listed before")


def _unpacked(file: BinaryIO) -> bytes:
    """The first bytes of a file, which gzip may have compressed; of one cut short what is there."""
    first = file.read(len(_GZIP_MAGIC))
    if first != _GZIP_MAGIC:
        return first + file.read(AREA_BYTES - len(first))
    inflated, source = zlib.decompressobj(wbits=_GZIP_WINDOW), first
    data = bytearray()
    while source and len(data) < AREA_BYTES and not inflated.eof:
        data += inflated.decompress(source, AREA_BYTES - len(data))
        source = inflated.unconsumed_tail or file.read(_READ_BYTES)
    return bytes(data)


def read(path: str) -> Area:
    """The area in a file, compressed by gzip or not; "-" is standard input.

    Reads and inflates no more than an area has. OSError when it cannot be read.
    """
    try:
        if path == "-":
            return Area(_unpacked(sys.stdin.buffer))
        with open(path, "rb") as file:
            return Area(_unpacked(file))
    except zlib.error as reason:
        raise OSError(f"{path}: {reason}") from reason


def _report(found: Area, say: Callable[[str], object]) -> None:
    if found.region is not None:
        say(f"region {found.region[0]:#x} to {found.region[1]:#x}")
    for chunk in found.chunks:
        dma = found.dma(chunk.physical)
        place = f"{chunk.physical:#x}" if dma is None else f"{chunk.physical:#x} (DMA {dma:#x})"
        seen_by = " ".join(str(ref.device or "?") for ref in found.references(chunk))
        say(
            f"chunk {chunk.element} {chunk.name!r} by {chunk.creator!r}: {chunk.size} bytes at "
            f"{place}; {seen_by or 'no device'}"
        )
    for device in found.devices:
        say(f"device {device} {'online' if device.online else 'offline'}")
    for gap in found.gaps:
        say(f"free {gap.size} bytes at {gap.physical:#x}")
    for finding in found.findings:
        say(str(finding))


def main(arguments: Optional[Sequence[str]] = None) -> int:
    """Tells what a file holds. Returns 0, 1 when something is not tolerated, 3 for no file."""
    parser = argparse.ArgumentParser(
        prog="python3 -m tarvo.area", description="Tells what a copy of the shared area holds."
    )
    parser.add_argument("file", help="such as a snapshot of tarvoctl, or a copy of /var/shmem/tarvo_lib")
    path = parser.parse_args(arguments).file
    try:
        found = read(path)
    except OSError as reason:
        print(f"tarvo.area: {reason}", file=sys.stderr)
        return 3
    _report(found, print)
    return 1 if any(finding.kind != "tolerated" for finding in found.findings) else 0


if __name__ == "__main__":
    sys.exit(main())
