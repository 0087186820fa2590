# SPDX-License-Identifier: MIT
"""The address of a PCI device. Nothing here calls the library."""

from __future__ import annotations

import re
from dataclasses import dataclass, field
from typing import Optional

from ._checks import number
from .errors import BadArgument

__all__ = ["Device"]

_HEX = "([0-9a-fA-F]+)"
_ADDRESS = re.compile(rf"(?:{_HEX}:)?{_HEX}:{_HEX}\.{_HEX}")


@dataclass(frozen=True)
class Device:
    """A PCI device by its address; BadArgument when no device has it."""

    domain: int
    bus: int
    slot: int
    function: int
    #: Whether chunks made now are mapped for it; None where no listing said so. Not compared.
    online: Optional[bool] = field(default=None, compare=False)

    def __post_init__(self) -> None:
        number("domain", self.domain, 32)
        number("bus", self.bus, 32)
        number("slot", self.slot, 5)
        number("function", self.function, 3)

    @classmethod
    def parse(cls, text: str) -> Device:
        """Reads an address such as 0000:03:00.0, in hexadecimal as lspci shows it.

        The domain is 0 where it is left out.
        """
        found = _ADDRESS.fullmatch(text) if isinstance(text, str) else None
        if found is None:
            raise BadArgument(
                f"{text!r} is not a PCI address; write it as 0000:03:00.0 or 03:00.0"
            )
        domain, bus, slot, function = (int(part, 16) for part in found.groups("0"))
        return cls(domain, bus, slot, function)

    @property
    def devfn(self) -> int:
        """Slot * 8 + function, as the C calls have it."""
        return self.slot << 3 | self.function

    def __str__(self) -> str:
        return f"{self.domain:04x}:{self.bus:02x}:{self.slot:02x}.{self.function:x}"
