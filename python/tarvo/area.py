# SPDX-License-Identifier: MIT
"""Reads a copy of the shared area after the fact, without the library and without the lock.

    from tarvo import area
    with open("/var/shmem/tarvo_lib", "rb") as file:
        found = area.Area(file.read())

or `area.read(FILE)`, which also reads what gzip has compressed, as tarvoctl snapshot makes it, or
`python3 -m tarvo.area FILE`. Any bytes will do: every walk is bounded, and nothing is raised for
links that lead nowhere. Nothing is checked: `tarvoctl check --json FILE` does that. A copy of a live
area that was made without the lock can be half changed.
"""

from __future__ import annotations

import argparse
import struct
import sys
import zlib
from dataclasses import dataclass
from typing import BinaryIO, Callable, Iterator, List, Optional, Sequence, Tuple, Union

from ._checks import MOST_DEVICES, decoded

__all__ = [
    "AREA_BYTES",
    "Area",
    "AreaChunk",
    "AreaDevice",
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
_CHUNKS_AT = 4
_CHUNK_ENDS_AT = 70123524
_DEVICE = struct.Struct("<iiB3xiiiB3x")
_DEVICES_AT = 70123536
_DEVICE_ENDS_AT = 70130704
_REFERENCE = struct.Struct("<iiB3xi")
_REFERENCES_AT = 172  # in a chunk
_REFERENCE_ENDS_AT = 4268  # in a chunk
_ENDS = struct.Struct("<iii")
_NEXT = struct.Struct("<i")

_HIGH_REGION_DMA = 0x20000000

_GZIP_MAGIC = b"\x1f\x8b"
_GZIP_WINDOW = 16 + zlib.MAX_WBITS  # with gzip's own head and end
_READ_BYTES = 65536


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
        """The physical address after its last byte."""
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

    capacity: int
    element_bytes: int
    start: int
    ends: int

    def offset(self, element: int) -> int:
        return self.start + element * self.element_bytes


_CHUNKS = _List(_CHUNK_CAPACITY, _CHUNK_BYTES, _CHUNKS_AT, _CHUNK_ENDS_AT)
_DEVICES = _List(MOST_DEVICES, _DEVICE.size, _DEVICES_AT, _DEVICE_ENDS_AT)


def _references_of(chunk: int) -> _List:
    base = _CHUNKS.offset(chunk)
    return _List(
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
    way; `region` has the physical addresses of its first byte and of the one after its last;
    `complete` says whether all bytes were there and each list led to its end.
    """

    def __init__(self, data: Union[bytes, bytearray, memoryview]) -> None:
        self._data = bytes(data)
        self.complete = len(self._data) >= AREA_BYTES
        self._data += bytes(max(0, AREA_BYTES - len(self._data)))  # what lies before the cut counts
        self.initialized = self._data[0] != 0
        self.devices: Tuple[AreaDevice, ...] = tuple(map(self._device, self._walk(_DEVICES)))
        listed = [self._chunk(element) for element in self._walk(_CHUNKS)]
        self.region: Optional[Tuple[int, int]] = None
        if len(listed) >= 2:
            self.region = (listed[0].physical, listed[-1].physical)
        self.chunks: Tuple[AreaChunk, ...] = tuple(listed[1:-1])
        self.gaps: Tuple[Gap, ...] = tuple(_gaps(listed))
        self.unlisted = self._unlisted(listed)
        self._registered = {device.element: device for device in self.devices}
        self._devices_of = {chunk.element: self._read_references(chunk) for chunk in self.chunks}

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

    def _walk(self, which: _List) -> List[int]:
        """The elements from head to tail, as far as the links lead; no element twice."""
        head, tail, _ = _ENDS.unpack_from(self._data, which.ends)
        walked: List[int] = []
        if head == -1 and tail == -1:
            return walked
        seen = bytearray(which.capacity)
        element = head
        while 0 <= element < which.capacity and not seen[element]:
            seen[element] = True
            walked.append(element)
            if element == tail:
                return walked
            (element,) = _NEXT.unpack_from(self._data, which.offset(element))
        self.complete = False
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
        unsigned = [number % (1 << 32) for number in (domain, bus, devfn)]
        return AreaDevice(element, *unsigned, online != 0)

    def _unlisted(self, listed: Sequence[AreaChunk]) -> Tuple[AreaChunk, ...]:
        known = {chunk.element for chunk in listed}
        flags = self._data[_CHUNKS_AT + 8 : _CHUNK_ENDS_AT : _CHUNK_BYTES]
        return tuple(
            self._chunk(element)
            for element, flag in enumerate(flags)
            if flag != 0 and element not in known
        )

    def _read_references(self, chunk: AreaChunk) -> List[int]:
        """The elements of the devices that the chunk is mapped for."""
        which = _references_of(chunk.element)
        return [
            _REFERENCE.unpack_from(self._data, which.offset(element))[3]
            for element in self._walk(which)
        ]


def _gaps(listed: Sequence[AreaChunk]) -> Iterator[Gap]:
    furthest = 0  # a chunk can lie within one before it
    for lower, upper in zip(listed, listed[1:]):
        furthest = max(furthest, lower.end)
        if furthest < upper.physical:
            yield Gap(furthest, upper.physical - furthest, lower.element)


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
    for chunk in found.unlisted:
        say(f"chunk {chunk.element} {chunk.name!r} by {chunk.creator!r}: on no list")


def main(arguments: Optional[Sequence[str]] = None) -> int:
    """Prints what a file holds. Returns 0, 1 where not all could be read, 3 for no file."""
    parser = argparse.ArgumentParser(
        prog="python3 -m tarvo.area", description="Prints what a copy of the shared area holds."
    )
    parser.add_argument("file", help="such as a snapshot of tarvoctl, or a copy of /var/shmem/tarvo_lib")
    path = parser.parse_args(arguments).file
    try:
        found = read(path)
    except OSError as reason:
        print(f"tarvo.area: {reason}", file=sys.stderr)
        return 3
    _report(found, print)
    if not found.complete:
        print("tarvo.area: cut short or damaged; see 'tarvoctl check'", file=sys.stderr)
    return 0 if found.complete else 1


if __name__ == "__main__":
    sys.exit(main())
