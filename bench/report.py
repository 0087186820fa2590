"""The results of bench.py as lines, as one table and as JSON."""

import json
import statistics
from pathlib import Path
from typing import Any

from goals import goals_of

OWN = ("tarvo", "again", "floor", "plain", "against")  # all others are peers


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
    peers = [
        f"{who} {times(ratio(result, who))}"
        for who in medians
        if who not in OWN
    ]
    slowest = [f"{who} {times(share)}" for who, share in result.slowest().items()]
    return [
        result.row,
        result.work,
        str(result.names or ""),
        result.order,
        result.files,
        quantity(medians["tarvo"], result.unit),
        f"{100 * spread_of(result.passes['tarvo']):.0f} %",
        times(ratio(result, "again")),
        times(ratio(result, "floor")),
        times(ratio(result, "plain")),
        times(ratio(result, "against")),
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
    "Floor",
    "Plain",
    "Against",
    "Others",
    "Slowest",
]


def table(results: list[Any]) -> str:
    rows = [HEADINGS, ["---"] * len(HEADINGS)] + [table_row(one) for one in results]
    return "".join("| " + " | ".join(row) + " |\n" for row in rows)


def as_json(results: list[Any], circumstances: dict[str, str]) -> dict[str, Any]:
    return {
        "schema": 3,
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
                "ratios": {who: ratio(one, who) for who in one.medians()},
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
    document = json.dumps(as_json(results, circumstances), indent=1)
    (folder / "results.json").write_text(document + "\n", encoding="utf-8")
