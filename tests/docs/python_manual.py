"""The manual page tarvo_py(3) against the package. Its synopsis is Python: what it declares is
compared with what the package has, in both directions. Its examples run; for them this is started
in a sandbox of the world low, with the package on the path.

usage: python_manual.py PAGE
"""

from __future__ import annotations

import contextlib
import dataclasses
import enum
import inspect
import re
import subprocess
import sys
import types
import typing
import unittest
from pathlib import Path
from typing import Any, Dict, Iterator, List, Set

import tarvo
import tarvo.area

PAGE = Path(sys.argv.pop()).read_text(encoding="utf-8")

# What a reader of the synopsis is taken to know.
KNOWN = {"contextlib": contextlib, "dataclass": dataclasses.dataclass, "enum": enum, **vars(typing)}


def section(name: str) -> str:
    return PAGE.split(f"\n.Sh {name}\n")[1].split("\n.Sh ")[0]


def displays(name: str) -> List[str]:
    """The literal displays of a section, as they are shown."""
    found = re.findall(r"^\.Bd -literal\n(.*?)^\.Ed$", section(name), re.MULTILINE | re.DOTALL)
    return [display.replace("\\-", "-").replace("\\e", "\\") for display in found]


def declared_for(module: types.ModuleType) -> Dict[str, Any]:
    """What the synopsis declares for a module. Annotations stay texts, as in the package."""
    names: Dict[str, Any] = {}
    for display in displays("SYNOPSIS"):
        if ("from tarvo import area" in display) == (module is tarvo.area):
            exec(display, {**KNOWN, "__name__": __name__}, names)
    return {name: value for name, value in names.items() if not inspect.ismodule(value)}


def exported_by(module: types.ModuleType) -> Dict[str, Any]:
    """What a module exports. The page has the exceptions elsewhere."""
    public = {name: getattr(module, name) for name in module.__all__}
    return {name: value for name, value in public.items() if value not in exceptions()}


def exceptions() -> Set[type]:
    return {getattr(tarvo, name) for name in tarvo.errors.__all__}


def described(value: Any) -> Any:
    """All that the page has to say of a value, in a form that can be compared."""
    if inspect.isfunction(value):
        return str(inspect.signature(value))
    if not inspect.isclass(value):
        return getattr(value, "__supertype__", value)
    if issubclass(value, enum.Enum):
        return {name: int(member) for name, member in value.__members__.items()}
    return dict(members_of(value))


def members_of(kind: type) -> Iterator[tuple[str, str]]:
    for name in attributes_of(kind) | set(dir(kind)):
        member = inspect.getattr_static(kind, name, None)
        if name.startswith("_"):
            continue
        if isinstance(member, property):
            yield name, f"property {inspect.signature(member.fget)}"
        elif isinstance(member, classmethod):
            yield name, f"class method {inspect.signature(member.__func__)}"
        elif inspect.isfunction(member):
            yield name, f"method {inspect.signature(member)}"
        else:
            yield name, "attribute"


def attributes_of(kind: type) -> Set[str]:
    """Attributes of the objects: annotated in the class, or given by what it is made by."""
    found: Set[str] = set()
    for ours in kind.__mro__[:-1]:
        found.update(ours.__annotations__)
        if ours.__module__ != __name__:
            found.update(re.findall(r"self\.(\w+)(?:: [^=\n]+)? = ", inspect.getsource(ours)))
    return found


class Synopsis(unittest.TestCase):
    maxDiff = None

    def check(self, module: types.ModuleType, least: int) -> None:
        declared, there = declared_for(module), exported_by(module)
        self.assertGreater(len(there), least)
        self.assertEqual(set(declared), set(there))
        for name, value in there.items():
            with self.subTest(name):
                self.assertEqual(described(declared[name]), described(value))

    def test_declares_what_the_package_has(self) -> None:
        self.check(tarvo, 20)

    def test_declares_what_the_reader_of_areas_has(self) -> None:
        self.check(tarvo.area, 7)

    def test_shows_how_objects_are_made_where_users_make_them(self) -> None:
        shown = {**declared_for(tarvo), **declared_for(tarvo.area)}
        made = {name for name, kind in shown.items() if "__init__" in getattr(kind, "__dict__", {})}
        for name in made:
            real = getattr(tarvo, name, None) or getattr(tarvo.area, name)
            self.assertEqual(str(inspect.signature(shown[name])), str(inspect.signature(real)))
        self.assertLessEqual({"Chunk", "Device", "WholeRegion", "Listing", "Area"}, made)


class Description(unittest.TestCase):
    def test_has_every_function_with_its_arguments(self) -> None:
        items = re.findall(r"^\.It Fn (.*)$", section("DESCRIPTION"), re.MULTILINE)
        functions = {k: v for k, v in exported_by(tarvo).items() if inspect.isfunction(v)}
        calls = {
            " ".join([name, *inspect.signature(function).parameters])
            for name, function in functions.items()
        }
        self.assertEqual(calls | {"Chunk.map offset size writable", "Chunk.free"}, set(items))

    def test_has_every_exception_with_what_it_also_is(self) -> None:
        items = re.split(r"^\.It Sy ", section("ERRORS"), flags=re.MULTILINE)[1:]
        reported = {item.split()[0]: set(re.findall(r"Also a\n\.Sy (\w+)", item)) for item in items}
        real = {
            kind.__name__: {base.__name__ for base in kind.__bases__} - {"TarvoError"}
            for kind in exceptions() - {tarvo.TarvoError}
        }
        self.assertEqual(real, reported)


class Examples(unittest.TestCase):
    @staticmethod
    def printed_by(program: str) -> str:
        return subprocess.check_output([sys.executable, "-W", "error", "-c", program], text=True)

    def test_run(self) -> None:
        ring, listing = displays("EXAMPLES")
        self.assertEqual(self.printed_by(ring), "b'ready' at DMA address 0x80000000\n")
        self.assertEqual(self.printed_by(listing), "")
        with tarvo.registered(tarvo.Device.parse("0000:03:00.0")):
            with tarvo.allocated("rx_ring", 4096, "me"):
                self.assertEqual(
                    self.printed_by(listing),
                    "rx_ring: 4096 bytes at 0x80000000, of me\n0000:03:00.0 online\n",
                )


if __name__ == "__main__":
    unittest.main()
