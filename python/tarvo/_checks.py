# SPDX-License-Identifier: MIT
"""Arguments, checked before the library sees them: it ends the process for most wrong ones."""

from __future__ import annotations

import mmap
import operator

from .errors import BadArgument

NAME_ROOM = 50  # bytes of a chunk's record, with the zero byte
LARGEST_CHUNK = 1 << 31  # bytes; no device could be registered while a larger one exists
MOST_DEVICES = 256


def encoded(text: str) -> bytes:
    """A text as the records hold it; decoded() gives it back whatever its bytes."""
    return text.encode("utf-8", "surrogateescape")


def decoded(text: bytes) -> str:
    """A text of a record."""
    return text.decode("utf-8", "surrogateescape")


def c_text(what: str, text: str) -> bytes:
    """A text that can be given to a C call."""
    if not isinstance(text, str):
        raise BadArgument(f"{what} {text!r} is not a str")
    try:
        code = encoded(text)
    except UnicodeEncodeError:
        raise BadArgument(f"{what} {text!r} cannot be encoded; leave the surrogates out") from None
    if b"\0" in code:
        raise BadArgument(f"{what} {text!r} has a zero byte in it; leave it out")
    return code


def c_name(name: str) -> bytes:
    """A name that the library takes without ending the process, and finds again."""
    code = c_text("name", name)
    if not 0 < len(code) < NAME_ROOM:
        raise BadArgument(
            f"name {name[:60]!r} has {len(code)} bytes; give it 1 to {NAME_ROOM - 1}"
        )
    if name in ("__HEAD", "__TAIL"):
        raise BadArgument(f"name {name} bounds the region; choose another")
    if name.endswith(" "):
        raise BadArgument(f"name {name!r} ends in a blank, which a listing cannot show")
    return code


def c_creator(creator: str) -> bytes:
    """Who allocates."""
    code = c_text("creator", creator)
    if not code:
        raise BadArgument("creator is empty; say who allocates")
    return code


def number(what: str, value: int, bits: int) -> int:
    """A number that fits an unsigned argument of so many bits."""
    try:
        exact = operator.index(value)
    except TypeError:
        raise BadArgument(f"{what} {value!r} is not a whole number") from None
    if not 0 <= exact < 1 << bits:
        raise BadArgument(f"{what} {exact:#x} is not within 0 to {(1 << bits) - 1:#x}")
    return exact


def chunk_size(size: int) -> int:
    """A chunk's size, rounded up to whole pages."""
    exact = number("size", size, 64)
    if not 0 < exact <= LARGEST_CHUNK:
        raise BadArgument(f"size {exact}: ask for 1 to {LARGEST_CHUNK} bytes")
    return -(-exact // mmap.PAGESIZE) * mmap.PAGESIZE
