"""The results of bench.py as lines, as one table, as JSON and as a picture."""

import json
import statistics
from html import escape
from pathlib import Path
from typing import Any

from goals import goals_of


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


def table_row(result: Any) -> list[str]:
    medians = result.medians()
    own = medians.get("tarvo", medians.get("floor", 0.0))
    peers = [
        f"{who} {times(ratio(result, who))}"
        for who in medians
        if who not in ("tarvo", "again", "plain", "against", "floor")
    ]
    slowest = [f"{who} {times(share)}" for who, share in result.slowest().items()]
    goals = goals_of(result)
    return [
        result.row,
        result.work,
        str(result.names or ""),
        result.order,
        result.files,
        quantity(own, result.unit),
        f"{100 * spread_of(result.passes.get('tarvo') or result.passes['floor']):.0f} %",
        times(ratio(result, "again")),
        times(ratio(result, "plain")),
        times(ratio(result, "against")),
        ", ".join(goal.limit_text() for goal in goals),
        ", ".join(goal.met_text() for goal in goals),
        ", ".join(peers),
        ", ".join(slowest),
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
    "Slowest",
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
        "schema": 2,
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
                "shares": one.shares,
                "slowest": one.slowest(),
                "goals": [goal.as_json() for goal in goals_of(one)],
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
