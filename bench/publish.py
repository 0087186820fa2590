"""Puts the results of bench.py into the pages.

performance.md gets the small table between its two marks, and performance.svg draws the same rows.
performance-results.md gets the goals with what was reached, also of 32-bit programs, and everything
that was measured.
"""

import json
import sys
from html import escape
from pathlib import Path
from typing import Any

import goals
from report import OWN, quantity

RESULTS, GOALS, I386 = "results", "goals", "i386"  # parts of the pages, between two marks each
WORKS = (goals.GET, goals.CHURN, goals.FIRST_GET, goals.TOUCH, goals.LAST)
HEADINGS = [
    "Work",
    "Names",
    "Files",
    "libtarvo",
    "libtarvo / floor",
    "plain / libtarvo",
    "best peer / libtarvo",
    "Goals",
]
Row = list[dict[str, Any]]  # one measurement, or that in order and that in random order


def in_both_orders(row: Row, text: Any) -> str:
    texts = [text(one) for one in row]
    return texts[0] if len(set(texts)) == 1 else " / ".join(texts)


def of_the_floor(one: dict[str, Any]) -> str:
    return f"{1 / one['ratios']['floor']:.2f}" if "floor" in one["ratios"] else ""


def of_the_plain_build(one: dict[str, Any]) -> str:
    return f"{one['ratios']['plain']:.2f}"


def best_peer(one: dict[str, Any]) -> str:
    peers = {who: value for who, value in one["ratios"].items() if who not in OWN}
    if not peers:
        return ""
    who = min(peers, key=lambda each: peers[each])
    return f"{peers[who]:.2f} {who}"


def verdict(one: dict[str, Any]) -> str:
    missed = [
        f"{goal['of']} {goal['reached']:.2f}, not {goal['limit']:g}"
        for goal in one["goals"]
        if not goal["met"]
    ]
    return "; ".join(missed) or ("met" if one["goals"] else "")


def table_row(row: Row) -> list[str]:
    one = row[0]
    return [
        one["work"],
        str(one["names"]),
        one["files"],
        in_both_orders(row, lambda each: quantity(each["medians"]["tarvo"], each["unit"])),
        in_both_orders(row, of_the_floor),
        in_both_orders(row, of_the_plain_build),
        in_both_orders(row, best_peer),
        in_both_orders(row, verdict),
    ]


def rows_of(results: list[dict[str, Any]]) -> list[Row]:
    """In the order of WORKS, then by names and files."""
    rows: dict[tuple[int, int, str], Row] = {}
    for one in results:
        if one["work"] in WORKS:
            key = (WORKS.index(one["work"]), one["names"], one["files"])
            rows.setdefault(key, []).append(one)
    return [rows[key] for key in sorted(rows)]


def table_of(rows: list[Row], columns: int) -> str:
    lines = [HEADINGS, ["---"] * len(HEADINGS)] + [table_row(row) for row in rows]
    return "".join("| " + " | ".join(line[:columns]) + " |\n" for line in lines)


def circumstances(document: dict[str, Any]) -> str:
    where = f"Commit {document['commit']}, {document['date']}, {document['machine']}, "
    return where + f"Linux {document['kernel']}, medians of {document['passes']} passes.\n\n"


def goals_table(document: dict[str, Any]) -> str:
    return circumstances(document) + table_of(rows_of(document["results"]), len(HEADINGS))


def shown(document: dict[str, Any]) -> list[Row]:
    """The rows in order on the first kind of files, from 1000 names on."""
    return [
        row[:1]
        for row in rows_of(document["results"])
        if row[0]["names"] in (1000, 16000)
        and row[0]["files"] == document["results"][0]["files"]
        and {who for who, _ in BARS} <= row[0]["medians"].keys()
    ]


def small_table(document: dict[str, Any]) -> str:
    return circumstances(document) + table_of(shown(document), len(HEADINGS) - 1)


BARS = (("floor", "#999999"), ("tarvo", "#4477aa"), ("plain", "#ee8866"))
STYLE = """<style>
  .page { fill: #ffffff }
  text { fill: #000000; font-family: sans-serif; font-size: 11px }
  @media (prefers-color-scheme: dark) {
    .page { fill: #14171c }
    text { fill: #f2f2f2 }
  }
</style>
"""
LABELS = {"floor": "floor", "tarvo": "libtarvo", "plain": "plain walk"}


def group(y: int, one: dict[str, Any]) -> str:
    """Three bars; the longest of them is the whole width."""
    whole = max(one["medians"][who] for who, _ in BARS)
    parts = [f'<text x="8" y="{y + 22}">{escape(one["work"])}, {one["names"]} names</text>\n']
    for number, (who, colour) in enumerate(BARS):
        value = one["medians"][who]
        width, top = 300 * value / whole, y + 14 * number
        text = f"{LABELS[who]} {quantity(value, one['unit'])}"
        parts.append(
            f'<rect x="270" y="{top}" width="{width:.1f}" height="11" fill="{colour}"/>'
            f'<text x="{275 + width:.1f}" y="{top + 10}">{escape(text)}</text>\n'
        )
    return "".join(parts)


def picture(document: dict[str, Any]) -> str:
    rows = shown(document)
    height = 54 * len(rows) + 10
    head = (
        '<svg xmlns="http://www.w3.org/2000/svg"'
        f' viewBox="0 0 720 {height}" width="720" height="{height}">\n'
        f'{STYLE}<rect class="page" width="100%" height="100%"/>\n'
    )
    return head + "".join(group(10 + 54 * i, row[0]) for i, row in enumerate(rows)) + "</svg>\n"


def put_into(page: Path, part: str, text: str) -> None:
    begin, end = f"<!-- {part} -->\n", f"<!-- end of {part} -->\n"
    before, found_begin, rest = page.read_text(encoding="utf-8").partition(begin)
    _, found_end, after = rest.partition(end)
    if not found_begin or not found_end:
        sys.exit(f"{page} has no {begin.strip()} and {end.strip()}")
    page.write_text(before + begin + text + end + after, encoding="utf-8")


def document_of(results: Path) -> dict[str, Any]:
    """`results`: the folder that report.write() has filled."""
    document: dict[str, Any] = json.loads((results / "results.json").read_text(encoding="utf-8"))
    return document


def publish_i386(results: Path, docs: Path) -> None:
    put_into(docs / "performance-results.md", I386, goals_table(document_of(results)))


def publish(results: Path, docs: Path) -> None:
    document = document_of(results)
    put_into(docs / "performance.md", RESULTS, small_table(document))
    (docs / "performance.svg").write_text(picture(document), encoding="utf-8")
    put_into(docs / "performance-results.md", GOALS, goals_table(document))
    everything = (results / "table.md").read_text(encoding="utf-8")
    put_into(docs / "performance-results.md", RESULTS, everything)
