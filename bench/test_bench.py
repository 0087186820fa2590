"""Runs the contest at its shortest and looks at what it leaves: test_bench.py BUILD."""

import json
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

FIELDS = {
    "row", "work", "names", "order", "files", "unit", "passes", "medians", "plain_ratio",
    "again_ratio", "against_ratio", "goal",
}  # fmt: skip


def main() -> None:
    bench = Path(__file__).with_name("bench.py")
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(
            [sys.executable, bench, sys.argv[1], "--quick", "--rows", "a", "--passes", "2"]
            + ["--output", folder],
            check=True,
        )
        document = json.loads((Path(folder) / "results.json").read_text(encoding="utf-8"))
        assert (Path(folder) / "plain.svg").read_text(encoding="utf-8").startswith("<svg")
        assert "| a | get a name |" in (Path(folder) / "table.md").read_text(encoding="utf-8")
    assert document["schema"] == 1 and document["date"] and document["machine"]
    rows = [one for one in document["results"] if one["row"] == "a"]
    assert len(rows) == 4, rows  # two lengths, two orders
    for one in rows:
        assert set(one) == FIELDS, one
        assert all(len(passes) == 2 for passes in one["passes"].values())
        for who, passes in one["passes"].items():
            assert one["medians"][who] == statistics.median(passes) > 0
        assert one["plain_ratio"] == one["medians"]["plain"] / one["medians"]["tarvo"]


if __name__ == "__main__":
    main()
