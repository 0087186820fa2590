#!/usr/bin/env python3
"""The measurements of docs/performance.md. scripts/bench builds what they take and runs this.

The programs take turns in short passes, so that whatever else the machine does affects all of them; a
result is the median of the passes. Only ratios mean anything, and "again", the library against
itself, shows how far off they can be.
"""

import argparse
import datetime
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

import goals
import publish
import report

LIBRARIES = {"tarvo": "bench_tarvo", "again": "bench_tarvo", "plain": "bench_plain"}
PEERS = {
    "dpdk": "bench_dpdk",
    "boost tree": "bench_boost_tree",
    "boost sequential": "bench_boost_sequential",
    "posix shm": "bench_posix_shm",
    "lmdb": "bench_lmdb",
}
FLOOR = {"floor": "bench_floor"}
DPDK_NAMES = 2500  # no more zones fit into its table


class Worker:
    """A process of a backend; worker.cpp lists what it can be asked."""

    def __init__(self, command: list[str]) -> None:
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )

    def ask_for_all(self, command: str) -> list[float]:
        assert self.process.stdin and self.process.stdout
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            sys.exit(f"bench: a worker ended: {self.process.args}")
        return [float(number) for number in line.split()]

    def ask(self, command: str) -> float:
        (number,) = self.ask_for_all(command)
        return number

    def stop(self) -> None:
        assert self.process.stdin
        self.process.stdin.close()
        self.process.wait()


class Place:
    """A sandbox whose files lie on a file system of that kind, and the workers in it."""

    programs = Path("bench")  # the workers' folder in the build

    def __init__(self, build: Path, kind: str) -> None:
        self.build = build
        self.folder = Path(tempfile.mkdtemp(prefix="bench-", dir=build))
        self.control = Path(tempfile.mkdtemp(prefix="tarvo-bench-")) / "control"
        mounts = "mount -t tmpfs none /dev/shm"
        if kind == "tmpfs":
            mounts += f" && mount -t tmpfs -o size=3g none '{self.folder}'"
        self.workers: list[Worker] = []
        # What holds the sandbox open prints one line when the sandbox is ready.
        self.holder = subprocess.Popen(
            ["unshare", "--mount", "sh", "-c", mounts + ' && exec "$@"', "sh"]
            + [str(build / "tarvo-sandbox"), "--state", str(self.folder / "state")]
            + ["--control", str(self.control), "--", "sh", "-c", "echo ready; cat"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        assert self.holder.stdout
        if self.holder.stdout.readline() != "ready\n":
            sys.exit("bench: the sandbox did not start; run this as root, with /dev/fuse")

    def worker(self, program: str) -> Worker:
        """`program` can follow a folder and a colon: there is the library that it uses."""
        library, _, name = program.rpartition(":")
        command = ["env", f"LD_LIBRARY_PATH={library}"] if library else []
        sandbox = [str(self.build / "tarvo-sandbox"), "join", "--control", str(self.control)]
        one = Worker([*sandbox, "--", *command, str(self.build / self.programs / name)])
        self.workers.append(one)
        return one

    def __enter__(self) -> "Place":
        return self

    def __exit__(self, *_: object) -> None:
        for one in self.workers:
            one.stop()
        assert self.holder.stdin
        self.holder.stdin.close()
        self.holder.wait()
        shutil.rmtree(self.folder)
        shutil.rmtree(self.control.parent)


@dataclass
class Result:
    """One line of the table. Values are nanoseconds, or what `unit` says.

    `shares` are those of the slowest of several processes: its work as a share of the mean of all.
    """

    row: str
    work: str
    names: int
    order: str
    files: str
    unit: str = "ns"
    passes: dict[str, list[float]] = field(default_factory=dict)
    shares: dict[str, list[float]] = field(default_factory=dict)

    def medians(self) -> dict[str, float]:
        return medians_of(self.passes)

    def slowest(self) -> dict[str, float]:
        return medians_of(self.shares)


def medians_of(passes: dict[str, list[float]]) -> dict[str, float]:
    return {who: statistics.median(values) for who, values in passes.items()}


class Benchmark:
    def __init__(self, build: Path, passes: int, quick: bool) -> None:
        self.build = build
        self.passes = passes
        self.quick = quick
        self.results: list[Result] = []

    def take_turns(self, result: Result, workers: dict[str, Worker], command: str) -> None:
        for who in workers:
            result.passes[who] = []
        for _ in range(self.passes):
            for who, one in workers.items():
                result.passes[who].append(one.ask(command))
        self.add(result)

    def add(self, result: Result) -> None:
        self.results.append(result)
        print(report.line_of(result), flush=True)

    def libraries(self, place: Place, setup: str) -> dict[str, Worker]:
        """All libraries on one region, which the first sets up, and the floor with them."""
        workers = {who: place.worker(program) for who, program in LIBRARIES.items()}
        workers["tarvo"].ask(setup)
        workers |= {who: place.worker(program) for who, program in FLOOR.items()}
        for one in workers.values():
            one.ask("join")
        return workers

    def all_workers(self, place: Place, names: int, setup: str) -> dict[str, Worker]:
        workers = self.libraries(place, setup)
        for who, program in PEERS.items():
            if who != "dpdk" or names <= DPDK_NAMES:
                workers[who] = place.worker(program)
                workers[who].ask(setup)
        return workers

    def fresh_workers(self, place: Place, names: int) -> dict[str, Worker]:
        """One of each that has not joined yet, in a place that another has filled. With DPDK it is
        the other one itself, which is all that the processes forked from it can share with."""
        workers = {}
        for who, program in (LIBRARIES | PEERS).items():
            if who != "dpdk" or names <= DPDK_NAMES:
                workers[who] = place.worker(program)
                filling = workers[who] if who == "dpdk" else place.worker(program)
                filling.ask(f"fill {names}")
        return workers

    def names(self) -> list[int]:
        return [16, 1000] if self.quick else [16, 1000, 2500, 16000]

    def find_and_churn(self, kind: str, rows: set[str]) -> None:
        for names in self.names():
            for order, setup in (("in order", "fill"), ("shuffled", "shuffle")):
                with Place(self.build, kind) as place:
                    workers = self.all_workers(place, names, f"{setup} {names}")
                    times = max(20, min(2000, 1000000 // names))
                    if "a" in rows:
                        result = Result("a", goals.GET, names, order, kind)
                        self.take_turns(result, workers, f"find {names} {times}")
                    if "b" in rows:
                        result = Result("b", goals.CHURN, names, order, kind)
                        self.take_turns(result, workers, f"churn {names} {max(5, times // 10)}")

    def attach(self, kind: str) -> None:
        """New processes, from nothing to having found the place, and to the first name."""
        tree = {who: program for who, program in PEERS.items() if who == "boost tree"}
        programs = LIBRARIES | FLOOR | tree
        for names in self.names()[1:]:
            for order, setup in (("in order", "fill"), ("shuffled", "shuffle")):
                with Place(self.build, kind) as place:
                    for program in (LIBRARIES["tarvo"], *tree.values()):
                        place.worker(program).ask(f"{setup} {names}")
                    workers = {who: place.worker(program) for who, program in programs.items()}
                    if names == 1000 and order == "in order":
                        result = Result("c", "attach", names, order, kind)
                        self.take_turns(result, workers, "attach 5")
                    result = Result("c", goals.FIRST_GET, names, order, kind)
                    self.take_turns(result, workers, f"attach_find {names} 5")

    def touch(self, kind: str) -> None:
        for names in (16, 1000) if self.quick else (16, 1000, 16000):
            with Place(self.build, kind) as place:
                workers = self.all_workers(place, names, f"fill {names}")
                workers.pop("lmdb", None)
                workers["tarvo"].ask("wide 65536")
                for who in workers.keys() & PEERS.keys():
                    workers[who].ask("wide 65536")
                result = Result("d", goals.TOUCH, names, "in order", kind)
                self.take_turns(result, workers, "touch 50")

    def parallel(self, kind: str) -> None:
        for names in (16, 1000):
            with Place(self.build, kind) as place:
                parents = self.fresh_workers(place, names)
                for count in (1, 2, 4):
                    for work, command in (
                        ("allocate and free", "churn_parallel"),
                        ("get", "find_parallel"),
                    ):
                        work = f"{work}, {count} at once"
                        result = Result("e", work, names, "in order", kind)
                        self.measure_parallel(result, parents, f"{command} {names}", count)

    def measure_parallel(
        self, result: Result, parents: dict[str, Worker], command: str, count: int
    ) -> None:
        for _ in range(min(7, self.passes)):
            for who, parent in parents.items():
                time, share = parent.ask_for_all(f"{command} {count}")
                result.passes.setdefault(who, []).append(time)
                if count > 1:  # one alone is as fast as itself
                    result.shares.setdefault(who, []).append(share)
        self.add(result)

    def memory(self, kind: str) -> None:
        names = self.names()[-1]
        with Place(self.build, kind) as place:
            # Those that filled the place have touched more: they are not compared.
            workers = self.fresh_workers(place, names)
            for one in workers.values():
                one.ask(f"find {names} 50")
            for work, command in (
                ("resident memory after walks", "memory"),
                ("files that hold the names", "files"),
            ):
                result = Result("f", work, names, "in order", kind, "KiB")
                self.take_turns(result, workers, command)

    def large(self, kind: str) -> None:
        for mebibytes in (1, 64) if self.quick else (1, 64, 256):
            work = f"allocate {mebibytes} MiB and touch"
            result = Result("g", work, 0, "fresh", kind)
            for _ in range(min(3, self.passes)):
                for who, program in LIBRARIES.items():
                    with Place(self.build, kind) as place:
                        one = place.worker(program)
                        one.ask("join")
                        result.passes.setdefault(who, []).append(one.ask(f"large {mebibytes}"))
            self.add(result)
            with Place(self.build, kind) as place:
                workers = self.libraries(place, "join")
                workers.pop("floor")
                workers["tarvo"].ask(f"large {mebibytes}")
                result = Result("g", work, 0, "recycled", kind)
                self.take_turns(result, workers, f"large {mebibytes}")

    def rest(self, kind: str) -> None:
        result = Result("h", "first build", 0, "", kind)
        for _ in range(min(5, self.passes)):
            for who, program in LIBRARIES.items():
                with Place(self.build, kind) as place:
                    result.passes.setdefault(who, []).append(
                        place.worker(program).ask("attach 1")
                    )
        self.add(result)
        for names in self.names()[1::2]:
            for order, setup in (("in order", "fill"), ("shuffled", "shuffle")):
                with Place(self.build, kind) as place:
                    workers = self.libraries(place, f"{setup} {names}")
                    result = Result("h", goals.LAST, names, order, kind)
                    self.take_turns(result, workers, f"locate {names - 1}")
                    workers.pop("floor")
                    self.take_turns(Result("h", "list all", names, order, kind), workers, "list")
        with Place(self.build, kind) as place:
            workers = self.libraries(place, "fill 1000")
            workers.pop("floor")
            result = Result("h", "register and unregister", 1000, "in order", kind)
            self.take_turns(result, workers, "register")
            workers["tarvo"].ask("devices 4")
            result = Result("h", "allocate and free, 4 devices", 1000, "in order", kind)
            self.take_turns(result, workers, "churn 1000 20")

    def run(self, kind: str, rows: set[str]) -> None:
        if rows & {"a", "b"}:
            self.find_and_churn(kind, rows)
        for row, part in (
            ("c", self.attach),
            ("d", self.touch),
            ("e", self.parallel),
            ("f", self.memory),
            ("g", self.large),
            ("h", self.rest),
        ):
            if row in rows:
                part(kind)


def kind_of(folder: Path) -> str:
    kind = subprocess.check_output(["stat", "-f", "-c", "%T", folder], text=True).strip()
    return "ext4" if kind == "ext2/ext3" else kind


def circumstances(source: Path, passes: int) -> dict[str, str]:
    git = ["git", "-C", str(source), "describe", "--always", "--dirty"]
    model = [
        line.split(":", 1)[1].strip()
        for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
        if line.startswith("model name")
    ]
    return {
        "commit": subprocess.run(git, capture_output=True, text=True).stdout.strip(),
        "date": datetime.date.today().isoformat(),
        "machine": f"{os.cpu_count()} x {model[0] if model else platform.machine()}",
        "kernel": platform.release(),
        "passes": str(passes),
    }


def main() -> None:
    parser = argparse.ArgumentParser(description="Measures libtarvo against its peers.")
    parser.add_argument("build", type=Path, help="build directory with TARVO_BENCH on")
    parser.add_argument("--output", type=Path, help="folder for results (default: the build's)")
    parser.add_argument("--quick", action="store_true", help="short lists, few passes, one kind")
    parser.add_argument("--rows", default="abcdefgh", help="which rows (default: %(default)s)")
    parser.add_argument("--against", type=Path, help="folder with another libtarvo.so.0")
    parser.add_argument("--i386", action="store_true", help="32-bit programs; without peers")
    parser.add_argument("--publish", action="store_true", help="put the results into docs/")
    parser.add_argument("--passes", type=int, help="how often all_workers takes a turn")
    given = parser.parse_args()

    build = given.build.resolve()
    if given.against:
        LIBRARIES["against"] = f"{given.against.resolve()}:{LIBRARIES['tarvo']}"
    if given.i386:
        Place.programs = Path("i386/bench")
        PEERS.clear()
    benchmark = Benchmark(build, given.passes or (3 if given.quick else 11), given.quick)
    kinds = ["tmpfs"] if given.quick else [kind_of(build), "tmpfs"]
    for kind in kinds:
        benchmark.run(kind, set(given.rows))
    output = (given.output or build / "results").resolve()
    output.mkdir(parents=True, exist_ok=True)
    report.write(benchmark.results, circumstances(Path(__file__).parent, benchmark.passes), output)
    if given.publish:
        docs = Path(__file__).parents[1] / "docs"
        (publish.publish_i386 if given.i386 else publish.publish)(output, docs)


if __name__ == "__main__":
    main()
