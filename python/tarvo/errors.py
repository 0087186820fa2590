# SPDX-License-Identifier: MIT
"""What can go wrong: each failure is an exception that says the value at fault and what to do."""

from __future__ import annotations

__all__ = [
    "BadArgument",
    "Changed",
    "Damaged",
    "ListingOpen",
    "MappingInUse",
    "NoRoom",
    "NotFound",
    "NotLocked",
    "NotRegistered",
    "NotStarted",
    "Refused",
    "SizeMismatch",
    "TarvoError",
    "TooManyDevices",
]


class TarvoError(Exception):
    """Every failure of this package."""


class BadArgument(TarvoError, ValueError):
    """An argument that no call can be made with; the library would end the process for it."""


class NotStarted(TarvoError):
    """The library found no region, or not its files. Standard error says which."""


class NotLocked(TarvoError):
    """The lock could not be taken. Standard error says why."""


class ListingOpen(TarvoError):
    """This program has a Listing open, which holds the lock: no other call until it is closed."""


class NotFound(TarvoError, LookupError):
    """No chunk has that name, or holds that address."""


class Changed(TarvoError):
    """The chunk's name means another chunk by now."""


class SizeMismatch(TarvoError):
    """A chunk of that name exists with another size."""


class NoRoom(TarvoError):
    """No gap, no record, or no memory of the kernel's allocator is left."""


class Refused(TarvoError):
    """The system or a kernel driver said no. Standard error says more."""


class TooManyDevices(TarvoError):
    """As many devices are registered as can be."""


class NotRegistered(TarvoError, LookupError):
    """The device is not registered."""


class Damaged(TarvoError):
    """A record of the shared bookkeeping makes no sense."""


class MappingInUse(TarvoError, BufferError):
    """Views of a mapping are still in use, so that it cannot be closed."""
