"""Runs the benchmark at its shortest and looks at what it leaves: test_bench.py BUILD."""

import json
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Any

from bench import Result
from goals import goals_of
from publish import GOALS, I386, RESULTS, publish, publish_i386

FIELDS = {
    "row", "work", "names", "order", "files", "unit", "passes", "medians", "ratios", "shares",
    "slowest", "goals",
}  # fmt: skip
ALL_WORKERS = {
    "tarvo", "again", "plain", "dpdk", "boost tree", "boost sequential", "posix shm", "lmdb",
}  # fmt: skip
AREA_KIBIBYTES = 68488


def verdicts(result: Result) -> dict[str, bool]:
    return {goal.of: goal.met for goal in goals_of(result)}


def check_goals() -> None:
    times = {"tarvo": [100.0], "plain": [229.0], "floor": [88.0]}
    result = Result("a", "get a name", 1000, "shuffled", "tmpfs", passes=times)
    assert verdicts(result) == {"floor": True, "plain": False}
    result.files = "ext4"
    assert verdicts(result) == {"floor": True, "plain": True}
    times["floor"] = [86.0]
    assert verdicts(result) == {"floor": False, "plain": True}
    result.names = 500
    assert verdicts(result) == {}

    del times["floor"]  # nothing is held against what was not measured
    result = Result("c", "first get of a new process", 16000, "in order", "ext4", passes=times)
    assert verdicts(result) == {"plain": True}
    result = Result("c", "first get of a new process", 1000, "in order", "ext4", passes=times)
    assert verdicts(result) == {}


def benchmark(folder: Path, *options: str) -> dict[str, Any]:
    bench = Path(__file__).with_name("bench.py")
    subprocess.run(
        [sys.executable, "-B", bench, sys.argv[1], "--quick", "--passes", "2", *options]
        + ["--output", folder],
        check=True,
    )
    document: dict[str, Any] = json.loads((folder / "results.json").read_text(encoding="utf-8"))
    return document


def check_results(results: list[dict[str, Any]]) -> None:
    for one in results:
        assert set(one) == FIELDS, one
        assert all(len(passes) == 2 for passes in one["passes"].values())
        for who, passes in one["passes"].items():
            assert one["medians"][who] == statistics.median(passes) > 0
        assert one["ratios"]["plain"] == one["medians"]["plain"] / one["medians"]["tarvo"]


def check_rows(results: list[dict[str, Any]]) -> None:
    gets = [one for one in results if one["row"] == "a"]
    assert len(gets) == 4, gets  # two lengths, two orders
    for one in gets:
        assert set(one["passes"]) == ALL_WORKERS | {"floor"}
        assert {"floor", "plain"} == {goal["of"] for goal in one["goals"]}

    starts = [one for one in results if one["row"] == "c"]
    assert len(starts) == 3, starts  # an attach, and a first get in both orders
    for one in starts:
        assert set(one["passes"]) == {"tarvo", "again", "plain", "floor", "boost tree"}

    parallel = [one for one in results if one["row"] == "e"]
    assert len(parallel) == 12, parallel  # two lengths, three counts, two kinds of work
    for one in parallel:
        assert set(one["passes"]) == ALL_WORKERS
        alone = one["work"].endswith(" 1 at once")
        assert set(one["slowest"]) == (set() if alone else ALL_WORKERS)
        assert all(0 <= share <= 1 for share in one["slowest"].values())

    memory, files = (one for one in results if one["row"] == "f")
    assert set(memory["passes"]) == set(files["passes"]) == ALL_WORKERS
    assert files["medians"]["tarvo"] == files["medians"]["plain"] == AREA_KIBIBYTES
    assert files["medians"]["posix shm"] == 4 * 1000  # a page for each name


def page_with(path: Path, *parts: str) -> Path:
    marked = "".join(f"<!-- {part} -->\nstale\n<!-- end of {part} -->\n" for part in parts)
    path.write_text(f"before\n{marked}after\n", encoding="utf-8")
    return path


def check_pages(results: Path) -> None:
    pages = [
        page_with(results / "performance.md", RESULTS),
        page_with(results / "performance-results.md", GOALS, RESULTS),
    ]
    publish(results, results)
    small, full = (page.read_text(encoding="utf-8") for page in pages)
    assert small.startswith("before\n") and small.endswith("after\n") and "stale" not in small
    assert "| get a name | 1000 | tmpfs | " in small and "| 16 |" not in small
    assert "| get a name | 16 | tmpfs | " in full and "stale" not in full
    assert "| a | get a name | 16 |" in full and "| c | attach | 1000 |" in full
    drawn = (results / "performance.svg").read_text(encoding="utf-8")
    assert drawn.startswith("<svg") and "get a name, 1000 names" in drawn


def check_i386(results: Path) -> None:
    document = benchmark(results, "--i386", "--rows", "acd")
    for one in document["results"]:
        assert set(one["passes"]) == {"tarvo", "again", "plain", "floor"}
    page = page_with(results / "performance-results.md", I386)
    publish_i386(results, results)
    text = page.read_text(encoding="utf-8")
    assert "| get a name | 16 | tmpfs | " in text and "stale" not in text


def main() -> None:
    check_goals()
    with tempfile.TemporaryDirectory() as name:
        document = benchmark(Path(name), "--rows", "acef")
        check_pages(Path(name))
        check_i386(Path(name))
    assert document["schema"] == 3 and document["date"] and document["machine"]
    check_results(document["results"])
    check_rows(document["results"])


if __name__ == "__main__":
    main()
