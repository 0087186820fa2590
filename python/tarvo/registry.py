# SPDX-License-Identifier: MIT
"""Which devices see the chunks, and the region."""

from __future__ import annotations

import contextlib
import enum
from typing import Iterator, List

from ._checks import LARGEST_CHUNK, MOST_DEVICES, number
from ._library import calls, library
from .device import Device
from .errors import BadArgument, NotRegistered, Refused, TooManyDevices
from .listing import Listing, refuse_under_listing
from .region import get_limits

__all__ = [
    "Access",
    "iommu_map",
    "iommu_unmap",
    "register_device",
    "registered",
    "unregister_device",
]

_NOT_REGISTERED = -2  # of tarvo_unregister_device()


class _ListedByMembers(enum.EnumMeta):
    """For help() and dir(): the members alone, not the hundred methods that every int has."""

    def __dir__(cls) -> List[str]:
        return list(cls.__members__)


class Access(enum.IntFlag, metaclass=_ListedByMembers):
    """What a device may do with the whole region."""

    NONE = 0
    READ = 1
    WRITE = 2
    READ_WRITE = 3


def register_device(device: Device) -> None:
    """Registers a device, or revives one that is registered, and maps every chunk for it.

    The registration outlives the process. Raises TooManyDevices; BadArgument when a chunk of more
    than 2 GiB exists; Refused when a chunk could not be mapped, with the device registered all the
    same; Damaged, NotStarted, NotLocked, ListingOpen. Takes the lock, also while the requests are
    sent.
    """
    _check_device(device)
    with Listing() as now:
        _check_registrable(now, device)
        result = library().tarvo_register_device(device.domain, device.bus, device.devfn)
    if result != 0:
        raise _refusal("map the chunks for", device)


def _check_device(device: Device) -> None:
    if not isinstance(device, Device):
        raise BadArgument(f"{device!r} is not a tarvo.Device; Device.parse() makes one of a text")


def _check_registrable(now: Listing, device: Device) -> None:
    """Whether one more registration ends well: the library ends the process where not."""
    for chunk in now.chunks():
        if chunk.size > LARGEST_CHUNK:
            raise BadArgument(
                f"{chunk.name!r} has more than {LARGEST_CHUNK} bytes, which no device can be "
                "given; free it first"
            )
    others = sum(known != device for known in now.devices())
    if others >= MOST_DEVICES:
        raise TooManyDevices(
            f"no place for {device}: {others} devices are registered; unregister one"
        )


def unregister_device(device: Device) -> None:
    """Unmaps every chunk for a device and forgets it.

    Raises NotRegistered; Refused, also when the lock cannot be taken, with the device still
    registered; NotStarted, ListingOpen. Takes the lock, also while the requests are sent.
    """
    _check_device(device)
    with calls:
        refuse_under_listing()
        get_limits()
        result = library().tarvo_unregister_device(device.domain, device.bus, device.devfn)
    if result == _NOT_REGISTERED:
        raise NotRegistered(f"{device} is not registered")
    if result != 0:
        raise _refusal("unmap the chunks for", device)


@contextlib.contextmanager
def registered(device: Device) -> Iterator[Device]:
    """register_device() for a with statement, at whose end the device is unregistered."""
    try:
        register_device(device)
    except Refused:
        # It is registered all the same. One that refuses this as well keeps its registration.
        with contextlib.suppress(NotRegistered, Refused):
            unregister_device(device)
        raise
    try:
        yield device
    finally:
        with contextlib.suppress(NotRegistered):
            unregister_device(device)


def iommu_map(device: Device, access: Access) -> None:
    """Maps the whole region for a device by one request; nothing is recorded, no lock taken.

    Raises BadArgument for a region of 2 GiB and more; Refused, NotStarted, ListingOpen.
    """
    _check_device(device)
    mask = number("access", access, 32)
    with calls:
        _check_whole_region()
        result = library().tarvo_iommu_map(device.domain, device.bus, device.devfn, mask)
    if result != 0:
        raise _refusal("map the region for", device)


def iommu_unmap(device: Device) -> None:
    """Undoes iommu_map(). A registered device is unregistered instead. Takes the lock.

    Raises as iommu_map().
    """
    _check_device(device)
    with calls:
        _check_whole_region()
        result = library().tarvo_iommu_unmap(device.domain, device.bus, device.devfn)
    if result != 0:
        raise _refusal("unmap the region for", device)


def _check_whole_region() -> None:
    refuse_under_listing()
    size = get_limits().size
    if size >= 1 << 31:
        raise BadArgument(
            f"a region of {size:#x} bytes cannot be mapped at once; register the device"
        )


def _refusal(what: str, device: Device) -> Refused:
    return Refused(f"the kernel driver refuses to {what} {device}; standard error says why")
