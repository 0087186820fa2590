"""What the results of bench.py are to reach.

A goal says how many times as long as the library something else is to take: another build of it, a
peer, or a floor of the machine. Goals of memory and of evenness are of their own kind.
"""

from dataclasses import asdict, dataclass
from typing import Any

LITERAL = "literal"  # a literal execution of the same steps: --against, or else the plain walk

# Against that: work, names, order -> ext4, tmpfs.
TIMES = {
    ("get a name", 16, "in order"): (1.0, 1.0),
    ("get a name", 1000, "in order"): (3.0, 3.0),
    ("get a name", 2500, "in order"): (4.0, 4.0),
    ("get a name", 16000, "in order"): (5.0, 5.0),
    ("get a name", 1000, "shuffled"): (4.5, 4.5),
    ("get a name", 16000, "shuffled"): (8.0, 4.5),
    ("allocate and free 4 KiB", 16, "in order"): (1.3, 1.3),
    ("allocate and free 4 KiB", 1000, "in order"): (5.0, 5.0),
    ("allocate and free 4 KiB", 2500, "in order"): (5.0, 5.0),
    ("allocate and free 4 KiB", 16000, "in order"): (6.0, 6.0),
    ("allocate and free 4 KiB", 1000, "shuffled"): (6.5, 6.5),
    ("allocate and free 4 KiB", 16000, "shuffled"): (12.0, 7.5),
    ("attach", 1000, "in order"): (1.3, 1.3),
    ("attach and first get", 1000, "in order"): (3.0, 1.0),
    ("map 64 KiB, touch, unmap", 16, "in order"): (1.0, 1.0),
    ("map 64 KiB, touch, unmap", 1000, "in order"): (2.4, 1.8),
    ("first build", 0, ""): (1.7, 1.15),
    ("find the last by address", 1000, "in order"): (2.2, 2.2),
    ("find the last by address", 16000, "in order"): (3.3, 3.3),
    ("list all", 1000, "in order"): (8.0, 8.0),
    ("list all", 16000, "in order"): (8.0, 8.0),
    ("register and unregister", 1000, "in order"): (1.0, 1.0),
    ("allocate and free, 4 devices", 1000, "in order"): (1.8, 1.8),
}
for count in (1, 2, 4):
    TIMES[f"get, {count} at once", 1000, "in order"] = (2.8, 2.8)
    TIMES[f"allocate and free, {count} at once", 16, "in order"] = (1.3, 1.3)
    TIMES[f"allocate and free, {count} at once", 1000, "in order"] = (4.5, 4.5)
for size in (1, 64, 256):
    TIMES[f"allocate {size} MiB and touch", 0, "fresh"] = (1.0, 1.0)
    TIMES[f"allocate {size} MiB and touch", 0, "recycled"] = (1.05, 1.8)

# Against others: work, names -> whatever the order and the file system.
TIMES_OF_OTHERS = {
    ("get a name", 16): {"lock pair": 1 / 1.2, "posix shm": 2.0},  # at most 1.2 lock pairs
    ("get a name", 1000): {"dpdk": 6.5},
    ("get a name", 2500): {"dpdk": 5.5},
    ("allocate and free 4 KiB", 16): {"posix shm": 1.2},
    ("allocate and free 4 KiB", 1000): {"dpdk": 5.0},
    ("allocate and free 4 KiB", 2500): {"dpdk": 3.8},
    ("attach", 1000): {"boost tree": 1 / 1.3},  # at most 1.3 times as long as that
    ("attach and first get", 1000): {"boost tree": 1 / 1.3},
    ("map 64 KiB, touch, unmap", 16): {"posix shm": 1.0},
    ("get, 4 at once", 1000): {"dpdk": 8.0},
    ("allocate and free, 4 at once", 1000): {"dpdk": 12.0},
}

# More than the literal build takes: kibibytes.
MORE_MEMORY = {"resident memory after walks": 64, "files behind the names": 0}

# The slowest process's work beside the mean of all.
SLOWEST_SHARE = 0.4

# "Never slower" is met by whatever cannot be told from equal.
NOISE = 0.03


@dataclass
class Goal:
    """`of` says what the result is held against, `limit` is in what `kind` says."""

    of: str
    kind: str  # "times", "share": at least the limit; "KiB more": at most
    limit: float
    reached: float

    @property
    def met(self) -> bool:
        if self.kind == "KiB more":
            return self.reached <= self.limit
        return self.reached >= (self.limit - NOISE if self.limit == 1.0 else self.limit)

    def limit_text(self) -> str:
        text = f"+{self.limit:.0f} KiB" if self.kind == "KiB more" else f"{self.limit:.2f}"
        return self._named(text)

    def met_text(self) -> str:
        return self._named("yes" if self.met else "no")

    def _named(self, text: str) -> str:
        return text if self.of == LITERAL else f"{self.of} {text}"

    def as_json(self) -> dict[str, Any]:
        return {**asdict(self), "met": self.met}


def wanted_times(result: Any) -> dict[str, float]:
    both = TIMES.get((result.work, result.names, result.order))
    own = {LITERAL: both[1 if result.files == "tmpfs" else 0]} if both else {}
    return own | TIMES_OF_OTHERS.get((result.work, result.names), {})


def goals_of(result: Any) -> list[Goal]:
    """Those of `result` whose other side has been measured, too."""
    medians = result.medians()
    if "tarvo" not in medians:
        return []
    own = medians["tarvo"]
    medians[LITERAL] = medians.get("against", medians["plain"])
    goals = [
        Goal(who, "times", limit, medians[who] / own)
        for who, limit in wanted_times(result).items()
        if who in medians
    ]
    if result.work in MORE_MEMORY:
        limit = MORE_MEMORY[result.work]
        goals.append(Goal(LITERAL, "KiB more", limit, own - medians[LITERAL]))
    if result.shares:
        goals.append(Goal("slowest", "share", SLOWEST_SHARE, result.slowest()["tarvo"]))
    return goals
