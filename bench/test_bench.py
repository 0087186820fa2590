"""Runs the contest at its shortest and looks at what it leaves: test_bench.py BUILD."""

import json
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Any

from bench import Result
from goals import goals_of

FIELDS = {
    "row", "work", "names", "order", "files", "unit", "passes", "medians", "plain_ratio",
    "again_ratio", "against_ratio", "shares", "slowest", "goals",
}  # fmt: skip
EVERYBODY = {
    "tarvo", "again", "plain", "dpdk", "boost tree", "boost sequential", "posix shm", "lmdb",
}  # fmt: skip
AREA_KIBIBYTES = 68488


def verdicts(result: Result) -> dict[str, bool]:
    return {goal.of: goal.met for goal in goals_of(result)}


def check_goals() -> None:
    times = {"tarvo": [100.0], "plain": [301.0], "dpdk": [649.0]}
    result = Result("a", "get a name", 1000, "in order", "tmpfs", passes=times)
    assert verdicts(result) == {"literal": True, "dpdk": False}
    times |= {"plain": [299.0], "dpdk": [651.0]}
    assert verdicts(result) == {"literal": False, "dpdk": True}
    times["against"] = [301.0]  # goes before the plain walk
    assert verdicts(result) == {"literal": True, "dpdk": True}

    result = Result("c", "attach and first get", 1000, "in order", "ext4", passes=times)
    assert verdicts(result) == {"literal": True}  # Boost has not been measured here
    times |= {"against": [200.0], "boost tree": [76.0]}
    assert verdicts(result) == {"literal": False, "boost tree": False}
    result.files = "tmpfs"
    times["boost tree"] = [77.0]
    assert verdicts(result) == {"literal": True, "boost tree": True}

    shares = {"tarvo": [0.41, 0.39, 0.1], "plain": [1.0]}
    result = Result("e", "get, 2 at once", 16, "in order", "ext4", passes=times, shares=shares)
    assert verdicts(result) == {"slowest": False}
    shares["tarvo"] = [0.41, 0.1, 0.5]
    assert verdicts(result) == {"slowest": True}

    sizes = {"tarvo": [1064.0], "plain": [1000.0]}
    result = Result("f", "resident memory after walks", 16, "", "ext4", "KiB", sizes)
    assert verdicts(result) == {"literal": True}
    sizes["tarvo"] = [1065.0]
    assert verdicts(result) == {"literal": False}


def contest(folder: Path) -> dict[str, Any]:
    bench = Path(__file__).with_name("bench.py")
    subprocess.run(
        [sys.executable, "-B", bench, sys.argv[1], "--quick", "--rows", "aef", "--passes", "2"]
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
        if one["row"] != "-":
            assert one["plain_ratio"] == one["medians"]["plain"] / one["medians"]["tarvo"]


def check_rows(results: list[dict[str, Any]]) -> None:
    gets = [one for one in results if one["row"] == "a"]
    assert len(gets) == 4, gets  # two lengths, two orders
    for one in gets:
        floor = {"lock pair"} if one["names"] == 16 else set()
        assert set(one["passes"]) == EVERYBODY | floor
        assert {"posix shm", "lock pair"} <= {goal["of"] for goal in one["goals"]} or not floor

    crowds = [one for one in results if one["row"] == "e"]
    assert len(crowds) == 12, crowds  # two lengths, three crowds, two kinds of work
    for one in crowds:
        assert set(one["passes"]) == EVERYBODY
        alone = one["work"].endswith(" 1 at once")
        assert set(one["slowest"]) == (set() if alone else EVERYBODY)
        assert all(0 <= share <= 1 for share in one["slowest"].values())

    memory, files = (one for one in results if one["row"] == "f")
    assert set(memory["passes"]) == set(files["passes"]) == EVERYBODY
    assert files["medians"]["tarvo"] == files["medians"]["plain"] == AREA_KIBIBYTES
    assert files["medians"]["posix shm"] == 4 * 1000  # a page for each name


def main() -> None:
    check_goals()
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        document = contest(folder)
        assert (folder / "plain.svg").read_text(encoding="utf-8").startswith("<svg")
        table = (folder / "table.md").read_text(encoding="utf-8")
    assert "| a | get a name |" in table and "| Goal | Met |" in table
    assert document["schema"] == 2 and document["date"] and document["machine"]
    check_results(document["results"])
    check_rows(document["results"])


if __name__ == "__main__":
    main()
