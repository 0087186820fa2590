"""The types of the manual page tarvo_hpp(3) against tarvo.hpp. Both are read by clang, and what it
finds to be public is compared in both directions. The functions that the page declares are
compiled by manuals.sh; that none is missing is seen here.

usage: cpp_manual.py PAGE CLANG INCLUDE_FOLDER
"""

from __future__ import annotations

import functools
import json
import re
import subprocess
import sys
import unittest
from pathlib import Path
from typing import Any, Dict, Iterator, List, Set

INCLUDES = Path(sys.argv.pop())
CLANG = sys.argv.pop()
PAGE = Path(sys.argv.pop()).read_text(encoding="utf-8")

Node = Dict[str, Any]
METHODS = ("CXXMethodDecl", "CXXConstructorDecl", "CXXConversionDecl", "FunctionDecl")
CLASSES = ("CXXRecordDecl", "ClassTemplateSpecializationDecl")


def section(name: str) -> str:
    return PAGE.split(f"\n.Sh {name}\n")[1].split("\n.Sh ")[0]


def synopsis() -> str:
    """What the page shows of types, as a header."""
    displays = re.findall(
        r"^\.Bd -literal\n(.*?)^\.Ed$", section("SYNOPSIS"), re.MULTILINE | re.DOTALL
    )
    return "".join(displays).replace("\\-", "-")


#: What the types of the page rest on, so that they can stand in a reader's order.
BEFORE = """
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
namespace tarvo {
struct dma_space;
struct physical_space;
class chunk_range;
class device_range;
class error;
enum class error_code;
template <typename T> class result;
template <std::size_t Room> class short_text;
"""


@functools.lru_cache(maxsize=None)
def namespace(source: str) -> List[Node]:
    """All that clang finds in the namespace tarvo."""
    found: List[Node] = []
    printed = subprocess.run(
        [CLANG, "-std=c++20", "-fsyntax-only", f"-I{INCLUDES}", "-x", "c++", "-"]
        + ["-Xclang", "-ast-dump=json", "-Xclang", "-ast-dump-filter=tarvo"],
        input=source,
        stdout=subprocess.PIPE,
        check=True,
        text=True,
    ).stdout.strip()
    decoder, at = json.JSONDecoder(), 0
    while at < len(printed):
        node, end = decoder.raw_decode(printed, at)
        at = end + 1
        if node["kind"] == "NamespaceDecl":
            found.extend(declarations(node))
    return found


def declarations(node: Node) -> Iterator[Node]:
    """What a namespace holds, with what is in an inline one, and without `detail`."""
    for inner in node.get("inner", []):
        if inner["kind"] != "NamespaceDecl":
            yield inner
        elif inner.get("isInline"):
            yield from declarations(inner)


def public(node: Node) -> Iterator[Node]:
    """What a class shows of itself."""
    access = "public" if node.get("tagUsed") == "struct" else "private"
    for inner in node.get("inner", []):
        if inner["kind"] == "AccessSpecDecl":
            access = inner["access"]
        elif inner["kind"] == "FriendDecl":
            friends = inner.get("inner", [])
            yield from (f for f in friends if f.get("name", "").startswith("operator"))
        elif access == "public" and not inner.get("isImplicit"):
            yield inner


def is_usual(node: Node) -> bool:
    """Copies, moves and ends of objects, of which the page speaks in words."""
    arguments = [inner for inner in node.get("inner", []) if inner["kind"] == "ParmVarDecl"]
    if node["kind"] == "CXXConstructorDecl" and len(arguments) == 1:
        bare = re.sub(r"tarvo::|const | ?&+$", "", arguments[0]["type"]["qualType"])
        return bool(bare == node["name"])
    return node["kind"] == "CXXDestructorDecl" or node.get("name") == "operator="


def signature(node: Node) -> str:
    """A function as the page is to show it: whether it is static, its type and its arguments."""
    arguments = [
        f"{inner['type']['qualType']} {inner.get('name', '')}{' = ' if 'init' in inner else ''}"
        for inner in node.get("inner", [])
        if inner["kind"] == "ParmVarDecl"
    ]
    kind = node["type"]["qualType"].replace(" noexcept", "")
    return f"{node.get('storageClass', '')} {node['name']} {kind} [{', '.join(arguments)}]"


def members(node: Node) -> Set[str]:
    found = set()
    for inner in public(node):
        for member in inner["inner"] if inner["kind"] == "FunctionTemplateDecl" else [inner]:
            if member["kind"] in METHODS and not is_usual(member):
                found.add(signature(member))
            elif member["kind"] == "FieldDecl":
                found.add(f"{member['name']}: {member['type']['qualType']}")
    return found


def types_in(source: str) -> Dict[str, Set[str]]:
    """Every type that is defined, by its name, with its public members."""
    found: Dict[str, Set[str]] = {}
    for node in namespace(source):
        if node["kind"] == "TypeAliasDecl" and node["name"] not in RANGES:
            found[node["name"]] = {node["type"]["qualType"]}
        elif node["kind"] == "EnumDecl" and node["name"] != "error_code":
            found[node["name"]] = set(enumerators(node))
        # What a template was used for stands in it as well.
        primary = [inner for inner in node.get("inner", []) if inner["kind"] == "CXXRecordDecl"]
        for kind in primary if node["kind"] == "ClassTemplateDecl" else [node]:
            if kind["kind"] in CLASSES and kind.get("completeDefinition"):
                special = node["kind"] == "ClassTemplateSpecializationDecl"
                found[node["name"] + "<>" * special] = members(kind)
    return found


#: What a listing returns is said in words.
RANGES = ("chunk_range", "device_range")


def enumerators(kind: Node) -> List[str]:
    return [inner["name"] for inner in kind["inner"] if inner["kind"] == "EnumConstantDecl"]


HEADER = "#include <tarvo.hpp>\n"


class Synopsis(unittest.TestCase):
    maxDiff = None

    def test_shows_every_type_with_its_public_members(self) -> None:
        there = types_in(HEADER)
        shown = types_in(f"{BEFORE}{synopsis()}}}")
        self.assertGreater(sum(map(len, there.values())), 60)
        self.assertEqual(set(there), set(shown))
        for name, found in there.items():
            with self.subTest(name):
                self.assertEqual(found, shown[name])

    def test_leaves_no_function_out(self) -> None:
        there = [n["name"] for n in namespace(HEADER) if n["kind"] == "FunctionDecl"]
        shown = re.findall(r"^\.F[no] (\S+)", section("SYNOPSIS"), re.MULTILINE)
        members = [name for name in shown if "::" in name]
        literals = [name for name in there if name.startswith('operator""')]
        self.assertGreater(len(there), 15)
        self.assertEqual(sorted(there), sorted(set_aside(shown, members) + literals))


def set_aside(names: List[str], others: List[str]) -> List[str]:
    return [name for name in names if name not in others]


class Errors(unittest.TestCase):
    def test_are_all_told_in_their_order(self) -> None:
        (codes,) = (n for n in namespace(HEADER) if n.get("name") == "error_code")
        reported = re.findall(r"^\.It Dv (\w+)$", section("ERRORS"), re.MULTILINE)
        self.assertEqual(enumerators(codes), reported)


if __name__ == "__main__":
    unittest.main()
