"""The results of bench.py as lines, as one table, as JSON and as a picture."""

import json
import statistics
from html import escape
from pathlib import Path
from typing import Any

# What a row is to reach against the plain walk: row, names, order -> ext4, tmpfs.
GOALS = {
    ("a", 16, "in order"): (1.0, 1.0),
    ("a", 1000, "in order"): (3.0, 3.0),
    ("a", 2500, "in order"): (4.0, 4.0),
    ("a", 16000, "in order"): (5.0, 5.0),
    ("a", 1000, "shuffled"): (4.5, 4.5),
    ("a", 16000, "shuffled"): (8.0, 4.5),
    ("b", 16, "in order"): (1.3, 1.3),
    ("b", 1000, "in order"): (5.0, 5.0),
    ("b", 2500, "in order"): (5.0, 5.0),
    ("b", 16000, "in order"): (6.0, 6.0),
    ("b", 1000, "shuffled"): (6.5, 6.5),
    ("b", 16000, "shuffled"): (12.0, 7.5),
}
# The same where the work and the number of names make the row.
GOALS_OF_WORK = {
    ("attach", 1000): (1.3, 1.3),
    ("attach and first get", 1000): (3.0, 1.0),
    ("map 64 KiB, touch, unmap", 16): (1.0, 1.0),
    ("map 64 KiB, touch, unmap", 1000): (2.4, 1.8),
    ("first build", 0): (1.7, 1.15),
    ("find the last by address", 1000): (2.2, 2.2),
    ("find the last by address", 16000): (3.3, 3.3),
    ("list all", 1000): (8.0, 8.0),
    ("list all", 16000): (8.0, 8.0),
    ("register and unregister", 1000): (1.0, 1.0),
    ("allocate and free, 4 devices", 1000): (1.8, 1.8),
}
for count in (1, 2, 4):
    GOALS_OF_WORK[f"get, {count} at once", 1000] = (2.8, 2.8)
    GOALS_OF_WORK[f"allocate and free, {count} at once", 16] = (1.3, 1.3)
    GOALS_OF_WORK[f"allocate and free, {count} at once", 1000] = (4.5, 4.5)
GOALS_OF_SIZE = {}
for size in (1, 64, 256):
    GOALS_OF_SIZE[f"allocate {size} MiB and touch", "fresh"] = (1.0, 1.0)
    GOALS_OF_SIZE[f"allocate {size} MiB and touch", "recycled"] = (1.05, 1.8)
# "Never slower" is met by whatever cannot be told from equal.
NOISE = 0.03


def goal_of(result: Any) -> float | None:
    both = (
        GOALS.get((result.row, result.names, result.order))
        or GOALS_OF_WORK.get((result.work, result.names))
        or GOALS_OF_SIZE.get((result.work, result.order))
    )
    return both[1 if result.files == "tmpfs" else 0] if both else None


def ratio(result: Any, who: str) -> float | None:
    """How many times as long as the library that one takes."""
    medians = result.medians()
    if who not in medians or not medians.get("tarvo"):
        return None
    return medians[who] / medians["tarvo"]


def spread_of(values: list[float]) -> float:
    """Half of the passes lie within this share of the median, from one end to the other."""
    if len(values) < 4:
        return (max(values) - min(values)) / statistics.median(values)
    quarters = statistics.quantiles(values, n=4)
    return (quarters[2] - quarters[0]) / statistics.median(values)


def quantity(value: float, unit: str) -> str:
    if unit != "ns":
        return f"{value:.0f} {unit}"
    for limit, divisor, name in ((1e4, 1, "ns"), (1e7, 1e3, "us"), (1e10, 1e6, "ms")):
        if value < limit:
            return f"{value / divisor:.4g} {name}"
    return f"{value / 1e9:.4g} s"


def times(value: float | None) -> str:
    return "" if value is None else f"{value:.2f}"


def line_of(result: Any) -> str:
    who = ", ".join(f"{one} {quantity(x, result.unit)}" for one, x in result.medians().items())
    return f"{result.row} {result.work} {result.names or ''} {result.order} {result.files}: {who}"


def verdict_on(reached: float, goal: float) -> str:
    return "yes" if reached >= (goal - NOISE if goal == 1.0 else goal) else "no"


def table_row(result: Any) -> list[str]:
    medians = result.medians()
    own = medians.get("tarvo", medians.get("floor", 0.0))
    peers = [
        f"{who} {times(ratio(result, who))}"
        for who in medians
        if who not in ("tarvo", "again", "plain", "against", "floor")
    ]
    goal = goal_of(result)
    plain = ratio(result, "plain")
    against = ratio(result, "against")
    reached = plain if against is None else against
    verdict = "" if goal is None or reached is None else verdict_on(reached, goal)
    return [
        result.row,
        result.work,
        str(result.names or ""),
        result.order,
        result.files,
        quantity(own, result.unit),
        f"{100 * spread_of(result.passes.get('tarvo') or result.passes['floor']):.0f} %",
        times(ratio(result, "again")),
        times(plain),
        times(against),
        times(goal),
        verdict,
        ", ".join(peers),
    ]


HEADINGS = [
    "Row",
    "Work",
    "Names",
    "Order",
    "Files",
    "libtarvo",
    "Spread",
    "Again",
    "Plain walk",
    "Against",
    "Goal",
    "Met",
    "Others",
]


def table(results: list[Any]) -> str:
    rows = [HEADINGS, ["---"] * len(HEADINGS)] + [table_row(one) for one in results]
    return "".join("| " + " | ".join(row) + " |\n" for row in rows)


def bar(x: float, y: float, width: float, colour: str, text: str) -> str:
    return (
        f'<rect x="{x}" y="{y}" width="{max(width, 1):.1f}" height="12" fill="{colour}"/>'
        f'<text x="{x + max(width, 1) + 4:.1f}" y="{y + 10}">{escape(text)}</text>\n'
    )


def picture(results: list[Any]) -> str:
    """Bars of how many times as long as the library the plain walk takes; 100 pixels a doubling
    would hide small ones, so the scale is linear and ends at 12."""
    shown = [one for one in results if ratio(one, "plain") is not None]
    height = 16 * len(shown) + 40
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="900" height="{height}"'
        ' font-family="sans-serif" font-size="11">\n'
        '<text x="10" y="16">Time of the plain walk, libtarvo = 1</text>\n'
    ]
    for number, one in enumerate(shown):
        y = 28 + 16 * number
        label = f"{one.row}  {one.work} {one.names or ''} {one.order} {one.files}"
        value = ratio(one, "plain") or 0.0
        parts.append(f'<text x="10" y="{y + 10}">{escape(label)}</text>\n')
        parts.append(bar(380, y, 36 * min(value, 12.0), "#4477aa", f"{value:.2f}"))
    parts.append('<line x1="416" y1="24" x2="416" y2="100%" stroke="#888"/>\n</svg>\n')
    return "".join(parts)


def as_json(results: list[Any], circumstances: dict[str, str]) -> dict[str, Any]:
    return {
        "schema": 1,
        **circumstances,
        "results": [
            {
                "row": one.row,
                "work": one.work,
                "names": one.names,
                "order": one.order,
                "files": one.files,
                "unit": one.unit,
                "passes": one.passes,
                "medians": one.medians(),
                "plain_ratio": ratio(one, "plain"),
                "again_ratio": ratio(one, "again"),
                "against_ratio": ratio(one, "against"),
                "goal": goal_of(one),
            }
            for one in results
        ],
    }


def write(results: list[Any], circumstances: dict[str, str], folder: Path) -> None:
    head = "\n".join(f"- {name}: {value}" for name, value in circumstances.items())
    text = f"{head}\n\n{table(results)}"
    print("\n" + text)
    (folder / "table.md").write_text(text, encoding="utf-8")
    (folder / "plain.svg").write_text(picture(results), encoding="utf-8")
    document = json.dumps(as_json(results, circumstances), indent=1)
    (folder / "results.json").write_text(document + "\n", encoding="utf-8")
